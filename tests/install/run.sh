#!/usr/bin/env bash
# Installs the build into a temporary prefix, moves the installed tree
# elsewhere, and uses it from there as a user and an integrator would: the
# tool on an example in both formats, the agent, its manual page, a program
# built against the CMake package and one built through pkg-config.
#
#   run.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$tmp/first" >/dev/null
mv "$tmp/first" "$tmp/moved"
p=$tmp/moved
cd "$tmp"
unset OCTUNNEL_MODULE OCTUNNEL_YANG_DIR

# The tool finds its module and the OpenConfig models relative to itself.
"$p/bin/octunnel" to-native "$src/examples/tunnel-edit.xml" >edit.xml ||
  fail "to-native from the installed tree"
grep -q "<interface-name>tunnel-ip12</interface-name>" edit.xml || fail "to-native answer"
case=$src/tests/golden/cases/tunnel-ip-ma-state-endpoints
"$p/bin/octunnel" to-oc --format json "$case/input.json" >state.json ||
  fail "to-oc --format json from the installed tree"
cmp -s state.json "$case/expected.json" || fail "to-oc JSON answer differs from $case"

man -l "$(find "$p" -name octunnel.1)" 2>&1 | grep -q "octunnel to-native" ||
  fail "the manual page"

# Only the tool needs libyang and the document libraries, and only the
# agent the NETCONF and SSH ones.
for lib in "$p"/lib/libyfwhost.so "$p"/lib/octunnel/liboctunnel.so; do
  ! ldd "$lib" | grep -Eq "libyang|libxml2" || fail "$lib needs what only the tool should"
done
! ldd "$p/bin/octunnel" | grep -Eq "libnetconf2|libssh" || fail "the tool loads the agent's libraries"

# The agent, where it is built, starts from the installed tree with the
# module and models the tool finds, and stops on SIGTERM.
if [ -x "$p/lib/octunnel/octunnel-serve" ]; then
  "$p/bin/octunnel" serve --unix "$tmp/agent.sock" --state-dir "$tmp/state" 2>agent.log &
  agent=$!
  for _ in $(seq 100); do grep -q "running configuration in" agent.log && break; sleep 0.1; done
  kill -TERM "$agent"
  wait "$agent" || fail "octunnel serve from the installed tree: $(cat agent.log)"
  grep -q "listening on $tmp/agent.sock" agent.log || fail "octunnel serve did not listen"
fi

expected="/interfaces/interface/name tunnel-ip12
/interfaces/interface/tunnel/state/ttl 64"
cmake -S "$src/tests/install/consumer" -B consumer -DCMAKE_PREFIX_PATH="$p" >/dev/null
cmake --build consumer >/dev/null
[ "$(consumer/consumer)" = "$expected" ] || fail "the program built with find_package(octunnel)"

pc=$(find "$p" -name octunnel.pc)
export PKG_CONFIG_PATH=${pc%/*}
# shellcheck disable=SC2046
g++ -std=c++20 -o pkgconfig-consumer "$src/tests/install/consumer/main.cpp" \
  $(pkg-config --cflags --libs octunnel) -Wl,-rpath,"$(pkg-config --variable=libdir octunnel)"
out=$(./pkgconfig-consumer "$(pkg-config --variable=moduledir octunnel)/liboctunnel.so")
[ "$out" = "$expected" ] || fail "the program built through pkg-config"
echo "installed tree: tool, agent, manual page, CMake package and pkg-config work"
