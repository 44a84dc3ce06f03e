#!/bin/bash
# The agent's replies against a minimal responder on one simulated module,
# in a private network namespace (needs root): one console with one request
# outstanding (rate, p50, p99) and with 16 outstanding (rate, lost). Prints
# one line per figure, the ratios beside the absolute figures.
#
#     bench/agent_reply_bench.sh [BUILD_DIR] [REQUESTS_1] [REQUESTS_16]
set -euo pipefail

build=${1:-build}
tavsim=$build/sim/tavsim
bench=$build/bench/agent_reply
for b in "$tavsim" "$bench"; do
  [ -x "$b" ] || { echo "missing $b: cmake --build $build --target tavsim agent_reply" >&2; exit 1; }
done
work=$(mktemp -d /tmp/agent-reply-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
"$tavsim" create "$work/m" --platform 1 --sectors 65536 --any-size >/dev/null
"$bench" "$work/m" "${2:-20000}" "${3:-100000}"
