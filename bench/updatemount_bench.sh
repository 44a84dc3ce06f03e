#!/bin/bash
# updatemount as a whole process on a simulated four-drive module, against
# the minimal program that makes the same mandated I/O, measured in the same
# run on the same module. Prints one line per figure; the median of RUNS
# runs each, run in turn.
#
#     bench/updatemount_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-40}
tavsim=$build/sim/tavsim
minimal=$build/bench/minimal_updatemount
for b in "$tavsim" "$minimal"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim minimal_updatemount" >&2; exit 1; }
done

work=$(mktemp -d /tmp/updatemount-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
module=$work/m
"$tavsim" create "$module" --platform 1 --sectors 8388608 >/dev/null
"$tavsim" partition "$module" >/dev/null 2>&1
"$tavsim" sign "$module" --time 100 >/dev/null 2>&1

# The same program on plain host files: a disc and a signature partition per drive.
host=$work/host
for d in bus0/target0 bus0/target1 bus1/target1 bus1/target0; do
  dir=$host/dev/ide/host0/$d/lun0
  mkdir -p "$dir"
  truncate -s 4G "$dir/disc"
  truncate -s 1M "$dir/part1"
done

now() { date +%s%N; }
# Wall time of one run of the command, in microseconds.
timed() { local t0 t1; t0=$(now); "$@" >/dev/null 2>&1 || true; t1=$(now); echo $(( (t1 - t0) / 1000 )); }
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }

: > "$work/tool"; : > "$work/base"; : > "$work/host.t"
timed "$tavsim" run "$module" -- updatemount 2 1000 2000 >/dev/null   # warm-up
for ((i = 0; i < runs; i++)); do
  timed "$tavsim" run "$module" -- updatemount 2 1000 2000 >> "$work/tool"
  timed "$minimal" "$module" >> "$work/base"
  timed "$minimal" --host "$host" >> "$work/host.t"
done

tool=$(median < "$work/tool")
base=$(median < "$work/base")
plain=$(median < "$work/host.t")
awk -v t="$tool" -v b="$base" -v h="$plain" 'BEGIN {
  printf "updatemount / minimal program, same simulated module: %.3f (target <= 1.15)\n", t / b
  printf "updatemount wall time: %.2f ms, %.2f ms per drive written (4 drives)\n", t / 1000, t / 4000
  printf "minimal program wall time: %.2f ms on the simulated module, %.2f ms on host files\n", b / 1000, h / 1000
  printf "minimal program, simulated platform / host files: %.3f (for information)\n", b / h
}'
