#!/usr/bin/env bash
# What the whole plan prints on stdout, line for line, against a private zel-vaultd: every
# scenario's inputs and outputs. Only the ECDSA signature is random.
#   plan_transcript_test.sh ZEL_TC GOLDEN [--update]
set -uo pipefail
zel_tc=$(realpath "$1") golden=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
"$zel_tc" run --all 2>"$work/err" | sed -E 's/^(signature(Size)?: ).*/\1(random)/' >"$work/out"
[ "${PIPESTATUS[0]}" -eq 0 ] || { tail -5 "$work/err"; echo "the plan failed" >&2; exit 1; }
[ "${3:-}" = --update ] && { cp "$work/out" "$golden"; exit 0; }
diff -u "$golden" "$work/out" ||
  { echo "the plan's transcript changed (--update to accept)" >&2; exit 1; }
