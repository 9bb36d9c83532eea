#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds octunnel and translates the bundled
# example: the operational state of two tunnels, to OpenConfig.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
echo "== build/octunnel to-oc examples/tunnel-state.xml" >&2
build/octunnel to-oc examples/tunnel-state.xml
