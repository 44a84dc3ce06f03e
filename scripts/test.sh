#!/usr/bin/env bash
# Installs what the build needs, configures, builds and runs the tests.
#   scripts/test.sh              GCC, build/
#   scripts/test.sh --sanitize   Clang with AddressSanitizer and UBSan, build-asan/
#   scripts/test.sh --tsan       Clang with ThreadSanitizer, build-tsan/
# Safe to run again: it reuses the build directory.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-plain}

"$top/scripts/install-packages.sh"

case "$mode" in
  plain)      dir=build;      flags=(-DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc) ;;
  --sanitize) dir=build-asan; flags=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DTAV_SANITIZE=ON) ;;
  --tsan)     dir=build-tsan; flags=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DTAV_TSAN=ON) ;;
  *) echo "usage: $0 [--sanitize|--tsan]" >&2; exit 2 ;;
esac

cmake -S "$top" -B "$top/$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
cmake --build "$top/$dir" -j 2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cd "$top/$dir"
ctest -j 2 --timeout 300 --output-on-failure
