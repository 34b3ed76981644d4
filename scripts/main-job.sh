#!/usr/bin/env bash
# Builds everything and runs the whole plan through zel-tc against a fresh host vault daemon.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default
cmake --build --preset default -j "$(nproc)"
exec ./build/bin/zel-tc run --all "$@"
