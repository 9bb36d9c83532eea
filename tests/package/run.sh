#!/usr/bin/env bash
# The Debian package as an operator meets it, on this machine: its name and
# contents, its unit checked by systemd, installed twice with dpkg -i (a
# reinstall must not trip over the user the first made), the installed tool
# on the bundled example, the installed agent started by its unit's own
# command line (systemd is not running here) as its own user and read back
# over NETCONF with ncclient (and, built with gNMI, driven by the installed
# gNMI example over TLS); then removed, which must leave exactly what
# the operator made (the options file, the users, the running
# configuration), and purged, which must leave nothing of the package's.
# Where strace is at hand, the agent runs under it, and what it did must be
# what the unit's sandbox allows (sandbox.py).  Needs root, as dpkg does:
# run through sudo when not.
#
#   run.sh PACKAGE.deb
set -euo pipefail
[ "$(id -u)" -eq 0 ] || exec sudo "$0" "$@"
deb=$(realpath "$1")
here=$(dirname "$(realpath "$0")")
tmp=$(mktemp -d)
launcher="" agent=""
cleanup() {
  if [ -n "$agent" ]; then kill -TERM "$agent" 2>/dev/null || true; fi
  if [ -n "$launcher" ]; then wait "$launcher" 2>/dev/null || true; fi
  dpkg -P octunnel >/dev/null 2>&1 || true
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
installed() { dpkg-query -W -f='${db:Status-Status}' octunnel 2>/dev/null || true; }
unit=/lib/systemd/system/octunnel.service

# ---------------------------------------------------------------- the file
version=$(dpkg-deb -f "$deb" Version) arch=$(dpkg-deb -f "$deb" Architecture)
[ "$(basename "$deb")" = "octunnel_${version}_${arch}.deb" ] ||
  fail "the package is named $(basename "$deb"), not octunnel_${version}_${arch}.deb"
[ "$arch" = "$(dpkg --print-architecture)" ] || fail "architecture $arch"
depends=$(dpkg-deb -f "$deb" Depends)
names=" $(sed -E 's/ \([^)]*\)//g; s/,//g' <<<"$depends") "
for dep in adduser libc6 'libstdc++6' libyang2 libxml2 'libnetconf2-*' 'libssh-*' libcrypt1; do
  pattern="* $dep *" # a glob: libssh-* is libssh of any ABI
  # shellcheck disable=SC2254
  case "$names" in $pattern) ;; *) fail "Depends has no $dep: $depends" ;; esac
done
dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$tmp/contents"
# A package built with the gNMI front holds its protos and example, depends
# on gRPC's libraries, and has its agent serve gNMI below.
gnmi=""
if grep -qxF /usr/share/octunnel/gnmi/gnmi.proto "$tmp/contents"; then
  gnmi=1
  for dep in 'libgrpc++*' 'libprotobuf[0-9]*'; do
    pattern="* $dep *"
    # shellcheck disable=SC2254
    case "$names" in $pattern) ;; *) fail "Depends has no $dep: $depends" ;; esac
  done
  grep -qxF /usr/share/doc/octunnel/examples/gnmi_session.py "$tmp/contents" ||
    fail "the package has no /usr/share/doc/octunnel/examples/gnmi_session.py"
fi
for f in /usr/bin/octunnel /usr/lib/octunnel/liboctunnel.so /usr/lib/octunnel/octunnel-serve \
  /usr/share/man/man1/octunnel.1 /usr/share/octunnel/yang/openconfig-if-tunnel.yang "$unit" \
  /etc/default/octunnel /usr/share/doc/octunnel/examples/session.py \
  /usr/share/doc/octunnel/examples/tunnel-state.xml; do
  grep -qxF "$f" "$tmp/contents" || fail "the package has no $f"
done
# What only a program built against the host needs stays out.
! grep -Eq '^/usr/(include|lib/cmake|lib/pkgconfig)/' "$tmp/contents" ||
  fail "the package holds files for integrators: $(grep -E '^/usr/(include|lib/)' "$tmp/contents")"
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles >"$tmp/conffiles"
[ "$(cat "$tmp/conffiles")" = /etc/default/octunnel ] ||
  fail "conffiles: $(cat "$tmp/conffiles")"

# ---------------------------------------------------------------- install
[ -z "$(installed)" ] || [ "$(installed)" = not-installed ] || dpkg -P octunnel >/dev/null
dpkg -i "$deb" >/dev/null || fail "dpkg -i"
dpkg -i "$deb" >/dev/null || fail "dpkg -i of the package installed already"
[ "$(installed)" = installed ] || fail "dpkg says octunnel is $(installed)"
getent passwd octunnel >/dev/null || fail "no user octunnel"
uid=$(id -u octunnel)
[ "$uid" -lt 1000 ] || fail "octunnel is not a system user (uid $uid)"
[ "$(getent passwd octunnel | cut -d: -f7)" = /usr/sbin/nologin ] || fail "octunnel can log in"
[ "$(stat -c '%U:%G %a' /var/lib/octunnel)" = "octunnel:octunnel 750" ] ||
  fail "/var/lib/octunnel is $(stat -c '%U:%G %a' /var/lib/octunnel)"
[ "$(stat -c '%U:%G %a' /etc/octunnel)" = "root:octunnel 750" ] ||
  fail "/etc/octunnel is $(stat -c '%U:%G %a' /etc/octunnel)"

# The unit as systemd reads it, and its sandbox as systemd scores it: with
# no capability, no writable path but the state, systemd rates its exposure
# at most 2.0 of 10 (an unsandboxed service is 9.6).  The drop-in for a
# port below 1024 must verify too, and grant that one capability only.
systemd-analyze verify "$unit" || fail "systemd-analyze verify $unit"
systemd-analyze security --offline=yes --threshold=20 "$unit" >"$tmp/security" 2>&1 ||
  fail "the unit's exposure: $(grep Overall "$tmp/security")"
for directive in NoNewPrivileges=yes ProtectSystem=strict ProtectHome=yes PrivateTmp=yes \
  ReadWritePaths=/var/lib/octunnel CapabilityBoundingSet= User=octunnel \
  EnvironmentFile=/etc/default/octunnel; do
  grep -qxF "$directive" "$unit" || fail "the unit has no $directive"
done
dropin=/etc/systemd/system/octunnel.service.d
mkdir -p "$dropin"
cp /usr/share/doc/octunnel/examples/port-below-1024.conf "$dropin/"
systemd-analyze verify "$unit" || fail "systemd-analyze verify with the drop-in"
caps() { systemd-analyze security --offline=yes "$unit" 2>&1 | grep '^✗ CapabilityBoundingSet=' || true; }
if [ "$(caps | wc -l)" -ne 1 ] || ! caps | grep -qF 'CAP_NET_(BIND_SERVICE|BROADCAST|RAW)'; then
  fail "the drop-in grants other than binding a low port: $(caps)"
fi
rm -r "$dropin"
[ -z "$(caps)" ] || fail "the unit grants capabilities: $(caps)"

# ---------------------------------------------------------------- the tool
cd "$tmp"
/usr/bin/octunnel to-oc /usr/share/doc/octunnel/examples/tunnel-state.xml >state.xml ||
  fail "the installed tool on the bundled example"
grep -q '<name>tunnel-ip12</name>' state.xml || fail "the installed tool's answer: $(cat state.xml)"
man -w octunnel >/dev/null 2>&1 || fail "man finds no octunnel(1)"

# ---------------------------------------------------------------- the agent
# As an operator would: a user, and the options file told of a port.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
echo "alice:$(openssl passwd -6 tunnels-at-dawn)" | tee /etc/octunnel/users >/dev/null
chgrp octunnel /etc/octunnel/users
chmod 0640 /etc/octunnel/users
sed -i "s/127\.0\.0\.1:8830/127.0.0.1:$port/" /etc/default/octunnel
if [ -n "$gnmi" ]; then
  # gNMI over TLS as the options file tells, with a certificate the user
  # octunnel alone may read, and the router's state in a directory it reads.
  gport=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 \
    -keyout /etc/octunnel/gnmi.key -out /etc/octunnel/gnmi.crt -subj /CN=127.0.0.1 \
    -addext subjectAltName=IP:127.0.0.1 2>/dev/null
  chgrp octunnel /etc/octunnel/gnmi.key /etc/octunnel/gnmi.crt
  chmod 0640 /etc/octunnel/gnmi.key /etc/octunnel/gnmi.crt
  mkdir /var/lib/octunnel/oper
  cp /usr/share/doc/octunnel/examples/tunnel-state.xml /var/lib/octunnel/oper/
  sed -i "s|^OCTUNNEL_OPTIONS=\"\(.*\)\"|OCTUNNEL_OPTIONS=\"\1 --gnmi 127.0.0.1:$gport --tls-cert /etc/octunnel/gnmi.crt --tls-key /etc/octunnel/gnmi.key --oper-dir /var/lib/octunnel/oper\"|" \
    /etc/default/octunnel
fi

# The unit's command line, with its environment file, as its user, with no
# privilege to gain: what systemd would run.
exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
user=$(sed -n 's/^User=//p' "$unit")
tracer=()
command -v strace >/dev/null && tracer=(strace -f -qq -o "$tmp/trace")
: >agent.log
"${tracer[@]}" setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs -- \
  env -i PATH=/usr/bin:/bin bash -c 'set -a; . /etc/default/octunnel; set +a; exec '"$exec_start" \
  2>agent.log &
launcher=$!
OCTUNNEL_PASSWORD=tunnels-at-dawn /usr/bin/python3 /usr/share/doc/octunnel/examples/session.py \
  "127.0.0.1:$port" alice >session.out || fail "the session with the installed agent: $(cat agent.log)"
grep -q '<ttl>64</ttl>' session.out || fail "the tunnel read back: $(cat session.out)"
if [ -n "$gnmi" ]; then
  OCTUNNEL_PASSWORD=tunnels-at-dawn /usr/bin/python3 \
    /usr/share/doc/octunnel/examples/gnmi_session.py "127.0.0.1:$gport" alice \
    /etc/octunnel/gnmi.crt /var/lib/octunnel/oper >gnmi.out 2>&1 ||
    fail "the gNMI session with the installed agent: $(cat gnmi.out) $(cat agent.log)"
  grep -qF 'tunnel/state/ttl = 32' gnmi.out || fail "the gNMI session: $(cat gnmi.out)"
fi
# strace runs the agent as its child; without it, the agent is the launcher.
agent=$launcher
[ ${#tracer[@]} -eq 0 ] || agent=$(pgrep -P "$launcher")
kill -TERM "$agent"
status=0
wait "$launcher" || status=$?
launcher="" agent=""
[ "$status" -eq 0 ] || fail "the agent exited $status on SIGTERM: $(cat agent.log)"
grep -q "running configuration in /var/lib/octunnel/running.xml" agent.log ||
  fail "the agent's state is not in /var/lib/octunnel: $(cat agent.log)"
if [ ${#tracer[@]} -gt 0 ]; then
  python3 "$here/sandbox.py" "$unit" "$tmp/trace" || fail "the agent needs what its unit refuses"
fi
[ "$(stat -c %U /var/lib/octunnel/running.xml)" = octunnel ] ||
  fail "running.xml is not the agent's own"
grep -q '<address>198.51.100.7</address>' /var/lib/octunnel/running.xml ||
  fail "the edit is not in the native running configuration"
# The router's state was the test's, not the operator's.
rm -rf /var/lib/octunnel/oper

# ---------------------------------------------------------------- remove, purge
dpkg-query -L octunnel | while read -r f; do [ -d "$f" ] || echo "$f"; done |
  grep -vxF -f "$tmp/conffiles" >"$tmp/files"
dpkg -r octunnel >/dev/null || fail "dpkg -r"
[ "$(installed)" = config-files ] || fail "after remove dpkg says $(installed), not config-files"
while read -r f; do [ ! -e "$f" ] || fail "remove left $f"; done <"$tmp/files"
# Left: what the operator made, and nothing besides.
find /etc/default/octunnel /etc/octunnel /var/lib/octunnel -not -type d | sort >"$tmp/left"
{
  printf '%s\n' /etc/default/octunnel /etc/octunnel/users /var/lib/octunnel/running.xml \
    /var/lib/octunnel/running.commits /var/lib/octunnel/lock \
    /var/lib/octunnel/ssh_host_ed25519_key
  [ -z "$gnmi" ] || printf '%s\n' /etc/octunnel/gnmi.crt /etc/octunnel/gnmi.key
} | sort >"$tmp/kept"
diff -u "$tmp/kept" "$tmp/left" || fail "remove kept other than the operator's files"
grep -q "127.0.0.1:$port" /etc/default/octunnel || fail "remove undid the operator's options"

dpkg -P octunnel >/dev/null || fail "dpkg -P"
[ -z "$(installed)" ] || [ "$(installed)" = not-installed ] || fail "after purge dpkg says $(installed)"
for f in /etc/default/octunnel /etc/octunnel /var/lib/octunnel "$unit" /usr/lib/octunnel \
  /usr/share/doc/octunnel /usr/share/octunnel; do
  [ ! -e "$f" ] || fail "purge left $f"
done
echo "package: contents, unit, install, tool, agent, remove and purge as promised"
