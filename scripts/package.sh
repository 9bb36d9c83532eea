#!/usr/bin/env bash
# Builds the Debian package, octunnel_<version>_<arch>.deb: the tool, the
# module, the agent with its systemd unit, the manual page and the models,
# its dependencies on Debian's packages declared (see "Debian package and
# service" in the README).
#
#   scripts/package.sh [BUILD_DIR]
#
# BUILD_DIR (default build-package, a Release tree without the tests) is
# configured if it is not yet, and built as far as it lacks anything; a
# tree already built, as the tests' own build, is packaged as it stands.
# Prints the package's path last.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-package}

scripts/install-deps.sh all >&2
if [ ! -f "$build/CMakeCache.txt" ]; then
  echo "== package: configuring $build (Release, without the tests)" >&2
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DOCTUNNEL_TESTS=OFF -DOCTUNNEL_SERVE=ON >/dev/null
fi
if [ ! -f "$build/CPackConfig.cmake" ]; then
  echo "package.sh: $build has no package to make: it is built without the agent" >&2
  exit 2
fi
echo "== package: building $build, $(nproc) jobs" >&2
cmake --build "$build" -j"$(nproc)" >&2
echo "== package: cpack -G DEB in $build" >&2
rm -f "$build"/octunnel_*.deb
(cd "$build" && cpack -G DEB >&2)
deb=$(ls "$build"/octunnel_*.deb)
echo "$deb"
