#!/usr/bin/env bash
# The Debian packages built from a copy of the source, checked by lintian and for platform-named
# libraries in the library path, then (as root) installed, used and purged without a trace.
#   debian_packages_test.sh SOURCE_DIR EXAMPLE_DIR
# Exit 0 passed, 1 failed, 77 skipped (not root: packages built and checked, not installed).
set -euo pipefail
# (greps read to the end of a pipe: an early exit would fail the writer with SIGPIPE under pipefail)
source_dir=$(cd "$1" && pwd) example=$(cd "$2" && pwd)
readonly kSkipped=77
packages=(libzel-tc-lib0 libzel-tc-lib-dev zel-tc zel-host-tee)
platform_names='lib(teec|vconf|system-info|qeru_utility_nwd|stand_in_store)\.so'

work=$(mktemp -d)
installed_here=false
cleanup() {
  if $installed_here; then
    dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1 || cat "$work/purge.log"
  fi
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "packages: $*" >&2; exit 1; }

# --- Build from a clean copy: dpkg-buildpackage writes into the tree it builds. ---
mkdir "$work/src"
tar -C "$source_dir" --exclude='./build*' --exclude=./.git --exclude=./obj-* -cf - . |
  tar -C "$work/src" -xf -
(cd "$work/src" && dpkg-buildpackage -b -us -uc -j"$(nproc)" >"$work/build.log" 2>&1) ||
  { tail -50 "$work/build.log"; fail "dpkg-buildpackage failed"; }
arch=$(dpkg-architecture -qDEB_HOST_ARCH) multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
deb() { echo "$work/${1}_"*"_$arch.deb"; }
for package in "${packages[@]}"; do
  [ -f "$(deb "$package")" ] || fail "no package $package"
done
# Stripped binaries, their debug symbols in packages of their own.
for package in libzel-tc-lib0 zel-tc zel-host-tee; do
  [ -f "$(deb "$package-dbgsym")" ] || fail "no debug symbols package for $package"
done

# --- lintian: errors and warnings fail. ---
lintian --fail-on error,warning "$work"/libzel-tc-lib_*_"$arch".changes >"$work/lintian.log" 2>&1 ||
  { cat "$work/lintian.log"; fail "lintian reports errors or warnings"; }

# --- What each package holds. ---
for package in "${packages[@]}"; do
  dpkg-deb -c "$(deb "$package")" | awk '{print substr($6, 2)}' >"$work/$package.files"
done
# No platform-named library anywhere but zel-host-tee's private folder.
if grep -hE "/$platform_names" "$work"/*.files | grep -vE "^/usr/lib/$multiarch/zel-tc-lib/[^/]+$"; then
  fail "a platform-named library lies in the library path"
fi
grep -qxE "/usr/lib/$multiarch/libzel-tc-lib\.so\.0\.[0-9.]+" "$work/libzel-tc-lib0.files" ||
  fail "the library is not in the multiarch folder"
grep -qx "/usr/lib/$multiarch/libzel-tc-lib.so" "$work/libzel-tc-lib-dev.files" ||
  fail "the .so link is not in -dev"
dpkg-deb -I "$(deb libzel-tc-lib0)" shlibs | grep "^libzel-tc-lib 0 libzel-tc-lib0" >/dev/null ||
  fail "libzel-tc-lib0 has no shlibs entry"
dpkg-deb -I "$(deb libzel-tc-lib0)" triggers | grep "ldconfig" >/dev/null ||
  fail "libzel-tc-lib0 has no ldconfig trigger"
echo "packages: built, lintian clean, no platform-named library in the library path"

if [ "$(id -u)" -ne 0 ]; then
  echo "packages: SKIPPED installing them: dpkg -i needs root" >&2
  exit $kSkipped
fi
for package in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep 'install ok installed' >/dev/null; then
    echo "packages: SKIPPED installing them: $package is installed on this machine already" >&2
    exit $kSkipped
  fi
done

# --- Installed for real. ---
installed_here=true
dpkg -i $(for package in "${packages[@]}"; do deb "$package"; done) >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; fail "dpkg -i failed"; }
for package in "${packages[@]}"; do dpkg -L "$package"; done >"$work/installed.files"
ldconfig -p | grep -F "libzel-tc-lib.so.0 " >/dev/null || fail "ldconfig does not know the library"
ldconfig -p | grep -E "$platform_names" && fail "ldconfig finds a platform-named library"

# The whole plan through the installed zel-tc and the zel-vaultd it starts.
(cd "$work" && /usr/bin/zel-tc run --all --junit "$work/report.xml" >"$work/plan.out" 2>"$work/plan.err") ||
  { tail -30 "$work/plan.err"; fail "the installed zel-tc's plan failed"; }
grep -q 'property name="ta.firmware_words"' "$work/report.xml" || fail "no identity in the report"

# The C++ example against the installed -dev, found without any hint, run against a daemon.
cmake -S "$example" -B "$work/harness" >"$work/harness.log" 2>&1 &&
  cmake --build "$work/harness" >>"$work/harness.log" 2>&1 ||
  { cat "$work/harness.log"; fail "the example does not build against the installed -dev"; }
mkdir -m 700 "$work/vault"
/usr/bin/zel-tc vault start --socket "$work/vault/socket" >/dev/null
ZEL_TEE_SOCKET=$work/vault/socket "$work/harness/harness" >"$work/harness.out" || true
/usr/bin/zel-tc vault stop --socket "$work/vault/socket" >/dev/null
grep -qxF "[SUCCESS] TEST PROCESS INSPECTION" "$work/harness.out" ||
  { cat "$work/harness.out"; fail "the example failed against the installed library"; }

# --- Removed: nothing of theirs is left. ---
installed_here=false
dpkg --purge "${packages[@]}" >"$work/purge.log" 2>&1 || { cat "$work/purge.log"; fail "dpkg --purge failed"; }
while read -r path; do
  [ -d "$path" ] && continue  # folders shared with other packages stay
  [ -e "$path" ] && fail "$path is left after dpkg --purge"
done <"$work/installed.files"
[ -e "/usr/lib/$multiarch/zel-tc-lib" ] && fail "the private folder is left"
echo "packages: installed, the plan and the example ran, removed cleanly"
