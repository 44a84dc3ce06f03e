#!/usr/bin/env bash
# Runs updatemount on a simulated module: installs what the build needs,
# builds tavsim, makes a 1U module in a temporary directory, partitions and
# signs it, makes its md RAID 5, shows it and the drive manager's tables, runs
# "updatemount 2 1000 2000" on it and shows the tables again.
# Safe to run again: it reuses build/ and makes a new module each time.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)

"$top/scripts/install-packages.sh"
cmake -S "$top" -B "$top/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc >/dev/null
cmake --build "$top/build" -j 2 --target tavsim updatemount >/dev/null

tavsim=$top/build/sim/tavsim
work=$(mktemp -d /tmp/tavsim-try.XXXXXX)
trap 'rm -rf "$work"' EXIT
module=$work/module

step() { printf '\n$ %s\n' "$*"; "$@"; }
step "$tavsim" create "$module" --platform 1 --sectors 8388608
step "$tavsim" partition "$module" 2>/dev/null
step "$tavsim" sign "$module" 2>/dev/null
step "$tavsim" raid "$module" --level 5 --mount /data
step "$tavsim" show "$module"
step "$tavsim" show "$module" --signature
step "$tavsim" run "$module" -- updatemount 2 1000 2000 2>/dev/null
echo "(exit status $?)"
step "$tavsim" show "$module" --signature
