#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole test suite (unit, end-to-end
# and short fuzz runs). Usage: scripts/test.sh [preset]   (default: ci;
# "asan" runs the suite under AddressSanitizer + UndefinedBehaviorSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-ci}
bash scripts/setup.sh
bash scripts/build.sh "$preset"
# Services the tests need are started here, on loopback only, and stopped on exit.
source scripts/services.sh
trap services_stop EXIT
services_start
ctest --preset "$preset" --parallel "$(nproc)"
