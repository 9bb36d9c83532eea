#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds what a translation needs (the
# module, the host and the tool; not the agent, the tests or the benchmarks)
# in build-demo, and translates the bundled example: the operational state
# of two tunnels, to OpenConfig.  Each step is named on standard error as it
# begins, with the build's progress and each step's time; the translation is
# the only thing on standard output.
#
#   scripts/demo.sh
#
# OCTUNNEL_DEMO_BUILD=DIR uses the tree DIR, configured already (as the
# tests' own), as it is instead: the demo then configures nothing and builds
# only what DIR lacks of the tool.
#
# Exit status: 0 translated; 1 a step failed (named, with the end of its
# output; the build's whole output is in the tree's demo-build.log).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${OCTUNNEL_DEMO_BUILD:-build-demo}
jobs=$(nproc)
started=$SECONDS
step_started=$SECONDS
step_no=0

elapsed() {
  local s=$1
  if [ "$s" -ge 60 ]; then echo "$((s / 60)) min $((s % 60)) s"; else echo "$s s"; fi
}
step() {
  if [ "$step_no" -gt 0 ]; then echo "   ($(elapsed $((SECONDS - step_started))))" >&2; fi
  step_no=$((step_no + 1))
  step_started=$SECONDS
  echo "== demo [$step_no/4] $*" >&2
}
failed() {
  echo "demo: failed at step $step_no ($1) after $(elapsed $((SECONDS - started)))" >&2
  exit 1
}

step "installing packages: scripts/install-deps.sh demo"
scripts/install-deps.sh demo >&2 || failed "installing packages"

if [ -n "${OCTUNNEL_DEMO_BUILD:-}" ]; then
  step "configuring: $build, configured already, used as it is"
  [ -f "$build/CMakeCache.txt" ] || {
    echo "demo: $build is not a configured build tree" >&2
    failed "configuring"
  }
else
  step "configuring: $build (Release; the module, the host and the tool)"
  mkdir -p "$build"
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DOCTUNNEL_TESTS=OFF -DOCTUNNEL_SERVE=OFF \
    >"$build/demo-configure.log" 2>&1 || {
    tail -n 30 "$build/demo-configure.log" >&2
    failed "configuring"
  }
fi

# The build's own progress lines ("[ 42%] Building CXX object ...") are
# shown as they come; the rest goes to the log, shown only if it fails.
step "building: $build/octunnel and $build/liboctunnel.so, $jobs jobs"
log=$build/demo-build.log
if ! cmake --build "$build" -j"$jobs" --target octunnel_cli 2>&1 | tee "$log" |
  { grep --line-buffered -E '^\[ *[0-9]+(%|/[0-9]+)\]' >&2 || true; }; then
  grep -E -B2 -A8 'error|Error' "$log" | tail -n 40 >&2 || tail -n 40 "$log" >&2
  echo "demo: the build's whole output is in $log" >&2
  failed "building"
fi

step "translating: $build/octunnel to-oc examples/tunnel-state.xml"
"$build/octunnel" to-oc examples/tunnel-state.xml || failed "translating"
echo "   ($(elapsed $((SECONDS - step_started))))" >&2
echo "demo: done in $(elapsed $((SECONDS - started))); the tool is $build/octunnel" >&2
