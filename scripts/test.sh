#!/usr/bin/env bash
# Builds everything and runs all tests.
#   scripts/test.sh              Release build in build/; then, when clang is present, a short
#                                seeded run (QX_FUZZ_SECONDS, 20 s) of each fuzz target in build-fuzz/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh --fuzz [s]   only the fuzz targets, each for s seconds (default 600)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

# The fuzz targets: clang with libFuzzer, ASan and UBSan, in their own build directory.
fuzz() {
  local seconds="$1"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_FUZZ=ON \
    -DQX_BUILD_TESTS=OFF -DQX_BUILD_BENCH=OFF -DQX_BUILD_TOOLS=OFF \
    -DQX_FUZZ_SECONDS="$seconds" >/dev/null
  cmake --build build-fuzz -j"$jobs" --target \
    $(cd tests/fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
  ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-fuzz -L fuzz --output-on-failure -j"$jobs"
}
have_fuzzer() {
  command -v clang++ >/dev/null &&
    echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' |
      clang++ -x c++ -fsanitize=fuzzer,address,undefined -o /dev/null - 2>/dev/null
}

if [ "${1:-}" = "--fuzz" ]; then
  fuzz "${2:-600}"
  exit 0
fi
# The include layering of docs/ARCHITECTURE.md, before spending time on a build.
python3 scripts/check_layers.py
dir=build
flags=(-DCMAKE_BUILD_TYPE=Release)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DQX_SANITIZE=ON -DQX_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$jobs"
ctest --test-dir "$dir" --output-on-failure -j"$jobs"
if [ "$dir" = build ]; then
  if have_fuzzer; then
    fuzz "${QX_FUZZ_SECONDS:-20}"
  else
    echo "clang with libFuzzer not found: fuzz targets skipped (scripts/setup.sh --deps-only installs it)"
  fi
fi
