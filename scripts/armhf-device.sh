#!/usr/bin/env bash
# The armhf packages of a device build, as a board gets them: the library, -dev and zel-tc
# cross-built with dpkg-buildpackage against an armhf platform tree (the host stand-ins installed
# as a device lays out its libraries), checked by lintian (no error or warning allowed), then the
# packaged zel-tc runs the whole plan under qemu-arm against the armhf zel-vaultd.
#
#   bash scripts/armhf-device.sh [ARMHF_BUILD_DIR]     (default build-armhf, made by scripts/armhf.sh)
set -euo pipefail
cd "$(dirname "$0")/.."
host_build=$(cd "${1:-build-armhf}" && pwd)
packages=(libzel-tc-lib0 libzel-tc-lib-dev zel-tc)
platform_names='lib(teec|vconf|system-info|qeru_utility_nwd|stand_in_store)\.so'

say() { echo "armhf device: $*" >&2; }
fail() { say "$*"; exit 1; }

work=$host_build/device
rm -rf "$work"
mkdir -p "$work/src" "$work/root"
platform=$work/platform
cmake --install "$host_build" --component platform --prefix "$platform" >/dev/null

# dpkg-buildpackage writes into the tree it builds: build a copy.
tar --exclude='./build*' --exclude=./.git --exclude='./obj-*' -cf - . | tar -C "$work/src" -xf -
# -d: the cross build's dependencies are the armhf packages scripts/armhf.sh installed; dpkg's
# check would also ask for armhf builds of the architecture-independent tools.
(cd "$work/src" && ZEL_PLATFORM_PREFIX=$platform \
  dpkg-buildpackage -a armhf -Pcross,nocheck,pkg.libzel-tc-lib.device -b -us -uc -d \
  -j"$(nproc)" >"$work/build.log" 2>&1) || { tail -50 "$work/build.log"; fail "dpkg-buildpackage failed"; }

deb() { echo "$work/${1}_"*"_armhf.deb"; }
for package in "${packages[@]}"; do
  [ -f "$(deb "$package")" ] || fail "no package $package"
done
[ -e "$(deb zel-host-tee)" ] && fail "a device build made zel-host-tee"

lintian --fail-on error,warning "$work"/libzel-tc-lib_*_armhf.changes >"$work/lintian.log" 2>&1 ||
  { cat "$work/lintian.log"; fail "lintian reports errors or warnings"; }
grep -v '^running with root' "$work/lintian.log" || true

for package in "${packages[@]}"; do
  if dpkg-deb -c "$(deb "$package")" | grep -E "/$platform_names"; then
    fail "$package puts a platform-named library in the library path"
  fi
  if dpkg-deb -f "$(deb "$package")" Depends | grep zel-host-tee; then
    fail "$package of a device build depends on the host TEE"
  fi
  dpkg-deb -x "$(deb "$package")" "$work/root"
done
file "$work/root/usr/bin/zel-tc" | grep 'ARM' >/dev/null || fail "zel-tc is not an ARM program"

ZEL_EMULATOR=$(command -v qemu-arm) bash tests/packaging/device_harness_test.sh "$host_build" \
  --zel-tc "$work/root/usr/bin/zel-tc" --libs "$work/root/usr/lib/arm-linux-gnueabihf"
say "the armhf device packages pass lintian and their zel-tc ran the whole plan under qemu-arm"
