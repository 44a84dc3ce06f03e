#!/bin/bash
# The chassis controller's link at rest (its two readers polling a DSP that
# sends nothing for 600 virtual seconds) against one thread making the same
# polls and sleeps in a plain loop, in the same run on the same simulated
# module. Prints the ratio of the best of RUNS runs each, the real times, and
# the real time of one status command.
#
#     bench/dsp_idle_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-3}
tavsim=$build/sim/tavsim
bench=$build/bench/dsp_idle
for b in "$tavsim" "$bench"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim dsp_idle" >&2; exit 1; }
done

work=$(mktemp -d /tmp/dsp-idle-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
best=""
for ((i = 0; i < runs; i++)); do
  rm -rf "$work/m"
  "$tavsim" create "$work/m" --platform 1 --sectors 65536 --any-size >/dev/null
  out=$("$bench" "$work/m" 600 2>/dev/null)
  ratio=$(echo "$out" | awk -F': ' '/^idle link \/ plain loop/ {split($2, a, " "); print a[1]}')
  if [ -z "$best" ] || awk -v r="$ratio" -v b="$best" 'BEGIN {exit !(r < b)}'; then
    best=$ratio
    kept=$out
  fi
done
echo "$kept"
