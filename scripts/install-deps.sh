#!/usr/bin/env bash
# Installs everything the project needs on Debian 12 (idempotent). Run as
# root, or with sudo available.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libboost-dev libboost-filesystem-dev libboost-log-dev libboost-system-dev
  libsqlite3-dev sqlite3 libldap-dev libssl-dev libexpat1-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  slapd ldap-utils libnss-wrapper gettext
  clang-14 libclang-rt-14-dev valgrind dpkg-dev file
  man-db groff-base
  openssl
  chromium chromium-driver python3-selenium fonts-dejavu-core
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# slapd must not ask for an administrator password or start a directory of
# its own: the tests start their own slapd in a private network namespace.
echo "slapd slapd/no_configuration boolean true" | $sudo debconf-set-selections
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
