#!/usr/bin/env bash
# zel-tc built in device mode against the host stand-ins installed as a device platform (its
# libteec is the host TEE client) runs the whole plan against a zel-vaultd as the default TEE.
#   device_harness_test.sh HOST_BUILD_DIR SOURCE_DIR           build zel-tc for the device, run it
#   device_harness_test.sh HOST_BUILD_DIR --zel-tc PATH --libs DIR
#                                  run a device zel-tc built elsewhere (a package's), its library in DIR
# ZEL_EMULATOR (e.g. qemu-arm) runs the daemon and zel-tc when HOST_BUILD_DIR is a cross build.
set -euo pipefail
host_build=$(cd "$1" && pwd)
zel_tc="" libs=""
if [ "$2" = --zel-tc ]; then
  zel_tc=$(realpath "$3") libs=$(cd "$5" && pwd)
else
  source_dir=$(cd "$2" && pwd)
fi
emulator=${ZEL_EMULATOR:-}
work=$(mktemp -d)
daemon=""
cleanup() {
  [ -n "$daemon" ] && kill "$daemon" 2>/dev/null && wait "$daemon" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "device harness: $*" >&2; exit 1; }

platform=$work/platform
cmake --install "$host_build" --component platform --prefix "$platform" >/dev/null

if [ -z "$zel_tc" ]; then
  cmake -S "$source_dir" -B "$work/build" -DZEL_PLATFORM=device -DZEL_BUILD_TESTS=OFF \
    -DZEL_BUILD_BENCH=OFF -DZEL_WERROR=ON -DCMAKE_PREFIX_PATH="$platform" \
    -DCMAKE_INSTALL_PREFIX="$work/install" -DCMAKE_INSTALL_LIBDIR=lib >"$work/build.log" 2>&1 &&
    cmake --build "$work/build" -j2 --target install >>"$work/build.log" 2>&1 ||
    { tail -40 "$work/build.log"; fail "the device build failed"; }
  zel_tc=$work/install/bin/zel-tc
  [ -e "$work/install/bin/zel-vaultd" ] && fail "a device build installed zel-vaultd"
fi

# The platform's libraries are in the device's library path. An emulator gets the path for its
# guest only: the build machine's own programs must not see foreign libraries.
library_path=$platform/lib${libs:+:$libs}
device() {
  if [ -n "$emulator" ]; then
    "$emulator" -E "LD_LIBRARY_PATH=$library_path" "$@"
  else
    LD_LIBRARY_PATH=$library_path "$@"
  fi
}
mkdir -m 700 "$work/tee"
export ZEL_TEE_SOCKET=$work/tee/socket
${emulator:+"$emulator"} "$host_build/bin/zel-vaultd" --socket "$ZEL_TEE_SOCKET" >"$work/vaultd.log" 2>&1 &
daemon=$!
for _ in $(seq 300); do [ -S "$ZEL_TEE_SOCKET" ] && break; sleep 0.1; done
[ -S "$ZEL_TEE_SOCKET" ] || { cat "$work/vaultd.log"; fail "zel-vaultd did not start"; }

printf 'db/comss/serialnumber=DEV-0001\n' >"$work/vconf"
ZEL_VCONF_FILE=$work/vconf device "$zel_tc" run --all --junit "$work/report.xml" \
  >"$work/plan.out" 2>"$work/plan.err" || { tail -30 "$work/plan.err"; fail "the plan failed"; }
grep -q '<property name="platform" value="device"' "$work/report.xml" || fail "no platform property"
grep -q '<property name="device.serial" value="DEV-0001"' "$work/report.xml" || fail "no serial"

# What needs the host TEE is refused, with exit 2.
for arguments in "vault fail --cmd 7" "run process --socket $ZEL_TEE_SOCKET"; do
  status=0
  # shellcheck disable=SC2086  # one argument per word
  device "$zel_tc" $arguments >"$work/refused.out" 2>"$work/refused.err" || status=$?
  [ "$status" -eq 2 ] || fail "'zel-tc $arguments' exited $status, not 2"
  grep -q "this zel-tc was built for the device's own TEE" "$work/refused.err" ||
    { cat "$work/refused.err"; fail "'zel-tc $arguments' does not say why"; }
done
echo "device harness: the device build of zel-tc ran the whole plan green, with the device's identity"
