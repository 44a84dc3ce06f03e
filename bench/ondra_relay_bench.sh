#!/bin/bash
# Throughput of the GUI relay (a GUI, the relay thread, an echoing fake
# manager, all on loopback) against a minimal select/recv/send relay written
# in the benchmark, in the same run on the same simulated module: 20000 round
# trips of 512 bytes each, in alternating slices. Prints the run of the median
# ratio of RUNS runs (target: at least 0.5) with both throughputs.
#
#     bench/ondra_relay_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-3}
tavsim=$build/sim/tavsim
bench=$build/bench/ondra_relay
for b in "$tavsim" "$bench"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim ondra_relay" >&2; exit 1; }
done

work=$(mktemp -d /tmp/ondra-relay-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
outs=()
for ((i = 0; i < runs; i++)); do
  rm -rf "$work/m"
  "$tavsim" create "$work/m" --platform 1 --sectors 65536 --any-size >/dev/null
  outs+=("$("$bench" "$work/m" 20000 512 2>/dev/null | grep -v '^Ondra module: ')")
done
# The run of the median ratio: the relay and the baseline share the machine's
# noise, so neither the best nor the worst run is the one to show.
median=$(for out in "${outs[@]}"; do
  echo "$out" | awk -F': ' '/^relay \/ minimal relay/ {split($2, a, " "); print a[1]}'
done | sort -g | awk '{r[NR] = $1} END {print r[int((NR + 1) / 2)]}')
for out in "${outs[@]}"; do
  if echo "$out" | grep -q "throughput: $median "; then
    echo "$out"
    exit 0
  fi
done
echo "ondra_relay_bench: no run completed" >&2
exit 1
