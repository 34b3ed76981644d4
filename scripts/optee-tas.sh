#!/usr/bin/env bash
# Builds the TAs of ta/ with OP-TEE's own TA dev kit, as a device's OP-TEE would load them:
# for arm64 (the kit of Debian's optee-os-dev, vexpress-qemu_armv8a), warnings as errors, signed
# with the kit's key; then checks every signed .ta against that key.
#
#   bash scripts/optee-tas.sh            fetch the kit once into build-optee/kit, build into
#                                        build-optee/ta/
#   bash scripts/optee-tas.sh --planted  the same with the fuzzer's planted TA panic, into
#                                        build-optee/planted/ (for checking it on the virtual device)
#
# The kit comes from trixie (bookworm has none), fetched with a private apt configuration into
# build-optee/ and unpacked there: nothing from trixie is installed on the system. The cross
# compiler and the sign script's Python library come from the system's own release.
#
# Exit status: 0 every TA built and verified; 1 a build or a check failed; 3 the kit or the
# toolchain could not be had on this machine (so the caller can tell "not built here" from
# "broken").
set -euo pipefail
cd "$(dirname "$0")/.."

readonly kCannotInstall=3
readonly kKitRelease=trixie
readonly kKitUpstream=4.5.0
readonly kKitPlatform=vexpress-qemu_armv8a
readonly kCrossCompile=aarch64-linux-gnu-
top=$PWD/build-optee
kit_root=$top/kit
out_root=$top/ta
planted=()
if [ "${1:-}" = --planted ]; then
  out_root=$top/planted
  planted=(ZEL_PLANTED_TA_PANIC=y)
fi
kit_dir=$kit_root/usr/lib/optee-os-dev/$kKitPlatform
started=$(date +%s.%N)

say() { echo "optee-tas: $*" >&2; }

elapsed() { echo "$(date +%s.%N) $started" | awk '{ printf "%.1f", $1 - $2 }'; }

# The cross compiler, make, what the kit's sign script imports, and a keyring with trixie's keys.
install_tools() {
  bash scripts/install-deps.sh gcc-aarch64-linux-gnu make python3-cryptography \
    debian-archive-keyring >&2 || return 1
  command -v "${kCrossCompile}gcc" >/dev/null && command -v make >/dev/null &&
    python3 -c 'import cryptography' 2>/dev/null &&
    [ -e /usr/share/keyrings/debian-archive-trixie-automatic.gpg ]
}

# Fetches and unpacks the kit once; a later run finds it in place.
fetch_kit() {
  local have
  have=$(cat "$kit_root/.version" 2>/dev/null || true)
  if [ -d "$kit_dir/mk" ] && [[ "$have" == "$kKitUpstream"-* ]]; then
    say "using the kit in $kit_root (optee-os-dev $have)"
    return 0
  fi
  local apt_dir=$top/apt
  rm -rf "$apt_dir" "$kit_root" "$kit_root.partial"
  mkdir -p "$apt_dir"/{lists/partial,cache/archives/partial,download}
  # Signed by trixie's archive keys, checked against Debian's keyring like the system's sources.
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
    "http://deb.debian.org/debian $kKitRelease main" >"$apt_dir/sources.list"
  # Only this list, only arm64 (the kit's own architecture; it is all scripts, make files and
  # arm64 libraries), no status of installed packages: the system's apt state is not touched.
  local apt=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o Dir::Etc::SourceParts=/dev/null
    -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
    -o Dir::State::status=/dev/null -o APT::Architecture=arm64 -o APT::Architectures=arm64
    -o Acquire::Languages=none)
  # What counts is whether the index that names the kit arrived, not update's status as a whole.
  apt-get "${apt[@]}" update >&2 || say "apt-get update of $kKitRelease reported errors"
  local version
  version=$(apt-cache "${apt[@]}" madison optee-os-dev 2>/dev/null | cut -d'|' -f2 | tr -d ' ' |
    grep "^$kKitUpstream-" | sort -V | tail -n1 || true)
  if [ -z "$version" ]; then
    say "$kKitRelease's index does not list optee-os-dev $kKitUpstream for arm64"
    return 1
  fi
  # apt-get download checks the package against the hash in the verified index. It downloads as
  # _apt when it can write where it downloads to (as root, it can make it so).
  [ "$(id -u)" -ne 0 ] || ! id _apt >/dev/null 2>&1 || chown _apt "$apt_dir/download"
  (cd "$apt_dir/download" && apt-get "${apt[@]}" download "optee-os-dev:arm64=$version" >&2) ||
    return 1
  # Unpacked aside and moved in whole, so that an interrupted run leaves no half kit behind.
  dpkg-deb -x "$apt_dir/download/optee-os-dev_${version}_arm64.deb" "$kit_root.partial" || return 1
  [ -f "$kit_root.partial/usr/lib/optee-os-dev/$kKitPlatform/mk/ta_dev_kit.mk" ] || {
    say "optee-os-dev $version has no $kKitPlatform dev kit"
    return 1
  }
  echo "$version" >"$kit_root.partial/.version"
  mv "$kit_root.partial" "$kit_root"
  rm -rf "$apt_dir"
  say "fetched optee-os-dev $version into $kit_root"
}

if ! install_tools; then
  say "the cross compiler, make or python3-cryptography could not be installed"
  exit $kCannotInstall
fi
if ! fetch_kit; then
  say "OP-TEE's TA dev kit (optee-os-dev $kKitUpstream from $kKitRelease) could not be fetched"
  exit $kCannotInstall
fi

# A signature is checked with the public half only, as OP-TEE's loader does.
public_key=$top/ta-public-key.pem
python3 - "$kit_dir/keys/default_ta.pem" >"$public_key" <<'PY'
import sys
from cryptography.hazmat.primitives import serialization
with open(sys.argv[1], "rb") as pem:
    key = serialization.load_pem_private_key(pem.read(), password=None)
sys.stdout.buffer.write(key.public_key().public_bytes(
    serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo))
PY

# The UUID that the TA's own header (.ta_head, from user_ta_header_defines.h) declares: OP-TEE
# refuses a TA whose header does not match the UUID it was signed and loaded under.
header_uuid() {
  local section
  section=$(mktemp)
  "${kCrossCompile}objcopy" -O binary --only-section=.ta_head "$1" "$section" &&
    python3 -c 'import sys, uuid; print(uuid.UUID(bytes_le=open(sys.argv[1], "rb").read()[:16]))' \
      "$section"
  local status=$?
  rm -f "$section"
  return $status
}

# Builds one TA folder from scratch (so that every warning is seen on every run) and checks what
# it made. False, with the reason, on any failure.
build_ta() {
  local folder=$1 name out binary tas
  name=$(basename "$folder")
  out=$out_root/$name
  binary=$(sed -n 's/^[[:space:]]*BINARY[[:space:]]*[:?]*=[[:space:]]*\([^[:space:]]*\).*/\1/p' \
    "$folder/Makefile" | tail -n1)
  if ! [[ "$binary" =~ ^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$ ]]; then
    say "$folder/Makefile: BINARY is '$binary', not a lower-case UUID"
    return 1
  fi
  rm -rf "$out"
  mkdir -p "$out"
  say "building $folder ($binary)"
  # The host build's flags (CFLAGS and the like in the environment) are not the TA's: the kit
  # would take them in.
  env -u CFLAGS -u CPPFLAGS -u LDFLAGS -u CROSS_COMPILE64 \
    make -C "$folder" -j "$(nproc)" TA_DEV_KIT_DIR="$kit_dir" CROSS_COMPILE="$kCrossCompile" \
    O="$out" CFG_WERROR=y "${planted[@]}" || {
    say "$folder did not build"
    return 1
  }
  tas=("$out"/*.ta)
  if [ ${#tas[@]} -ne 1 ] || [ "$(basename "${tas[0]}")" != "$binary.ta" ]; then
    say "$folder made ${tas[*]##*/}, not $binary.ta alone"
    return 1
  fi
  # Signature, digest and the signed header's UUID, by the kit's own tool.
  python3 "$kit_dir/scripts/sign_encrypt.py" verify --uuid "$binary" --in "${tas[0]}" \
    --key "$public_key" >/dev/null || {
    say "${tas[0]} is not signed by the kit's key for $binary"
    return 1
  }
  local declared
  declared=$(header_uuid "$out/$binary.stripped.elf") || {
    say "$out/$binary.stripped.elf has no readable .ta_head"
    return 1
  }
  if [ "$declared" != "$binary" ]; then
    say "$folder: user_ta_header_defines.h declares $declared, the Makefile's BINARY is $binary"
    return 1
  fi
  say "$name: $binary.ta signed and verified"
}

folders=()
for makefile in ta/*/Makefile; do
  [ -f "$makefile" ] && folders+=("$(dirname "$makefile")")
done
if [ ${#folders[@]} -eq 0 ]; then
  say "no TA folder with a Makefile under ta/"
  exit 1
fi
failed=()
for folder in "${folders[@]}"; do build_ta "$folder" || failed+=("$folder"); done
if [ ${#failed[@]} -gt 0 ]; then
  say "failed: ${failed[*]} ($(elapsed) s)"
  exit 1
fi
say "${#folders[@]} TA(s) built, signed and verified in $(elapsed) s; the .ta files are in" \
  "$out_root/<folder>/"
