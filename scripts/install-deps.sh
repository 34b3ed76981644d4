#!/usr/bin/env bash
# Installs what the build needs from Debian's packages, only when something is missing; with
# arguments, these packages too (what a script needs beyond the build).
#
#   bash scripts/install-deps.sh [PACKAGE...]
set -euo pipefail

packages=(cmake g++ make pkg-config googletest libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev
          libbenchmark-dev libssl-dev libsqlite3-dev python3 debhelper dpkg-dev lintian file
          libpugixml-dev python3-junitparser libxml2-utils linux-perf man-db groff-base "$@")
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
# Trixie's packages are checked with trixie's keys, which an older keyring lacks: it is updated.
if [[ " ${packages[*]} " == *" debian-archive-keyring "* ]] &&
  [ ! -e /usr/share/keyrings/debian-archive-trixie-automatic.gpg ]; then
  missing+=(debian-archive-keyring)
fi
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
# An index of one architecture failing to download must not stop the install.
$sudo apt-get update || echo "install-deps: apt-get update reported errors; going on" >&2
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
