#!/usr/bin/env bash
# Builds the Debian packages, unpacks them into a fresh tree (as a clean system would hold them),
# builds the C++ example against that tree with find_package, and runs it against the packaged
# zel-vaultd. Usage: run_cpp_example_from_packages.sh BUILD_DIR EXAMPLE_DIR
set -euo pipefail
build=$(cd "$1" && pwd) example=$2
work=$(mktemp -d)
root=$work/root socket=$work/vault/socket
trap '"$root/usr/bin/zel-tc" vault stop --socket "$socket" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

(cd "$build" && cpack -G DEB -B "$work/packages" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
for package in libzel-tc-lib0 libzel-tc-lib-dev zel-tc-tools; do
  deb=$(ls "$work/packages/${package}_"*.deb)
  [ "$(dpkg-deb -f "$deb" Package)" = "$package" ] || { echo "bad package name in $deb"; exit 1; }
  dpkg-deb -x "$deb" "$root"
done
[ -f "$root/usr/include/zel-tc-lib/zel_tc_lib.h" ] || { echo "no zel_tc_lib.h in the -dev package"; exit 1; }

cmake -S "$example" -B "$work/harness" -DCMAKE_PREFIX_PATH="$root/usr" >"$work/configure.log" ||
  { cat "$work/configure.log"; exit 1; }
cmake --build "$work/harness" >"$work/build.log" || { cat "$work/build.log"; exit 1; }

mkdir -m 700 "$work/vault"
"$root/usr/bin/zel-tc" vault start --socket "$socket" >/dev/null
ZEL_TEE_SOCKET=$socket "$work/harness/harness" >"$work/out"
grep -qxF "[SUCCESS] TEST PROCESS INSPECTION" "$work/out" || { cat "$work/out"; exit 1; }
echo "packages: built, unpacked, and the C++ example ran against them"
