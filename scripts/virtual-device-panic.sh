#!/usr/bin/env bash
# zel-tc fuzz and replay against a TA that panics on OP-TEE: the virtual device with the TAs built
# with the fuzzer's planted panic (the secure processor panics at a firmware update whose
# parameter is INT_MIN). The campaign must see TEEC_ERROR_TARGET_DEAD from the TEE as a ta-dead
# finding, go on to its bound with new sessions, and save a reproducer that replays on the device.
#
#   bash scripts/virtual-device-panic.sh      results in build-vdev/panic/ and build-vdev/replay/
#
# Exit status: 0 as promised; 1 not; 3 the virtual device could not be had on this machine.
set -euo pipefail
cd "$(dirname "$0")/.."
readonly kRuns=30
out=$PWD/build-vdev/panic
say() { echo "virtual-device-panic: $*" >&2; }

# Runs the device; zel-tc's 1 (a finding, or a reproduced one) is what is wanted here.
device() {  # OUT ARGS...
  local status=0
  bash scripts/virtual-device.sh --planted --out "$@" || status=$?
  case $status in
    1) ;;
    0) say "zel-tc found nothing on the device; see $1"; exit 1 ;;
    3) exit 3 ;;
    *) say "the device did not run its job (exit $status); see $1"; exit 1 ;;
  esac
}

device "$out" -- fuzz --uuid zel_test_a --cmd ze_updateFW --cmd zel_getInfo --runs "$kRuns" \
  --timeout 30 --json /results/fuzz.json --out /results/findings
python3 - "$out" "$kRuns" <<'PY'
import json, pathlib, sys
out, runs = pathlib.Path(sys.argv[1]), int(sys.argv[2])
summary = json.loads((out / "fuzz.json").read_text())
findings = summary["findings"]
def fail(why):
    sys.exit(f"virtual-device-panic: {why}; the summary: {json.dumps(summary)}")
if [(f["kind"], f["name"], f["result"], f["origin"]) for f in findings] != [
        ("ta-dead", "ze_updateFW", "0xffff3024", "0x00000003")]:
    fail("not one ta-dead finding at ze_updateFW, TEEC_ERROR_TARGET_DEAD from TEEC_ORIGIN_TEE")
if summary["executions"] != runs or summary["stopped"]:
    fail(f"the campaign did not go on to its {runs} executions after the panic")
if not (out / "findings" / pathlib.Path(findings[0]["file"]).name).is_file():
    fail("the reproducer did not come back")
if "TA panicked with code" not in (out / "secure.log").read_text(errors="replace"):
    fail("OP-TEE's log does not tell of the panic")
PY
repro=$(find "$out/findings" -name '*.repro' | head -n1)
device "$PWD/build-vdev/replay" --add "$repro" -- replay "/opt/zel/$(basename "$repro")"
grep -q 'ta-dead' "$PWD/build-vdev/replay/console.log" ||
  { say "the replay on the device did not show the ta-dead finding"; exit 1; }
say "a TA's panic on OP-TEE: seen as ta-dead, the campaign went on, the reproducer replays"
