#!/usr/bin/env bash
# Cross-builds the library, the host stand-ins, zel-vaultd and the tests for 32-bit ARM
# (arm-linux-gnueabihf) and runs the whole test suite under qemu-arm through CTest; then makes the
# armhf packages of a device build and runs their zel-tc (scripts/armhf-device.sh).
#
#   bash scripts/armhf.sh                 install what is missing, build into build-armhf/, test
#   bash scripts/armhf.sh --install-only  only install the toolchain and the armhf packages
#
# Exit status: 0 all passed; 1 the build or a test failed; 3 the cross toolchain could not be
# installed (so the caller can tell "not tested here" from "broken on armhf").
set -euo pipefail
cd "$(dirname "$0")/.."

readonly kCannotInstall=3
build_dir=build-armhf

# Native tools, and packages the host and the target share as one (architecture-independent).
native=(crossbuild-essential-armhf qemu-user cmake make pkg-config libcli11-dev nlohmann-json3-dev googletest
  debhelper dpkg-dev lintian file)
# Multi-Arch: same libraries, installed for armhf beside the native ones; libstdc++6 because
# the cross compiler's own copy lies outside the folders that armhf's loader searches under qemu.
shared=(libssl-dev libsqlite3-dev libgtest-dev libgmock-dev libstdc++6 libpugixml-dev)

say() { echo "armhf: $*" >&2; }

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep 'install ok installed' >/dev/null
}

native_arch=$(dpkg --print-architecture)

versions() {  # every version the indexes list for PACKAGE:ARCH
  apt-cache madison "$1" 2>/dev/null | cut -d'|' -f2 | tr -d ' '
}

# The highest version that the indexes of both architectures list for a package; empty if none.
common_version() {
  local best="" version
  local armhf_versions
  armhf_versions=$(versions "$1:armhf")
  while read -r version; do
    [ -n "$version" ] && grep -qxF "$version" <<<"$armhf_versions" || continue
    if [ -z "$best" ] || dpkg --compare-versions "$version" gt "$best"; then best=$version; fi
  done < <(versions "$1:$native_arch")
  echo "$best"
}

# The install request: the native tools, and every Multi-Arch: same package that the armhf
# libraries pull in pinned to one version on both architectures. An index that failed to download
# (a security mirror still syncing, say) leaves one architecture behind the other, and dpkg
# refuses two versions of such a package; so the native side moves to what armhf can have too.
install_request() {
  local request=("${native[@]}") package base version
  local closure
  closure=$(apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
    --no-replaces --no-enhances "${shared[@]/%/:armhf}" | grep -v '^ ' | grep ':armhf$' | sort -u)
  for package in $closure; do
    base=${package%:armhf}
    local wanted=false same=false
    [[ " ${shared[*]} " == *" $base "* ]] && wanted=true
    # (grep reads to the end: an early exit would make apt-cache fail with SIGPIPE under pipefail)
    apt-cache show --no-all-versions "$package" | grep -x 'Multi-Arch: same' >/dev/null && same=true
    if $same && { $wanted || installed "$base:$native_arch"; }; then
      version=$(common_version "$base")
      if [ -z "$version" ]; then
        say "no version of $base is available for both $native_arch and armhf"
        return 1
      fi
      request+=("$base:$native_arch=$version" "$package=$version")
    elif $wanted || $same; then
      request+=("$package")
    fi
    # The rest (tools that run on the build machine) apt satisfies with native packages.
  done
  printf '%s\n' "${request[@]}"
}

install_toolchain() {
  local wanted=("${native[@]}" "${shared[@]}" "${shared[@]/%/:armhf}")
  local missing=() package
  for package in "${wanted[@]}"; do installed "$package" || missing+=("$package"); done
  if [ ${#missing[@]} -eq 0 ]; then return 0; fi

  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  say "installing ${missing[*]}"
  $sudo dpkg --add-architecture armhf || return 1
  # One architecture's index failing to download makes update fail as a whole; what matters is
  # what both can have afterwards, which install_request works out.
  $sudo apt-get update || say "apt-get update reported errors; going on with the indexes it has"
  local request
  request=$(install_request) || return 1
  # shellcheck disable=SC2086  # one package per word
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends \
    --allow-downgrades $request || return 1
  command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm >/dev/null
}

if ! install_toolchain; then
  say "the cross toolchain or the armhf packages could not be installed"
  exit $kCannotInstall
fi
[ "${1:-}" = "--install-only" ] && exit 0

cmake -S . -B "$build_dir" \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm-linux-gnueabihf.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZEL_WERROR=ON \
  -DZEL_BUILD_BENCH=OFF || exit 1
cmake --build "$build_dir" -j "$(nproc)" || exit 1
ctest --test-dir "$build_dir" -j "$(nproc)" --output-on-failure || exit 1
bash scripts/armhf-device.sh "$build_dir" || exit 1
