#!/usr/bin/env bash
# scripts/demo.sh as a newcomer sees it, on a tree the tests built already
# (so that the tests do not build the tool twice): every step named in
# order as it begins, the build's progress shown, the whole time printed,
# the translation alone on standard output, exit 0; a step that fails
# named, with exit 1 and nothing on standard output; and a set of packages
# that install-deps.sh does not have refused.
#
#   demo_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

status=0
OCTUNNEL_DEMO_BUILD=$build "$src/scripts/demo.sh" >"$tmp/out" 2>"$tmp/err" || status=$?
cat "$tmp/err"
[ "$status" -eq 0 ] || fail "demo.sh exited $status"

# The steps, in order, each once.
grep -E '^== demo \[[0-9]/4\]' "$tmp/err" | sed -E 's/^== demo (\[[0-9]\/4\] [a-z]+).*/\1/' >"$tmp/steps"
printf '%s\n' "[1/4] installing" "[2/4] configuring" "[3/4] building" "[4/4] translating" >"$tmp/want"
diff -u "$tmp/want" "$tmp/steps" || fail "the demo's steps"
grep -Eq '^\[ *[0-9]+%\] Built target octunnel_cli$' "$tmp/err" || fail "no progress of the build shown"
tail -n 1 "$tmp/err" | grep -Eq '^demo: done in ([0-9]+ min )?[0-9]+ s; the tool is ' ||
  fail "the last line does not give the demo's time: $(tail -n 1 "$tmp/err")"

# Standard output is the translation and nothing else.
(cd "$src" && "$build/octunnel" to-oc examples/tunnel-state.xml) >"$tmp/direct"
cmp -s "$tmp/direct" "$tmp/out" || fail "standard output is not the translation alone"
grep -q '<name>tunnel-ip12</name>' "$tmp/out" || fail "the translation names no tunnel"

# A tree that is not one: the step is named, exit 1, nothing on stdout.
mkdir "$tmp/empty"
status=0
OCTUNNEL_DEMO_BUILD=$tmp/empty "$src/scripts/demo.sh" >"$tmp/out" 2>"$tmp/err" || status=$?
[ "$status" -eq 1 ] || fail "demo.sh on an unconfigured tree exited $status, not 1"
[ ! -s "$tmp/out" ] || fail "demo.sh wrote to stdout though it failed"
grep -q "^demo: failed at step 2 (configuring)" "$tmp/err" || fail "the failed step is not named: $(cat "$tmp/err")"
grep -q "$tmp/empty is not a configured build tree" "$tmp/err" || fail "the tree is not named"
# A set of packages install-deps.sh does not know is named, exit 2.
status=0
"$src/scripts/install-deps.sh" frob >"$tmp/out" 2>"$tmp/err" || status=$?
[ "$status" -eq 2 ] || fail "install-deps.sh frob exited $status, not 2"
grep -q "unknown set 'frob'" "$tmp/err" || fail "install-deps.sh does not name the set: $(cat "$tmp/err")"
echo "demo.sh: steps, progress, time and translation as promised"
