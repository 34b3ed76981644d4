#!/usr/bin/env bash
# Builds and runs the tests, warnings as errors, in build-ci/: apart from scripts/main-job.sh's
# build/, so that neither rebuilds what the other built. --sanitize: the same under
# AddressSanitizer and UndefinedBehaviorSanitizer, in a build folder of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=ci
[ "${1:-}" = "--sanitize" ] && preset=sanitize
bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j "$(nproc)"
ctest --preset "$preset" -j "$(nproc)"
