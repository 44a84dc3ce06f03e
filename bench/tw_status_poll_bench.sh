#!/bin/bash
# The controller status poll on a simulated platform 15 module in tw_* calls
# against the same driver calls made with buffers built once (target: at
# most 1.3 times).
#
#     bench/tw_status_poll_bench.sh [BUILD_DIR] [POLLS] [RUNS]
set -euo pipefail

build=${1:-build}
polls=${2:-200}
runs=${3:-5}
bench=$build/bench/tw_poll
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target tw_poll" >&2; exit 1; }
"$bench" status "$polls" "$runs"
