#!/usr/bin/env bash
# Sets up a fresh Debian machine, checks that the C++ sources are formatted,
# and runs the whole test suite twice: in a Release build in build (which
# also installs itself into a temporary prefix and is used from there), then
# under AddressSanitizer and UndefinedBehaviorSanitizer in build-sanitize.
# Between the two, the Release tree is made into the Debian package, which
# is installed on this machine, run and removed (tests/package/run.sh; dpkg
# needs root, or sudo), and the README's first session is run as it is
# written (tests/readme/run.py).  Last, each fuzz target runs for 30 s
# (scripts/fuzz.sh, in build-fuzz).  Each step is named as it begins, with
# the time it took.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$SECONDS
step_started=$SECONDS
step() {
  if [ -n "${step_name:-}" ]; then echo "== $step_name: done in $((SECONDS - step_started)) s"; fi
  step_name=$1
  step_started=$SECONDS
  echo "== $step_name"
}

step "packages: scripts/install-deps.sh all"
scripts/install-deps.sh all
jobs="$(nproc)"

step "format: clang-format --dry-run -Werror"
git ls-files -z -- '*.cpp' '*.h' ':!third_party' | xargs -0 clang-format --dry-run -Werror

run() {
  local dir=$1
  shift
  step "$dir: configure and build"
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  step "$dir: tests"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}

run build -DCMAKE_BUILD_TYPE=Release

# The package from the tree just built and tested: nothing is built again.
step "package: scripts/package.sh build, installed, run, removed and purged"
deb=$(scripts/package.sh build)
tests/package/run.sh "$deb"

step "README: the quick start's commands, and the first session as written"
python3 tests/readme/run.py README.md

ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run build-sanitize -DCMAKE_BUILD_TYPE=Debug -DOCTUNNEL_SANITIZE=ON

step "fuzz: each target for 30 s, under AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/fuzz.sh 30
echo "== $step_name: done in $((SECONDS - step_started)) s"
echo "== all passed in $(((SECONDS - started) / 60)) min $(((SECONDS - started) % 60)) s"
