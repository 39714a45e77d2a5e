#!/usr/bin/env bash
# Sets everything up, builds, and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh release zt-demo
exec build/release/apps/demo/zt-demo "$@"
