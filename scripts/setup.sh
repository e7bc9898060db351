#!/usr/bin/env bash
# Sets up a fresh Debian machine for qxiveilon31, builds the library and the qxmatte tool, and
# runs the built-in demo. Packages that are already installed are left alone.
#   scripts/setup.sh              install what is missing, build, run the demo
#   scripts/setup.sh --deps-only  install what is missing and stop
set -euo pipefail
cd "$(dirname "$0")/.."

# clang, its runtime (libFuzzer, sanitizers) and libomp build the fuzz targets. The Python
# package runs on Debian's python3 with NumPy (pytest tests it, tqdm draws its progress bar);
# GIMP's development files build the plug-in and gimp-console tests it.
packages=(build-essential cmake pkg-config libopencv-dev libsuitesparse-dev libopenblas0-pthread
          libmumps-seq-dev libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-dev libomp-dev
          python3 python3-numpy python3-pytest python3-tqdm python3-setuptools python3-pip
          python3-venv libgimp2.0-dev gimp)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
[ "${1:-}" = "--deps-only" ] && exit 0

cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target qxiveilon31 qxmatte
./build/qxmatte demo -o build/demo
