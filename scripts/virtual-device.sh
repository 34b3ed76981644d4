#!/usr/bin/env bash
# The virtual device: TF-A, OP-TEE OS and an arm64 Linux in QEMU, with the real TEE Client API
# library (Debian's libteec) and tee-supplicant in a 32-bit ARM user space, the vault's TAs built
# by OP-TEE's dev kit, and zel-tc built for the device against that libteec. Boots it, runs
# zel-tc inside, and brings its reports and both worlds' logs back.
#
#   bash scripts/virtual-device.sh [--out DIR] [--timeout S]           the whole plan
#   bash scripts/virtual-device.sh [--out DIR] [--timeout S] -- ARGS   zel-tc ARGS instead
#   ... -- ARGS --then ARGS2 ...       several runs in one boot, one TEE state; the exit status
#                                      is the first failing run's
#   ... --planted                      the TAs with the fuzzer's planted panic (scripts/optee-tas.sh
#                                      --planted), for checking how a TA's panic is seen
#   ... --add PATH -- /opt/zel/NAME ARGS   PATH (a file or folder; repeatable) copied to the
#                                      device's /opt/zel; a run that starts with / runs that
#                                      program instead of zel-tc (a harness of one's own)
#
# The library, its headers and CMake package as built for the device are in
# build-vdev/device-root/usr, for building such a harness (docs/virtual-device.md).
#
# Reports go to the device's /results (zel-tc's working folder there): every file written there
# comes back to DIR (default build-vdev/results), with console.log (the normal world) and
# secure.log (OP-TEE's own log). Everything fetched or built is kept in build-vdev/, so a second
# run only boots. Nothing from trixie is installed on the system: its packages are fetched with a
# private apt configuration and unpacked there.
#
# Exit status: zel-tc's own; 3 when the packages or the toolchain could not be had on this
# machine; 4 when the device did not boot, or did not end, within the timeout.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly kCannotInstall=3
readonly kNoBoot=4
readonly kTfaUpstream=2.12.1
readonly kOpteeUpstream=4.5.0
readonly kClientUpstream=3.19.0
readonly kKernelSeries=6.1
readonly kOpteePlatform=vexpress-qemu_armv8a
source_dir=$PWD
top=$PWD/build-vdev
out=$top/results
timeout=900
zel_tc_args=()
added=()
tas=ta
tas_option=()
while [ $# -gt 0 ]; do
  case $1 in
    --out) out=$(mkdir -p "$2" && cd "$2" && pwd); shift 2 ;;
    --timeout) timeout=$2; shift 2 ;;
    --add) added+=("$(realpath "$2")"); shift 2 ;;
    --planted) tas=planted tas_option=(--planted); shift ;;
    --) shift; zel_tc_args=("$@"); break ;;
    *) echo "usage: $0 [--out DIR] [--timeout S] [--planted] [--add PATH]..." \
         "[-- ARGS [--then ARGS]...]" >&2
       exit 2 ;;
  esac
done
[ ${#zel_tc_args[@]} -gt 0 ] ||
  zel_tc_args=(run --all --junit /results/report.xml --json /results/report.json)

say() { echo "virtual-device: $*" >&2; }
now() { date +%s.%N; }
since() { echo "$(now) $1" | awk '{ printf "%.1f", $1 - $2 }'; }

# This release's tools: QEMU, the arm64 compiler for TF-A and the TAs, what TF-A's fiptool links,
# what unpacks sources and makes the initramfs, a keyring with trixie's keys; the armhf toolchain
# comes from scripts/armhf.sh.
install_tools() {
  bash scripts/install-deps.sh qemu-system-arm gcc-aarch64-linux-gnu dpkg-dev cpio xz-utils \
    python3-cryptography debian-archive-keyring >&2 &&
    bash scripts/armhf.sh --install-only >&2 || return 1
  command -v qemu-system-aarch64 >/dev/null && command -v aarch64-linux-gnu-gcc >/dev/null &&
    [ -e /usr/share/keyrings/debian-archive-trixie-automatic.gpg ]
}

# A private apt configuration per release, under build-vdev/apt/: its own lists, cache and no
# status of installed packages, so that the system's apt state is never touched. Trixie gives
# arm64 packages and sources only: apt keeps none of a release's indexes when one of them fails
# to download (a mirror still syncing), so each release asks for no more than it needs.
apt_for() {  # RELEASE -> sets apt_options
  local release=$1 dir=$top/apt/$1 keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  local architectures=arm64,armhf
  [ "$release" = trixie ] && architectures=arm64
  mkdir -p "$dir"/{lists/partial,cache/archives/partial}
  {
    echo "deb [signed-by=$keyring] http://deb.debian.org/debian $release main"
    if [ "$release" = trixie ]; then
      echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian $release main"
    else
      echo "deb [signed-by=$keyring] http://deb.debian.org/debian $release-updates main"
    fi
  } >"$dir/sources.list"
  apt_options=(-o "Dir::Etc::SourceList=$dir/sources.list" -o Dir::Etc::SourceParts=/dev/null
    -o "Dir::State::Lists=$dir/lists" -o "Dir::Cache=$dir/cache" -o Dir::State::status=/dev/null
    -o APT::Architecture=arm64 -o "APT::Architectures=$architectures" -o Acquire::Languages=none
    -o APT::Sandbox::User=root)
  local try
  for try in 1 2 3; do
    compgen -G "$dir/lists/*_${release}_main_binary-arm64_Packages*" >/dev/null && return 0
    [ "$try" -eq 1 ] || sleep 10
    apt-get "${apt_options[@]}" update >&2 || say "apt-get update of $release reported errors"
  done
  compgen -G "$dir/lists/*_${release}_main_binary-arm64_Packages*" >/dev/null || {
    say "$release's package indexes could not be had"
    return 1
  }
}

# Downloads PACKAGE[:ARCH] of RELEASE into build-vdev/debs (once), checked against the hash in
# the signed index; prints the .deb's path.
fetch_deb() {
  local release=$1 package=$2 debs=$top/debs/$1 found
  mkdir -p "$debs"
  found=$(find "$debs" -name "${package%%:*}_*.deb" | head -n1)
  if [ -z "$found" ]; then
    apt_for "$release" || return 1
    (cd "$debs" && apt-get "${apt_options[@]}" download "$package" >&2) || {
      say "could not download $package from $release"
      return 1
    }
    found=$(find "$debs" -name "${package%%:*}_*.deb" | head -n1)
  fi
  echo "$found"
}

# Unpacks PACKAGE into FOLDER; FOLDER/.version-PACKAGE holds its version.
unpack() {  # RELEASE PACKAGE[:ARCH] FOLDER
  local deb
  deb=$(fetch_deb "$1" "$2") || return 1
  mkdir -p "$3"
  dpkg-deb -x "$deb" "$3"
  dpkg-deb -f "$deb" Version >"$3/.version-${2%%:*}"
}

# TF-A from trixie's source package, fetched and built once for QEMU's virt machine with OP-TEE
# as BL32.
build_tfa() {
  local release=$top/tf-a/build/qemu/release
  [ -f "$release/fip.bin" ] || fetch_and_build_tfa || return 1
  cp "$release"/bl1.bin "$release"/bl2.bin "$release"/bl31.bin "$release"/fip.bin "$top/boot/"
}

fetch_and_build_tfa() {
  local tfa=$top/tf-a boot=$top/boot version
  apt_for trixie || return 1
  version=$(apt-cache "${apt_options[@]}" showsrc arm-trusted-firmware | sed -n 's/^Version: //p' |
    grep "^$kTfaUpstream[+-]" | sort -V | tail -n1 || true)
  [ -n "$version" ] || { say "trixie lists no source of TF-A $kTfaUpstream"; return 1; }
  rm -rf "$top/tf-a-src" "$tfa"
  mkdir -p "$top/tf-a-src"
  # apt-get source checks the files against the hashes in the signed index.
  (cd "$top/tf-a-src" &&
    apt-get "${apt_options[@]}" source --download-only "arm-trusted-firmware=$version" >&2 &&
    dpkg-source -x ./*.dsc tree >&2) || {
    say "could not fetch TF-A $kTfaUpstream's source from trixie"
    return 1
  }
  mv "$top/tf-a-src/tree" "$tfa"
  echo "$version" >"$tfa/.version"
  say "building TF-A $version"
  # The FIP packs the BL32 and BL33 images of the boot folder; at boot, TF-A's QEMU platform
  # loads the same images by semihosting.
  env -u CFLAGS -u CPPFLAGS -u LDFLAGS make -C "$tfa" -j "$(nproc)" \
    CROSS_COMPILE=aarch64-linux-gnu- PLAT=qemu DEBUG=0 LOG_LEVEL=30 BL32_RAM_LOCATION=tdram \
    QEMU_USE_GIC_DRIVER=QEMU_GICV3 SPD=opteed BL32="$boot/bl32.bin" \
    BL32_EXTRA1="$boot/bl32_extra1.bin" BL32_EXTRA2="$boot/bl32_extra2.bin" BL33="$boot/bl33.bin" \
    BUILD_STRING="$version" all fip >"$top/tf-a.log" 2>&1 || {
    tail -30 "$top/tf-a.log" >&2
    say "TF-A did not build"
    return 1
  }
}

# The boot folder: what TF-A's QEMU platform loads by semihosting from QEMU's working folder.
prepare_boot() {
  local boot=$top/boot os=$top/pkg/optee-os uboot=$top/pkg/u-boot-qemu
  mkdir -p "$boot"
  unpack trixie "optee-os:arm64" "$os" || return 1
  grep -q "^$kOpteeUpstream-" "$os/.version-optee-os" || {
    say "trixie's optee-os is $(cat "$os/.version-optee-os"), not $kOpteeUpstream"
    return 1
  }
  unpack bookworm u-boot-qemu "$uboot" || return 1
  local images=$os/usr/lib/optee/$kOpteePlatform
  cp "$images/tee-header_v2.bin" "$boot/bl32.bin"
  cp "$images/tee-pager_v2.bin" "$boot/bl32_extra1.bin"
  cp "$images/tee-pageable_v2.bin" "$boot/bl32_extra2.bin"
  cp "$uboot/usr/lib/u-boot/qemu_arm64/u-boot.bin" "$boot/bl33.bin"
}

# The arm64 kernel and its two TEE modules.
prepare_kernel() {
  local kernel=$top/pkg/kernel name
  if [ ! -f "$top/boot/Image" ]; then
    apt_for bookworm || return 1
    # The meta-package names the current ABI's image.
    name=$(apt-cache "${apt_options[@]}" depends linux-image-arm64 |
      sed -n "s/^ *Depends: \(linux-image-$kKernelSeries[.0-9-]*-arm64\)$/\1/p" | head -n1)
    [ -n "$name" ] || { say "bookworm lists no linux-image-$kKernelSeries arm64 kernel"; return 1; }
    rm -rf "$kernel"
    unpack bookworm "$name" "$kernel" || return 1
    cp "$kernel"/boot/vmlinuz-* "$top/boot/Image"
  fi
  mkdir -p "$top/modules"
  local module found
  for module in tee optee; do
    found=$(find "$kernel/lib/modules" -name "$module.ko*" | head -n1)
    [ -n "$found" ] || { say "the kernel has no $module module"; return 1; }
    case $found in
      *.xz) xz -dc "$found" >"$top/modules/$module.ko" ;;
      *) cp "$found" "$top/modules/$module.ko" ;;
    esac
  done
}

# The armhf user space's packages, unpacked into one tree.
readonly user_space=(busybox-static libc6 libgcc-s1 libstdc++6 libssl3 libpugixml1v5 libteec1
  tee-supplicant optee-client-dev)
prepare_armhf() {
  local tree=$top/armhf package
  for package in "${user_space[@]}"; do
    [ -e "$tree/.version-$package" ] || unpack bookworm "$package:armhf" "$tree" || return 1
  done
  grep -q "^$kClientUpstream-" "$tree/.version-libteec1" || {
    say "bookworm's libteec1 is $(cat "$tree/.version-libteec1"), not $kClientUpstream"
    return 1
  }
}

# The library and zel-tc for the device: device mode against Debian's libteec, with the project's
# codec, configuration and system-information stand-ins as the platform's other libraries.
build_device() {
  local platform=$top/platform stand_ins=$top/stand-ins device=$top/device
  local toolchain=$source_dir/cmake/arm-linux-gnueabihf.cmake
  # The platform component installs every stand-in, the TEE client too (dropped below).
  cmake -S "$source_dir" -B "$stand_ins" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF \
    >"$top/stand-ins.log" 2>&1 &&
    cmake --build "$stand_ins" -j "$(nproc)" --target qeru_utility_nwd vconf system-info \
      teec >>"$top/stand-ins.log" 2>&1 &&
    cmake --install "$stand_ins" --component platform --prefix "$platform" >/dev/null || {
    tail -30 "$top/stand-ins.log" >&2
    say "the armhf stand-ins did not build"
    return 1
  }
  # The stand-ins' TEE client stays out: the device's is Debian's.
  rm -f "$platform/lib/libteec.so" "$platform/include/tee_client_api.h"
  # Debian's libteec, and the folder where the linker finds what it links.
  local armhf=$top/armhf libs=$top/armhf/usr/lib/arm-linux-gnueabihf
  cmake -S "$source_dir" -B "$device" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_PLATFORM=device -DZEL_BUILD_TESTS=OFF \
    -DZEL_BUILD_BENCH=OFF -DZEL_WERROR=ON -DCMAKE_PREFIX_PATH="$platform" \
    -DZEL_TEEC_INCLUDE_DIR="$armhf/usr/include" \
    -DZEL_TEEC_LIBRARY="$libs/libteec.so" \
    -DCMAKE_SHARED_LINKER_FLAGS="-Wl,--no-undefined -Wl,-rpath-link,$libs" \
    -DCMAKE_EXE_LINKER_FLAGS="-Wl,-rpath-link,$libs" \
    -DCMAKE_INSTALL_PREFIX=/usr >"$top/device.log" 2>&1 &&
    cmake --build "$device" -j "$(nproc)" --target zel-tc >>"$top/device.log" 2>&1 || {
    tail -30 "$top/device.log" >&2
    say "the device build of the library and zel-tc failed"
    return 1
  }
  rm -rf "$top/device-root"
  DESTDIR=$top/device-root cmake --install "$device" --component runtime >/dev/null
  DESTDIR=$top/device-root cmake --install "$device" --component tools >/dev/null
  DESTDIR=$top/device-root cmake --install "$device" --component dev >/dev/null
}

# Copies into the root what PROGRAM needs, found in the given trees, library by library.
copy_needed() {  # ROOT FILE TREE...
  local root=$1 file=$2 lib dir found
  shift 2
  for lib in $(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [ -e "$root/usr/lib/arm-linux-gnueabihf/$lib" ] && continue
    found=""
    for dir in "$@"; do
      [ -e "$dir/$lib" ] && { found=$dir/$lib; break; }
    done
    [ -n "$found" ] || {
      say "$(basename "$file") needs $lib, which no package here has"
      return 1
    }
    cp -L "$found" "$root/usr/lib/arm-linux-gnueabihf/$lib"
    copy_needed "$root" "$found" "$@" || return 1
  done
}

# The initramfs: busybox, the loader and libraries, libteec, tee-supplicant, the TAs where it
# loads them from, the TEE modules, zel-tc, and the init that runs the job (make_job).
make_rootfs() {
  local root=$top/rootfs armhf=$top/armhf
  rm -rf "$root"
  mkdir -p "$root"/{bin,sbin,dev,proc,sys,tmp,results,data/tee,zel,lib/modules,lib/optee_armtz} \
    "$root/usr/lib/arm-linux-gnueabihf" "$root/usr/bin"
  cp "$armhf/bin/busybox" "$root/bin/busybox"
  cp -L "$armhf/lib/arm-linux-gnueabihf/ld-linux-armhf.so.3" "$root/usr/lib/arm-linux-gnueabihf/"
  ln -s /usr/lib/arm-linux-gnueabihf/ld-linux-armhf.so.3 "$root/lib/ld-linux-armhf.so.3"
  ln -s ../usr/lib/arm-linux-gnueabihf "$root/lib/arm-linux-gnueabihf"
  cp "$armhf/usr/sbin/tee-supplicant" "$root/sbin/"
  cp "$top/device-root/usr/bin/zel-tc" "$root/usr/bin/"
  local trees=("$top/device-root/usr/lib" "$top/platform/lib"
    "$armhf/usr/lib/arm-linux-gnueabihf" "$armhf/lib/arm-linux-gnueabihf")
  copy_needed "$root" "$root/usr/bin/zel-tc" "${trees[@]}" &&
    copy_needed "$root" "$root/sbin/tee-supplicant" "${trees[@]}" || return 1
  local ta
  for ta in "$source_dir/build-optee/$tas"/*/*.ta; do cp "$ta" "$root/lib/optee_armtz/"; done
  cp "$top/modules/tee.ko" "$top/modules/optee.ko" "$root/lib/modules/"
  cp "$source_dir/scripts/virtual-device-init" "$root/init"
  chmod 755 "$root/init"
  (cd "$root" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet) |
    gzip -n >"$top/rootfs.cpio.gz"
}

# The job: /zel/args.N for the Nth zel-tc run, its arguments one per line, in a second archive
# appended to the first (the kernel unpacks both), so that a new job does not remake the root.
make_job() {
  local job=$top/job run=1 arg
  rm -rf "$job"
  mkdir -p "$job/zel" "$job/opt/zel"
  [ ${#added[@]} -eq 0 ] || cp -r "${added[@]}" "$job/opt/zel/"
  : >"$job/zel/args.$run"
  for arg in "${zel_tc_args[@]}"; do
    if [ "$arg" = --then ]; then
      run=$((run + 1))
      : >"$job/zel/args.$run"
    else
      printf '%s\n' "$arg" >>"$job/zel/args.$run"
    fi
  done
  (cd "$job" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet) | gzip -n |
    cat "$top/rootfs.cpio.gz" - >"$top/boot/initrd.cpio.gz"
}

# Boots the device and waits for it to power off; the console goes to console.log.
boot() {
  local boot=$top/boot status=0
  rm -f "$out/console.log" "$out/secure.log"
  # TF-A's semihosting reads the images from the working folder.
  (cd "$boot" && timeout "$timeout" qemu-system-aarch64 -nographic -smp 2 \
    -cpu max,sve=off,pauth-impdef=on -d unimp -semihosting-config enable=on,target=native \
    -m 1057 -bios bl1.bin -initrd initrd.cpio.gz -kernel Image \
    -append 'console=ttyAMA0,38400 rdinit=/init quiet' \
    -machine virt,acpi=off,secure=on,mte=off,gic-version=3,virtualization=false \
    -serial stdio -serial "file:$out/secure.log" -monitor none </dev/null |
    tr -d '\r' | tee "$out/console.log" | grep -v '^zel-vdev-data ' >&2) || status=$?
  return $status
}

# What this device is made of, package by package, for the report.
versions() {
  local file
  {
    echo "qemu-system-arm $(dpkg-query -W -f='${Version}' qemu-system-arm)"
    echo "arm-trusted-firmware (source, built here) $(cat "$top/tf-a/.version")"
    for file in "$top"/pkg/*/.version-* "$top"/armhf/.version-*; do
      echo "${file##*/.version-} $(cat "$file")"
    done
  } >"$out/versions.txt"
}

# Brings back the files the job left in /results, written to the console by the init, in place
# of those an earlier run brought back (listed in .brought-back; nothing else in DIR is touched).
bring_back() {
  python3 - "$out" "$out/console.log" <<'PY'
import base64, binascii, os, sys
out, console = sys.argv[1], sys.argv[2]
manifest = os.path.join(out, ".brought-back")
if os.path.exists(manifest):
    for old in open(manifest).read().splitlines():
        if os.path.isfile(os.path.join(out, old)):
            os.remove(os.path.join(out, old))
files, name = {}, None
for line in open(console, errors="replace"):
    line = line.rstrip("\n")
    if line.startswith("zel-vdev-file "):
        name = os.path.normpath(line.split(" ", 1)[1])
        if name.startswith(("..", "/")):
            sys.exit(f"virtual-device: the device named a file outside its results: {name}")
        files[name] = []
    elif line.startswith("zel-vdev-data ") and name:
        files[name].append(line.split(" ", 1)[1])
with open(manifest, "w") as listed:
    for name, chunks in files.items():
        try:
            data = base64.b64decode("".join(chunks), validate=True)
        except binascii.Error:
            print(f"virtual-device: {name} came back cut short; not written", file=sys.stderr)
            continue
        os.makedirs(os.path.dirname(os.path.join(out, name)), exist_ok=True)
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        listed.write(name + "\n")
        print(f"virtual-device: brought back {name}", file=sys.stderr)
PY
}

if ! install_tools; then
  say "QEMU, the cross compilers or Debian's keyring could not be installed"
  exit $kCannotInstall
fi
mkdir -p "$top" "$out"
prepared=$(now)
if ! { prepare_boot && build_tfa && prepare_kernel && prepare_armhf; }; then
  say "the virtual device's packages could not be had"
  exit $kCannotInstall
fi
optee_status=0
bash scripts/optee-tas.sh "${tas_option[@]}" >"$top/optee-tas.log" || optee_status=$?
[ "$optee_status" -eq 0 ] || exit "$optee_status"
build_device || exit 1
make_rootfs || exit 1
make_job
say "ready in $(since "$prepared") s; booting"

booted=$(now)
boot_status=0
boot || boot_status=$?
versions
bring_back
exit_line=$(grep -a '^zel-vdev: the job exited ' "$out/console.log" | tail -n1 || true)
if [ -z "$exit_line" ]; then
  [ "$boot_status" -eq 124 ] && say "the device did not end within $timeout s"
  say "the job did not run to its end on the device; see $out/console.log and $out/secure.log"
  exit $kNoBoot
fi
status=${exit_line##* }
ready=$(sed -n 's/^zel-vdev: ready after \(.*\) s$/\1/p' "$out/console.log" | head -n1)
runs=$(sed -n 's/^zel-vdev: .* took \(.*\) s, exit .*$/\1/p' "$out/console.log" | paste -sd+)
say "boot to the TEE ready ${ready:-?} s, the job ${runs:-?} s, all ${SECONDS} s of this run" \
  "(QEMU $(since "$booted") s); exit $status; logs and reports in $out"
exit "$status"
