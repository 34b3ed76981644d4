#!/usr/bin/env bash
# The daemon's tests under ThreadSanitizer (the tsan preset, build-tsan/): zel-vaultd, the TEE
# client and the tests that drive them, against every connection, load, kill and storage fault.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$(nproc)" --target zel-vaultd e2e_tests vault_tests tee_api_tests
# halt_on_error: a race is a failure, not a warning in a log nobody reads.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
  ctest --preset tsan -j "$(nproc)" \
  -R '^(DaemonProtocol|HostileClient|UnprivilegedDaemon|DaemonLoad|Durability|StoreSafety|ClientTrust|SecureProcessorTa|TaPanic|TeeApiTest\.TasOnTwoThreads)'
