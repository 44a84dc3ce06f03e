#!/bin/bash
# Recovery of an 8 MiB NVRAM card after a power failure against the same
# transfers and one CRC pass per page (target: at most 2.0 times), and
# against a plain memcpy of the same bytes; then the peak resident memory of
# one recovery on a 1 MiB and a 64 MiB card (target: within 1 MiB of each
# other). All on simulated cards in a temporary directory.
#
#     bench/nvram_recover_bench.sh [BUILD_DIR] [RUNS]
set -euo pipefail

build=${1:-build}
runs=${2:-3}
bench=$build/bench/nvram_recover
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target nvram_recover" >&2; exit 1; }
"$bench" 8 "$runs"
"$bench" --rss 64
