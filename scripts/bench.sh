#!/usr/bin/env bash
# Measures octunnel against yanglint on generated documents of 1,000, 10,000
# and 100,000 tunnel interfaces, both directions, XML and JSON, and prints a
# table (see tools/bench.py).  Builds a Release tree in build-release first.
#
#   scripts/bench.sh [--sizes 1000,10000] [--runs N]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DOCTUNNEL_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)" --target octunnel_cli >/dev/null
exec python3 tools/bench.py build-release/octunnel third_party/openconfig-yang \
  --work build-release/bench "$@"
