#!/bin/bash
# One bay change (powerDown and powerUp of drive 3 by the IDE bus, with the
# chassis controller's link running) against updatemount writing the four
# signatures, in the same run on the same simulated 1U module with RAID 5 and
# the OS mirrors. Every wait of the cycle is virtual: a cycle that slept or
# spun in real time would show a ratio in the hundreds.
#
#     bench/hot_swap_cycle_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-5}
tavsim=$build/sim/tavsim
bench=$build/bench/hot_swap_cycle
for b in "$tavsim" "$bench"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim hot_swap_cycle" >&2; exit 1; }
done

work=$(mktemp -d /tmp/hot-swap-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
module=$work/m
"$tavsim" create "$module" --platform 1 --sectors 8388608 >/dev/null
"$tavsim" partition "$module" >/dev/null 2>&1
"$tavsim" sign "$module" --time 100 >/dev/null 2>&1
"$tavsim" raid "$module" --level 5 >/dev/null 2>&1
"$bench" "$module" "$runs" 2>/dev/null
