#!/usr/bin/env bash
# Builds the planted-fault preset and checks zel-tc fuzz against it end to end, bounded in time:
# a few planted faults must each be found, their reproducers must replay on the planted vault and
# must not on the clean one (build-ci/, made by scripts/test.sh before this).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset planted >/dev/null
cmake --build --preset planted -j "$(nproc)"
planted=build-planted/bin/zel-tc
clean=build-ci/bin/zel-tc
[ -x "$clean" ] || { echo "fuzz-planted-check: $clean missing: run scripts/test.sh first" >&2; exit 2; }
# An unsymbolized report: symbolizing in the dying daemon can outlast the hang timeout.
export ASAN_OPTIONS=detect_leaks=0:abort_on_error=1:symbolize=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for fault in non-gp-result wrong-reply-shape delete-then-gethash-crash type-confusion-hang; do
  out="$work/$fault"
  status=0
  ZEL_PLANTED_FAULTS=$fault timeout 300 "$planted" fuzz --quiet --seconds 120 --max-findings 1 \
    --timeout 0.5 --out "$out" 2>"$work/log" || status=$?
  if [ "$status" -ne 1 ]; then
    cat "$work/log" >&2
    echo "fuzz-planted-check: $fault was not found (exit $status)" >&2
    exit 1
  fi
  reproducer=$(ls "$out"/*.repro)
  grep "^kind " "$reproducer"
  status=0
  ZEL_PLANTED_FAULTS=$fault "$planted" replay --timeout 0.5 "$reproducer" || status=$?
  [ "$status" -eq 1 ] || { echo "fuzz-planted-check: $fault did not replay" >&2; exit 1; }
  status=0
  "$clean" replay --timeout 0.5 "$reproducer" || status=$?
  [ "$status" -eq 0 ] || { echo "fuzz-planted-check: $fault reproduces on the clean vault" >&2; exit 1; }
done
echo "fuzz-planted-check: every planted fault checked was found and replayed"
