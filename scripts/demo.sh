#!/usr/bin/env bash
# Builds the default configuration and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target zok_demo -j"$(nproc)"
build/default/examples/zok_demo
