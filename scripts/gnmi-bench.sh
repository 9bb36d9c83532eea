#!/usr/bin/env bash
# Measures the gNMI front of octunnel serve over TLS on loopback: single-leaf
# Set and Get round trips (median and 99th percentile), a Set of 10,000
# interfaces, a Subscribe ONCE of 10,000 interfaces' state, and the time from
# an operational document renamed into --oper-dir to the ON_CHANGE update
# (see tools/gnmi_bench.py).  Builds a Release tree in build-release first.
#
#   scripts/gnmi-bench.sh [--requests 1000] [--interfaces 10000] [--changes 20]
#                         [--parts leaf,set,once,change]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DOCTUNNEL_TESTS=OFF -DOCTUNNEL_GNMI=ON >/dev/null
cmake --build build-release -j"$(nproc)" --target octunnel_cli octunnel >/dev/null
exec /usr/bin/python3 tools/gnmi_bench.py build-release/octunnel "$@"
