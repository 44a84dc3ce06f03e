#!/bin/bash
# The simulated 9000 firmware: 10,000 parameter reads through the driver
# against 10,000 reads of 1,536 bytes of a plain file of the same module,
# through the same simulated platform (target: at most 3 times).
#
#     bench/tw_firmware_bench.sh [BUILD_DIR] [CALLS]
set -euo pipefail

build=${1:-build}
calls=${2:-10000}
bench=$build/bench/tw_firmware
[ -x "$bench" ] || { echo "missing $bench: cmake --build $build --target tw_firmware" >&2; exit 1; }
"$bench" "$calls"
