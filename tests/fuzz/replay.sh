#!/usr/bin/env bash
# Replays a fuzz target's seeds (tools/fuzz_corpus.py) and the inputs that
# once made it fail (regressions/<target>/): each must keep the tool's
# promise, which the target checks itself.
#
#   replay.sh FUZZ_TARGET_PROGRAM TARGET
set -euo pipefail
program=$1 target=$2
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$here/../../tools/fuzz_corpus.py" "$work"
inputs=("$work/$target")
[ -d "$here/regressions/$target" ] && inputs+=("$here/regressions/$target")
"$program" "${inputs[@]}"
