#!/bin/bash
# 3,600 status polls while a twelve-drive parity unit rebuilds over 10
# virtual hours against 3,600 polls over 10 virtual seconds (target: at most
# 1.2 times).
#
#     bench/tw_rebuild_poll_bench.sh [BUILD_DIR] [POLLS] [RUNS]
set -euo pipefail

build=${1:-build}
polls=${2:-3600}
runs=${3:-3}
bench=$build/bench/tw_poll
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target tw_poll" >&2; exit 1; }
"$bench" rebuild "$polls" "$runs"
