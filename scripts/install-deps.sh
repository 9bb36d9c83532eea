#!/usr/bin/env bash
# Installs, from Debian's packages, everything octunnel needs to build and
# test.  Packages already present are left alone, so a second run is quick.
set -euo pipefail

packages=(
  build-essential cmake python3
  libgtest-dev libgmock-dev
  libxml2-dev rapidjson-dev libcli11-dev libyang2-dev pkgconf
  libyang-tools time libbenchmark-dev
  clang libclang-rt-14-dev clang-format git man-db
  libnetconf2-dev libssh-dev libcrypt-dev
  python3-ncclient python3-lxml python3-paramiko openssh-client openssl
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get install -y --no-install-recommends "${missing[@]}" ||
  { $sudo apt-get update && $sudo apt-get install -y --no-install-recommends "${missing[@]}"; }
