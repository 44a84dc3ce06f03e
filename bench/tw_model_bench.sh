#!/bin/bash
# 2,000 tw_get_model calls on a simulated platform 9 module against the same
# driver calls made with buffers built once (target: at most 1.25 times).
#
#     bench/tw_model_bench.sh [BUILD_DIR] [CALLS] [RUNS]
set -euo pipefail

build=${1:-build}
calls=${2:-2000}
runs=${3:-3}
bench=$build/bench/tw_model
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target tw_model" >&2; exit 1; }
"$bench" "$calls" "$runs"
