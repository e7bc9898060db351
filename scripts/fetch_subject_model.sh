#!/usr/bin/env bash
# Fetches the subject-selection network (ISNet, general objects) once and keeps it in the user's
# cache, converted for OpenCV's dnn reader; afterwards everything runs offline. Nothing of the
# network is part of this repository.
#
# Source: the npm package @imgly/background-removal-data 1.4.5, its /models/medium (float16
# ONNX in chunks). The package declares AGPL-3.0; its licence notice gives the ISNet weights as
# MIT (https://github.com/xuebinqin/DIS). tools/subject_model/convert_isnet.py joins the chunks
# and rewrites the tensors as float32.
#
#   scripts/fetch_subject_model.sh [OUTPUT]   default: ${XDG_CACHE_HOME:-~/.cache}/qxiveilon31/isnet-fp32.onnx
#
# Quick when the file is there with the right checksum. Exit 0 when the model is in place,
# 1 when it could not be fetched or converted (one line says why; nothing is left half-written).
set -uo pipefail
cd "$(dirname "$0")/.."
. scripts/fetch_common.sh

LABEL="subject model"
PACKAGE="@imgly/background-removal-data@1.4.5"
TARBALL="https://registry.npmjs.org/@imgly/background-removal-data/-/background-removal-data-1.4.5.tgz"
# SHA-256 of the converted model that convert_isnet.py makes from that package.
SHA256="a874f72396630a1c86c1d5142627c65e0b86017695898c5d2b4dd2fcdc7b6899"
out="${1:-$QX_CACHE/isnet-fp32.onnx}"
keep_if_present "$out" "$SHA256"
/usr/bin/python3 -c 'import onnx, numpy' 2>/dev/null || say "python3-onnx is missing"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
echo "$LABEL: fetching $PACKAGE (about 140 MB) ..."
fetch_tarball "$PACKAGE" "$TARBALL" "$work"
tar -xzf "$work/package.tgz" -C "$work" || say "the package's archive is damaged"
/usr/bin/python3 tools/subject_model/convert_isnet.py "$work/package" "$work/model.onnx" ||
  say "conversion failed"
install_checked "$work/model.onnx" "$SHA256" "$out" "converted model"
echo "$LABEL: $out"
