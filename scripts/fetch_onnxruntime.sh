#!/usr/bin/env bash
# Fetches ONNX Runtime's CPU library once and keeps it in the user's cache beside the subject
# model, where the subject module looks for it (src/subject/ort_runtime.cpp). Optional: without
# it the network runs on OpenCV's dnn, about 1.5 times slower.
#
# Source: the npm package onnxruntime-node 1.30.0 (MIT), which ships the prebuilt library
# package/bin/napi-v6/linux/x64/libonnxruntime.so.1 (it needs only libc and libstdc++). Only that
# file is taken from the archive; nothing of the package is run.
#
#   scripts/fetch_onnxruntime.sh [OUTPUT]   default: ${XDG_CACHE_HOME:-~/.cache}/qxiveilon31/libonnxruntime.so.1
#
# Quick when the file is there with the right checksum. Exit 0 when the library is in place,
# 1 when it could not be fetched (one line says why; nothing is left half-written).
set -uo pipefail
. "$(dirname "$0")/fetch_common.sh"

LABEL="ONNX Runtime"
WITHOUT="the subject network runs on OpenCV's dnn"
PACKAGE="onnxruntime-node@1.30.0"
TARBALL="https://registry.npmjs.org/onnxruntime-node/-/onnxruntime-node-1.30.0.tgz"
MEMBER="package/bin/napi-v6/linux/x64/libonnxruntime.so.1"
# SHA-256 of that file in the package.
SHA256="ffb75a925ba05e47b235bb66e3e3911714a80b328a9c9425539feb204aa32a23"
out="${1:-$QX_CACHE/libonnxruntime.so.1}"
keep_if_present "$out" "$SHA256"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
echo "$LABEL: fetching $PACKAGE (about 110 MB) ..."
fetch_tarball "$PACKAGE" "$TARBALL" "$work"
tar -xzf "$work/package.tgz" -C "$work" "$MEMBER" 2>/dev/null ||
  say "the package's archive has no $MEMBER"
install_checked "$work/$MEMBER" "$SHA256" "$out" "library"
echo "$LABEL: $out"
