#!/usr/bin/env bash
# The differential check between the two TEEs: the same requests sent to the host's zel-vaultd
# and to OP-TEE in the virtual device must get the same answers. The requests: the whole plan,
# then a fixed-seed zel-tc fuzz campaign over both TAs, in one TEE state, from an empty one. The
# host runs them twice (what differs between its own two runs is random: keys, signatures) and
# scripts/tee_diff.py compares the device's answers with the host's.
#
#   bash scripts/tee-diff.sh [--runs N] [--seed N]     (default 100 fuzz executions, seed 1)
#
# The device's reports and logs are left in build-vdev/diff/device, the host's in
# build-vdev/diff/host-1 and host-2. Exit status: 0 the TEEs agree; 1 they differ, or a run
# failed; 3 the virtual device could not be had on this machine (scripts/virtual-device.sh's 3).
set -euo pipefail
cd "$(dirname "$0")/.."
runs=100
seed=1
while [ $# -gt 0 ]; do
  case $1 in
    --runs) runs=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    *) echo "usage: $0 [--runs N] [--seed N]" >&2; exit 2 ;;
  esac
done
out=$PWD/build-vdev/diff
say() { echo "tee-diff: $*" >&2; }

# The same two zel-tc runs on every TEE, their files in DIR. OP-TEE in QEMU answers a storage
# command in tenths of a second: --timeout leaves it room.
runs_in() {  # DIR -> sets plan and fuzz
  plan=(run --all --json "$1/plan.json")
  fuzz=(fuzz --seed "$seed" --runs "$runs" --timeout 30 --transcript "$1/fuzz.txt"
    --out "$1/findings")
}

bash scripts/install-deps.sh
cmake --preset ci >/dev/null
cmake --build --preset ci -j "$(nproc)" --target zel-tc zel-vaultd zel_tas
rm -rf "$out"
mkdir -p "$out"

# The host, twice, each from an empty store: a daemon of its own that outlives the two runs.
for n in 1 2; do
  host=$out/host-$n
  mkdir -m 700 -p "$host/tee"
  # Without the control TA, as on the device.
  ./build-ci/bin/zel-tc vault start --no-control --socket "$host/tee/socket" >/dev/null
  runs_in "$host"
  status=0
  ./build-ci/bin/zel-tc "${plan[@]}" --socket "$host/tee/socket" >"$host/plan.log" 2>&1 &&
    ./build-ci/bin/zel-tc "${fuzz[@]}" --socket "$host/tee/socket" >"$host/fuzz.log" 2>&1 ||
    status=$?
  ./build-ci/bin/zel-tc vault stop --socket "$host/tee/socket" >/dev/null
  [ "$status" -eq 0 ] || { say "the host's run $n failed (exit $status); see $host"; exit 1; }
done

# The device's job also times a few steps (zel-tc bench on a real TEE; its JSON comes back).
runs_in /results
bench=(bench --count 10 zel_put zel_getHash --json /results/bench.json)
device_status=0
bash scripts/virtual-device.sh --out "$out/device" -- "${plan[@]}" --then "${fuzz[@]}" \
  --then "${bench[@]}" || device_status=$?
case $device_status in
  0) ;;
  3) say "the virtual device could not be had on this machine"; exit 3 ;;
  *) say "zel-tc failed on the virtual device (exit $device_status); see $out/device"; exit 1 ;;
esac

[ -s "$out/device/bench.json" ] || {
  say "zel-tc bench's report did not come back from the device"
  exit 1
}
python3 scripts/tee_diff.py plan "$out"/host-{1,2}/plan.json "$out/device/plan.json" &&
  python3 scripts/tee_diff.py fuzz "$out"/host-{1,2}/fuzz.txt "$out/device/fuzz.txt"
