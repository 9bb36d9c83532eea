#!/usr/bin/env bash
# Installs, from Debian's packages, what octunnel needs.  Packages already
# present are left alone, so a second run is quick.
#
#   scripts/install-deps.sh [demo|all]
#
# demo: what the module, the host and the tool need to build (a compiler,
#       CMake, Python, libyang, libxml2, RapidJSON, CLI11): scripts/demo.sh.
# all (default): everything the tests need besides: GoogleTest, the agent's
#       libraries (gRPC and protobuf with their compilers for its gNMI
#       front), clang for the fuzz targets, the NETCONF and gNMI clients, and
#       what the Debian package is built, checked and installed with.
set -euo pipefail

set_name=${1:-all}
demo=(
  build-essential cmake python3
  libxml2-dev rapidjson-dev libcli11-dev libyang2-dev pkgconf
)
case "$set_name" in
  demo) packages=("${demo[@]}") ;;
  all)
    packages=(
      "${demo[@]}"
      libgtest-dev libgmock-dev
      libyang-tools time libbenchmark-dev
      clang libclang-rt-14-dev clang-format git man-db
      libnetconf2-dev libssh-dev libcrypt-dev
      libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc
      python3-ncclient python3-lxml python3-paramiko openssh-client openssl
      python3-grpcio python3-grpc-tools python3-protobuf
      dpkg-dev adduser systemd strace
    )
    ;;
  *)
    echo "install-deps.sh: unknown set '$set_name' (demo or all)" >&2
    exit 2
    ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps.sh: the packages of '$set_name' are all installed"
  exit 0
fi

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "install-deps.sh: installing ${#missing[@]} packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A fresh machine has no package lists yet: read them only when the
# packages cannot be found without.
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}" ||
  { $sudo apt-get update -q && $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"; }
