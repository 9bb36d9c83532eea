#!/usr/bin/env bash
# One golden case of octunnel: runs the tool on the case's input, in XML and
# in JSON, and compares what it printed, wrote and returned with what the
# case expects; OpenConfig requests and answers are also validated against
# the real OpenConfig models.
#
#   run.sh OCTUNNEL YANG_DIR CASE_DIR
#
# A case directory holds input.xml, input.json (the same document in RFC 7951
# JSON) or both, and any of:
#   args                the subcommand and options (default: to-oc)
#   expected.xml        stdout of the XML run
#   expected.json       stdout of the JSON run (--format json)
#   expected.emissions  the --emissions file, of either run
#   expected.stderr     stderr of the XML run, and of the JSON run once its
#                       document is named input.json
#   expected.json.stderr stderr of the JSON run where it says more than that
#                       (its own line numbers, a message about JSON syntax)
#   expected.rc         the exit status of either run (default 0)
#   input.yanglint      yanglint's data type of the OpenConfig request in
#                       the inputs (edit, get); !TYPE when the models must
#                       refuse it
# The two inputs are separate documents, not one made from the other at run
# time, so that the JSON reader is held to documents written the way a
# client writes them; the runner checks that they agree: the same emissions,
# exit status and answer (the JSON answer must hold the same tree as
# expected.xml, compared by doctree.py), and the models accept both requests.
# Set GOLDEN_UPDATE=1 to write what the tool does now as the expectation.
set -uo pipefail
tool=$1 yang=$2 case=$3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

args="to-oc"
[ -f "$case/args" ] && args=$(cat "$case/args")
want_rc=0
[ -f "$case/expected.rc" ] && want_rc=$(cat "$case/expected.rc")
request_type=""
[ -f "$case/input.yanglint" ] && request_type=$(cat "$case/input.yanglint")
fail=0

# run FORMAT: the tool on input.FORMAT, from the case's directory so that
# messages name the input as the case does; out/err/emissions/rc in $work.
run() {
  : >"$work/$1.emissions"
  # shellcheck disable=SC2086
  (cd "$case" && "$tool" $args --format "$1" --emissions "$work/$1.emissions" "input.$1") \
      >"$work/$1.out" 2>"$work/$1.err"
  echo $? >"$work/$1.rc"
}
compare() { # expected actual what
  if [ -f "$1" ] && ! diff -u "$1" "$2"; then echo "^ $3 differs"; fail=1; fi
}
# yanglint with the OpenConfig models; ietf-netconf lets the NETCONF
# operation through, as nc:operation in XML and as metadata in JSON.
oc_yanglint() { # type file
  yanglint -Q -p "$yang" -t "$1" "$yang/ietf-netconf.yang" "$yang/openconfig-vlan-types.yang" \
      "$yang/openconfig-if-types.yang" "$yang/openconfig-interfaces.yang" \
      "$yang/openconfig-vlan.yang" "$yang/openconfig-if-ip.yang" \
      "$yang/openconfig-if-tunnel.yang" "$2"
}
# The OpenConfig request in FILE must fit the models, or be refused by them
# where the case says !TYPE.
check_request() { # file
  if oc_yanglint "${request_type#!}" "$1" 2>"$work/yanglint"; then
    [ "$request_type" != "${request_type#!}" ] &&
      { echo "the models accept $1, expected: $request_type"; fail=1; }
  elif [ "$request_type" = "${request_type#!}" ]; then
    cat "$work/yanglint"; echo "$1 does not validate against the OpenConfig models"; fail=1
  fi
}

if [ -f "$case/input.xml" ]; then
  run xml
  if [ "${GOLDEN_UPDATE:-}" = 1 ]; then
    cp "$work/xml.out" "$case/expected.xml"
    cp "$work/xml.emissions" "$case/expected.emissions"
    if [ -s "$work/xml.err" ]; then cp "$work/xml.err" "$case/expected.stderr"; else rm -f "$case/expected.stderr"; fi
    if [ "$(cat "$work/xml.rc")" != 0 ]; then cat "$work/xml.rc" >"$case/expected.rc"; else rm -f "$case/expected.rc"; fi
    want_rc=$(cat "$work/xml.rc")
  else
    rc=$(cat "$work/xml.rc")
    if [ "$rc" != "$want_rc" ]; then
      echo "exit status $rc, expected $want_rc"; cat "$work/xml.err"; fail=1
    fi
    compare "$case/expected.xml" "$work/xml.out" stdout
    compare "$case/expected.emissions" "$work/xml.emissions" emissions
    compare "$case/expected.stderr" "$work/xml.err" stderr
    if [ ! -f "$case/expected.stderr" ] && [ -s "$work/xml.err" ]; then
      echo "unexpected stderr:"; cat "$work/xml.err"; fail=1
    fi
  fi

  # The request without its NETCONF <config> or <filter> element. A
  # filter's selection nodes are empty elements, which no typed leaf
  # accepts, so they are left out of its check.
  if [ -n "$request_type" ]; then
    sed -e '/^<\(config\|filter\) xmlns="urn:ietf:params:xml:ns:netconf:base:1.0"/d' \
        -e '/^<\/\(config\|filter\)>$/d' "$case/input.xml" >"$work/request.xml"
    [ "${request_type#!}" = get ] && sed -i '/^[[:space:]]*<[^>]*\/>[[:space:]]*$/d' "$work/request.xml"
    check_request "$work/request.xml"
  fi

  # An OpenConfig answer (to-oc), without the NETCONF <data> element around
  # it, must be a valid get reply of the OpenConfig models.
  if [ "$(cat "$work/xml.rc")" = 0 ] && [ "${args%% *}" = to-oc ] &&
     [ "$(wc -l <"$work/xml.out")" -gt 1 ]; then
    sed '1d;$d' "$work/xml.out" >"$work/reply.xml"
    if ! oc_yanglint get "$work/reply.xml"; then
      echo "the XML answer does not validate against the OpenConfig models"; fail=1
    fi
  fi
fi

if [ -f "$case/input.json" ]; then
  run json
  rc=$(cat "$work/json.rc")
  # What the XML run's stderr says of input.xml, the JSON run says of
  # input.json.
  : >"$work/json.expected-err"
  [ -f "$case/expected.stderr" ] && sed 's/\binput\.xml\b/input.json/g' "$case/expected.stderr" >"$work/json.expected-err"
  if [ "${GOLDEN_UPDATE:-}" = 1 ]; then
    cp "$work/json.out" "$case/expected.json"
    if [ ! -f "$case/input.xml" ]; then
      cp "$work/json.emissions" "$case/expected.emissions"
      if [ "$rc" != 0 ]; then echo "$rc" >"$case/expected.rc"; else rm -f "$case/expected.rc"; fi
      want_rc=$rc
    fi
    if cmp -s "$work/json.err" "$work/json.expected-err"; then rm -f "$case/expected.json.stderr"
    else cp "$work/json.err" "$case/expected.json.stderr"; fi
  fi
  [ -f "$case/expected.json.stderr" ] && cp "$case/expected.json.stderr" "$work/json.expected-err"

  # Both syntaxes drive the module alike: the same calls, in the same order.
  if [ "$rc" != "$want_rc" ]; then
    echo "JSON: exit status $rc, expected $want_rc"; cat "$work/json.err"; fail=1
  fi
  compare "$case/expected.emissions" "$work/json.emissions" "JSON: emissions"
  compare "$work/json.expected-err" "$work/json.err" "JSON: stderr"
  compare "$case/expected.json" "$work/json.out" "JSON: stdout"

  if [ "$rc" = 0 ] && [ -s "$work/json.out" ]; then
    # The same tree as the XML answer.
    if [ -f "$case/expected.xml" ] &&
       ! diff -u --label expected.xml --label 'JSON answer' \
           <(python3 "$here/doctree.py" flatten "$case/expected.xml") \
           <(python3 "$here/doctree.py" flatten "$work/json.out"); then
      echo "^ the JSON answer holds another tree than expected.xml"; fail=1
    fi
    if [ "${args%% *}" = to-oc ]; then
      cp "$work/json.out" "$work/reply.json"
      if ! oc_yanglint get "$work/reply.json"; then
        echo "the JSON answer does not validate against the OpenConfig models"; fail=1
      fi
    fi
  fi

  if [ -n "$request_type" ]; then
    python3 "$here/doctree.py" request "$case/input.json" "${request_type#!}" >"$work/request.json" &&
      check_request "$work/request.json"
  fi
fi
exit $fail
