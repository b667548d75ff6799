#!/usr/bin/env bash
# Installs the Debian 12 packages kelbase needs to build, test, benchmark and fuzz.
# Only what is missing is installed (dpkg -s first); nothing is downloaded by hand.
set -euo pipefail

PACKAGES=(
  build-essential cmake make g++ clang libclang-rt-14-dev pkg-config
  libssl-dev openssl
  libpugixml-dev rapidjson-dev
  libboost-dev libboost-log-dev libboost-filesystem-dev libboost-regex-dev libboost-thread-dev
  libldap-dev slapd ldap-utils
  libgtest-dev libgmock-dev libbenchmark-dev
  libfmt-dev libmsgpack-dev
  python3
  dpkg-dev file binutils
  tshark
  doxygen
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg -s "$p" >/dev/null 2>&1 || ! dpkg -s "$p" 2>/dev/null | grep -q '^Status: install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#PACKAGES[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "install-deps: run as root or install sudo to add: ${missing[*]}" >&2; exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
# slapd must not start a directory of its own on installation: the tests run their own.
echo "slapd slapd/no_configuration boolean true" | $SUDO debconf-set-selections 2>/dev/null || true
# tshark captures as root here; no setuid dumpcap and no question about it.
echo "wireshark-common wireshark-common/install-setuid boolean false" | $SUDO debconf-set-selections 2>/dev/null || true
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "install-deps: done"
