#!/usr/bin/env bash
# Measures octunnel serve over SSH on loopback: single-leaf edit and read
# round trips (median and 99th percentile), with a client of NETCONF 1.1
# frames over paramiko, which sends at once; and a whole configuration of
# 10,000 interfaces, with ncclient (see tools/serve_bench.py).  Builds a
# Release tree in build-release first.
#
#   scripts/serve-bench.sh [--requests 1000] [--interfaces 10000]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DOCTUNNEL_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)" --target octunnel_cli octunnel >/dev/null
exec /usr/bin/python3 tools/serve_bench.py build-release/octunnel "$@"
