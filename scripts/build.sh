#!/usr/bin/env bash
# Configures and builds one preset (default: ci). Usage: scripts/build.sh [preset] [targets…]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-ci}
shift || true
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$(nproc)" ${1:+--target "$@"}
