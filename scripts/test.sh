#!/usr/bin/env bash
# Installs what the build needs, configures, builds and runs the tests.
#   scripts/test.sh              GCC, in build/
#   scripts/test.sh --sanitize   Clang with AddressSanitizer and UBSan, in build-asan/
#   scripts/test.sh --tsan       Clang with ThreadSanitizer, in build-tsan/
# Safe to run again: it reuses the build directory.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
usage() { echo "usage: $0 [--sanitize | --tsan]"; }

if [ $# -gt 1 ]; then
  echo "test.sh: one mode at a time, not: $*" >&2; usage >&2; exit 2
fi
case "${1:-}" in
  "")         dir=build;      what="GCC";                                  flags=(-DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc) ;;
  --sanitize) dir=build-asan; what="Clang with AddressSanitizer and UBSan"; flags=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DTAV_SANITIZE=ON) ;;
  --tsan)     dir=build-tsan; what="Clang with ThreadSanitizer";            flags=(-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DTAV_TSAN=ON) ;;
  -h|--help)  usage; exit 0 ;;
  *) echo "test.sh: unknown argument $1" >&2; usage >&2; exit 2 ;;
esac

echo "test.sh: checking the packages"
"$top/scripts/install-packages.sh"
echo "test.sh: configuring $dir/ ($what)"
cmake -S "$top" -B "$top/$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
echo "test.sh: building $dir/"
cmake --build "$top/$dir" -j 2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
echo "test.sh: running the tests of $dir/"
cd "$top/$dir"
ctest -j 2 --timeout 300 --output-on-failure
