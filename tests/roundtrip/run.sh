#!/usr/bin/env bash
# Round trip of an OpenConfig tunnel configuration through octunnel:
#
#   run.sh OCTUNNEL CASE_DIR
#
# CASE_DIR/input.xml is an edit (NETCONF <config>) of tunnel configuration
# with no nc:operation. It goes through `to-native --kind edit`; the native
# <config> that comes out is read back as the running configuration, a native
# <data> document, through `to-oc --kind get-config`. The OpenConfig answer
# must hold exactly the config leaves of the input, except for what the way
# back does not give, and with what it adds:
#
#   - the IPv4 prefix-length does not come back: it is written as the native
#     netmask, and the netmask is not read back into OpenConfig;
#   - the native source/destination type and mode/value leaves, which the
#     endpoints add, are never shown in OpenConfig;
#   - each IPv6 leaf (address ip and prefix-length, enabled, mtu) comes back
#     under state as well as under config.
#
# CASE_DIR/native-only lists, as flattened below, the native leaves that the
# input must produce and that have no way back: they must be in the native
# document, and the comparison of the answer shows that nothing came back
# for them.
set -uo pipefail
tool=$1 case=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One line per leaf, "path=value", for documents with one element a line (as
# octunnel prints them and the inputs are written). The envelope is not part
# of the path, namespaces are dropped, and a list entry is named by its key
# once the key leaf has been met: interface[tunnel-ip12].
flatten() {
  awk '
    BEGIN { key["interface"] = "name"; key["address"] = "ip"
            key["interface-configuration"] = "interface-name"
            key["regular-address"] = "address" }
    /<!--/ { comment = 1 }
    comment { if (/-->/) comment = 0; next }
    {
      line = $0; sub(/^[ \t]+/, "", line); sub(/[ \t]+$/, "", line)
      if (line == "") next
      if (line ~ /^<\//) { depth--; next }
      tag = line; sub(/^</, "", tag); sub(/[ \/>].*$/, "", tag); sub(/^.*:/, "", tag)
      if (line ~ /\/>$/ || line ~ /<\/[^>]*>$/) {
        value = line; sub(/^<[^>]*>/, "", value); sub(/<\/[^>]*>$/, "", value)
        if (line ~ /\/>$/) value = ""
        if (depth > 1 && key[plain[depth]] == tag && !named[depth]) {
          stack[depth] = plain[depth] "[" value "]"; named[depth] = 1
        }
        path = ""
        for (i = 2; i <= depth; i++) path = path stack[i] "/"
        print path tag "=" value
        next
      }
      depth++; stack[depth] = tag; plain[depth] = tag; named[depth] = 0
    }' "$1"
}

if grep -q 'operation=' "$case/input.xml"; then
  echo "$case/input.xml: a round trip takes a plain configuration, without nc:operation"; exit 2
fi

if ! "$tool" to-native --kind edit "$case/input.xml" >"$work/native.xml"; then
  echo "to-native failed"; exit 1
fi
# The native edit as the running configuration: <config> becomes <data>.
sed -e '1s/^<config /<data /' -e '$s#^</config>$#</data>#' "$work/native.xml" >"$work/running.xml"
if ! "$tool" to-oc --kind get-config "$work/running.xml" >"$work/answer.xml"; then
  echo "to-oc failed on the native configuration:"; cat "$work/running.xml"; exit 1
fi

fail=0
flatten "$work/native.xml" >"$work/native.leaves"
while IFS= read -r leaf; do
  if ! grep -qxF -- "$leaf" "$work/native.leaves"; then
    echo "not in the native configuration: $leaf"; fail=1
  fi
done <"$case/native-only"

# What the answer must hold: the input's leaves without the IPv4
# prefix-length, and each IPv6 config leaf once more under state.
flatten "$case/input.xml" |
  grep -v '/tunnel/ipv4/addresses/address\[[^]]*\]/config/prefix-length=' |
  awk '{ print }
       /\/tunnel\/ipv6\/(addresses\/address\[[^]]*\]\/)?config\// {
         sub(/\/config\//, "/state/"); print }' |
  LC_ALL=C sort >"$work/expected.leaves"
flatten "$work/answer.xml" | LC_ALL=C sort >"$work/answer.leaves"
if ! diff -u "$work/expected.leaves" "$work/answer.leaves"; then
  echo "^ the OpenConfig answer differs from the input's configuration"
  echo "native configuration:"; cat "$work/native.xml"
  fail=1
fi
exit $fail
