#!/bin/bash
# The signature check of a 1 MiB signed module against a baseline that reads
# the same bytes, hashes them with SHA-1 and makes the same two DSA_verify
# calls; then, for information, a session loading 100 signed modules with
# verify 1 against the same with verify 0. One line per figure.
#
#     bench/module_check_bench.sh [BUILD_DIR] [CALLS] [RUNS]
set -euo pipefail

build=${1:-build}
tavsim=$build/sim/tavsim
bench=$build/bench/module_check
for b in "$tavsim" "$bench"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim module_check" >&2; exit 1; }
done
work=$(mktemp -d /tmp/module-check-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
for m in one many; do
  "$tavsim" create "$work/$m" --platform 1 --sectors 65536 --any-size >/dev/null
done
"$tavsim" modules "$work/one" keys >/dev/null
"$tavsim" modules "$work/one" add big >/dev/null
"$tavsim" modules "$work/many" keys >/dev/null
for i in $(seq -w 1 100); do
  "$tavsim" modules "$work/many" add good --as "good$i" >/dev/null
done
"$bench" "$work/one" "${2:-10}" "${3:-30}" "$work/many"
