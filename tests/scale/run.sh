#!/usr/bin/env bash
# Large documents through octunnel: 3,000 generated tunnel interfaces (see
# tools/gendoc.py), both directions, XML and JSON.  The answers and the
# emissions must be exactly those that expected.sha256 records, taken when
# each interface's place in the answer was still found by scanning: the
# indexes that now find it change nothing.  Both formats give the same
# emissions.
#
#   run.sh OCTUNNEL
set -uo pipefail
tool=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
n=3000
for kind in mixed edit config oper; do
  for f in xml json; do
    python3 "$here/../../tools/gendoc.py" $kind $n $f >"$work/$kind.$f" || exit 1
  done
done

fail=0
run() { # name input args...
  local name=$1 input=$2; shift 2
  for f in xml json; do
    if ! "$tool" "$@" --format $f --emissions "$work/$name.$f.emissions" "$work/$input.$f" \
        >"$work/$name.$f.answer" 2>"$work/$name.$f.err"; then
      echo "$name ($f): exit status $?"; cat "$work/$name.$f.err"; fail=1
    fi
    [ -s "$work/$name.$f.err" ] && { echo "$name ($f): unexpected stderr"; cat "$work/$name.$f.err"; fail=1; }
  done
  cmp -s "$work/$name.xml.emissions" "$work/$name.json.emissions" ||
    { echo "$name: XML and JSON emissions differ"; fail=1; }
  cp "$work/$name.xml.emissions" "$work/$name.emissions"
}
run edit mixed to-native
run getconfig edit to-native --kind get-config
run config config to-oc --kind get-config
run oper oper to-oc
run configview config to-oc --kind get --read-view 2 --marks a=1

(cd "$work" && sha256sum --quiet -c "$here/expected.sha256") || fail=1
exit $fail
