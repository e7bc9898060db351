#!/usr/bin/env bash
# Sets up a fresh Debian machine for qxiveilon31, builds the library and the qxmatte tool, and
# runs the built-in demo. Packages that are already installed are left alone. It installs the
# library with qxmatte and the Python package under /usr/local, and the GIMP plug-in into the
# user's GIMP folder.
#   scripts/setup.sh              install what is missing, build, run the demo
#   scripts/setup.sh --deps-only  install what is missing and stop
set -euo pipefail
cd "$(dirname "$0")/.."

# clang, its runtime (libFuzzer, sanitizers) and libomp build the fuzz targets. The Python
# package runs on Debian's python3 with NumPy (pytest tests it, tqdm draws its progress bar,
# Pillow reads the files of its README example);
# GIMP's development files build the plug-in and gimp-console tests it (its dialogs on Xvfb,
# driven by xdotool). curl fetches the subject-selection network and python3-onnx converts it
# (scripts/fetch_subject_model.sh), curl fetches ONNX Runtime (scripts/fetch_onnxruntime.sh);
# python3-opencv reads the photos of bench/subject.py.
packages=(build-essential cmake pkg-config libopencv-dev libjpeg-dev zlib1g-dev libsuitesparse-dev libopenblas0-pthread
          libmumps-seq-dev libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-dev libomp-dev
          python3 python3-numpy python3-pytest python3-tqdm python3-setuptools python3-pip
          python3-distributed
          python3-venv python3-pil libgimp2.0-dev gimp xvfb xdotool
          curl python3-onnx python3-opencv)
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
# The subject network, once, into the user's cache: without it everything but one-click
# selection works, so a failed fetch is reported and set-up goes on.
scripts/fetch_subject_model.sh ||
  echo "one-click subject selection is off until scripts/fetch_subject_model.sh succeeds"
# ONNX Runtime beside it runs the network faster; without it OpenCV's dnn does.
scripts/fetch_onnxruntime.sh || true
[ "${1:-}" = "--deps-only" ] && exit 0

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target qxiveilon31 qxmatte qx-matting

# Install: the library, its header, qxmatte and the Python package under /usr/local (where
# Debian's python3 finds the package); the GIMP plug-in into this user's GIMP folder.
$SUDO cmake --install build --component Unspecified >/dev/null
$SUDO ldconfig
cmake --install build --component gimp_plugin | sed -n -E 's#^-- (Installing|Up-to-date): /*#GIMP plug-in: /#p'
/usr/bin/python3 -c 'import qxiveilon31 as qx; print("Python package:", qx.__file__, "library", qx.library_version())'

./build/qxmatte demo -o build/demo
