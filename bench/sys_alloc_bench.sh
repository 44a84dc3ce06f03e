#!/bin/bash
# The bucket allocator against malloc and free: one mixed sequence of
# allocations and frees of 1 to 2048 bytes (4096 slots, each allocated or
# freed in turn at random) run through both in alternating rounds of the same
# process. Prints the run of the median ratio of RUNS runs (target: at most
# 0.5) with both times.
#
#     bench/sys_alloc_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-3}
bench=$build/bench/sys_alloc
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target sys_alloc" >&2; exit 1; }

outs=()
for ((i = 0; i < runs; i++)); do
  outs+=("$("$bench" 2000000 5)")
done
median=$(for out in "${outs[@]}"; do
  echo "$out" | awk -F': ' '/^sys_alloc \/ malloc/ {split($2, a, " "); print a[1]}'
done | sort -g | awk '{r[NR] = $1} END {print r[int((NR + 1) / 2)]}')
for out in "${outs[@]}"; do
  if echo "$out" | grep -q "^sys_alloc / malloc: $median "; then
    echo "$out"
    exit 0
  fi
done
echo "sys_alloc_bench: no run completed" >&2
exit 1
