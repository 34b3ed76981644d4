#!/usr/bin/env bash
# Runs the Python example against a zel-vaultd of its own and checks what the library printed.
# Usage: run_python_example.sh ZEL_TC LIBRARY EXAMPLE
set -euo pipefail
zel_tc=$1 library=$2 example=$3
directory=$(mktemp -d)
socket=$directory/socket
trap '"$zel_tc" vault stop --socket "$socket" >/dev/null 2>&1 || true; rm -rf "$directory"' EXIT
"$zel_tc" vault start --socket "$socket" >/dev/null
ZEL_TEE_SOCKET=$socket python3 "$example" "$library" >"$directory/out"
for line in "Tessaril test_lifetime TEST CA RESULT : 0" "[SUCCESS] TEST PROCESS INSPECTION" \
            "test_get_info successfully completed"; do
  grep -qxF "$line" "$directory/out" || { echo "missing line: $line"; cat "$directory/out"; exit 1; }
done
echo "python example: 3 entry points passed"
