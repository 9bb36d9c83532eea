#!/usr/bin/env bash
# One golden case of octunnel: runs the tool on the case's input and compares
# what it printed, wrote and returned with what the case expects; an
# OpenConfig answer is also validated against the real OpenConfig models.
#
#   run.sh OCTUNNEL YANG_DIR CASE_DIR
#
# A case directory holds input.xml and any of:
#   args               the subcommand and options (default: to-oc)
#   expected.xml       stdout
#   expected.emissions the --emissions file
#   expected.stderr    stderr
#   expected.rc        the exit status (default 0)
#   input.yanglint     yanglint's data type of the OpenConfig request in
#                      input.xml (edit, get); !TYPE when the models must
#                      refuse it
# Set GOLDEN_UPDATE=1 to write what the tool does now as the expectation.
set -uo pipefail
tool=$1 yang=$2 case=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

args="to-oc"
[ -f "$case/args" ] && args=$(cat "$case/args")
: >"$work/emissions"
# From the case's directory, so that messages name the input as input.xml.
# shellcheck disable=SC2086
(cd "$case" && "$tool" $args --emissions "$work/emissions" input.xml) >"$work/stdout" 2>"$work/stderr"
rc=$?
want_rc=0
[ -f "$case/expected.rc" ] && want_rc=$(cat "$case/expected.rc")

if [ "${GOLDEN_UPDATE:-}" = 1 ]; then
  cp "$work/stdout" "$case/expected.xml"
  cp "$work/emissions" "$case/expected.emissions"
  if [ -s "$work/stderr" ]; then cp "$work/stderr" "$case/expected.stderr"; else rm -f "$case/expected.stderr"; fi
  if [ "$rc" != 0 ]; then echo "$rc" >"$case/expected.rc"; else rm -f "$case/expected.rc"; fi
  exit 0
fi

fail=0
if [ "$rc" != "$want_rc" ]; then
  echo "exit status $rc, expected $want_rc"; cat "$work/stderr"; fail=1
fi
compare() { # expected actual what
  if [ -f "$1" ] && ! diff -u "$1" "$2"; then echo "^ $3 differs"; fail=1; fi
}
compare "$case/expected.xml" "$work/stdout" stdout
compare "$case/expected.emissions" "$work/emissions" emissions
compare "$case/expected.stderr" "$work/stderr" stderr
if [ ! -f "$case/expected.stderr" ] && [ -s "$work/stderr" ]; then
  echo "unexpected stderr:"; cat "$work/stderr"; fail=1
fi

# yanglint with the OpenConfig models; ietf-netconf lets nc:operation through.
oc_yanglint() { # type file
  yanglint -Q -p "$yang" -t "$1" "$yang/ietf-netconf.yang" "$yang/openconfig-vlan-types.yang" \
      "$yang/openconfig-if-types.yang" "$yang/openconfig-interfaces.yang" \
      "$yang/openconfig-vlan.yang" "$yang/openconfig-if-ip.yang" \
      "$yang/openconfig-if-tunnel.yang" "$2"
}

# An OpenConfig request, without its NETCONF <config> or <filter> element,
# must fit the models. A filter's selection nodes are empty elements, which
# no typed leaf accepts, so they are left out of its check.
if [ -f "$case/input.yanglint" ]; then
  want=$(cat "$case/input.yanglint")
  sed -e '/^<\(config\|filter\) xmlns="urn:ietf:params:xml:ns:netconf:base:1.0"/d' \
      -e '/^<\/\(config\|filter\)>$/d' "$case/input.xml" >"$work/request.xml"
  [ "${want#!}" = get ] && sed -i '/^[[:space:]]*<[^>]*\/>[[:space:]]*$/d' "$work/request.xml"
  if oc_yanglint "${want#!}" "$work/request.xml" 2>"$work/yanglint"; then
    [ "$want" != "${want#!}" ] && { echo "the models accept the request, expected: $want"; fail=1; }
  elif [ "$want" = "${want#!}" ]; then
    cat "$work/yanglint"; echo "the request does not validate against the OpenConfig models"; fail=1
  fi
fi

# An OpenConfig answer (to-oc), without the NETCONF <data> element around
# it, must be a valid get reply of the OpenConfig models.
if [ "$rc" = 0 ] && [ "${args%% *}" = to-oc ] && [ "$(wc -l <"$work/stdout")" -gt 1 ]; then
  sed '1d;$d' "$work/stdout" >"$work/reply.xml"
  if ! oc_yanglint get "$work/reply.xml"; then
    echo "the answer does not validate against the OpenConfig models"; fail=1
  fi
fi
exit $fail
