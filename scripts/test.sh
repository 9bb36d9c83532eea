#!/usr/bin/env bash
# Sets up a fresh Debian machine, checks that the C++ sources are formatted,
# and runs the whole test suite twice: in a Release build (which also
# installs itself into a temporary prefix and is used from there), then
# under AddressSanitizer and UndefinedBehaviorSanitizer; then runs each fuzz
# target for a short while (scripts/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs="$(nproc)"

echo "== format: clang-format --dry-run -Werror"
git ls-files -z -- '*.cpp' '*.h' ':!third_party' | xargs -0 clang-format --dry-run -Werror

run() {
  local dir=$1; shift
  echo "== $dir: configure and build"
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== $dir: tests"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs"
}

run build -DCMAKE_BUILD_TYPE=Release
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run build-sanitize -DCMAKE_BUILD_TYPE=Debug -DOCTUNNEL_SANITIZE=ON
echo "== fuzz: each target for 30 s, under AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/fuzz.sh 30
