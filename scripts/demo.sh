#!/usr/bin/env bash
# Builds the default configuration and runs the demo; the handler chain it
# draws is rendered to PNG with Graphviz.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh graphviz
cmake --preset default >/dev/null
cmake --build --preset default --target zok_demo -j"$(nproc)"
build/default/examples/zok_demo build/default/handlers.dot
dot -Tpng build/default/handlers.dot -o build/default/handlers.png
echo "rendered build/default/handlers.png"
