#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan and UBSan: the fuzz preset), writes their seed
# corpora and runs each for SECONDS (default 30). Any crash, leak or timeout fails the run; its
# input is left in build-fuzz/artifacts/ to become a regression test.
#   scripts/fuzz.sh [SECONDS] [TARGET...]     e.g. scripts/fuzz.sh 3600 fuzz_daemon_connection
#   scripts/fuzz.sh --runs N [SECONDS] [TARGET...]   stop each at N inputs or SECONDS, first met
# A long campaign (scripts/fuzz.sh --runs 10000000 3600) keeps its corpus in build-fuzz/corpus/TARGET
# between runs, and each target's last lines in build-fuzz/TARGET.log.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=-1
if [ "${1:-}" = --runs ]; then
  runs=$2
  shift 2
fi
seconds="${1:-30}"
shift || true

# clang and its libFuzzer runtime from Debian.
if ! command -v clang++ >/dev/null || ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update || echo "fuzz.sh: apt-get update reported errors; trying the install anyway" >&2
  $sudo_cmd env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
    clang libclang-rt-14-dev
fi
bash scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(fuzz_codec_reader fuzz_support_parsers fuzz_ta_requests fuzz_daemon_connection fuzz_der_reader)
# Seeds of this run only, so that campaigns of different targets can run side by side.
seeds=$(mktemp -d build-fuzz/seeds.XXXXXX)
trap 'rm -rf "$seeds"' EXIT
python3 scripts/fuzz_seeds.py "$seeds"
mkdir -p build-fuzz/artifacts
status=0
for target in "${targets[@]}"; do
  corpus="build-fuzz/corpus/$target"
  mkdir -p "$corpus"
  echo "== $target: ${seconds}s$([ "$runs" -ge 0 ] && echo " or $runs inputs")"
  if ! build-fuzz/bin/"$target" "$corpus" "$seeds/$target" -max_total_time="$seconds" \
      -runs="$runs" -timeout=10 -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
      -artifact_prefix="build-fuzz/artifacts/$target-" 2>&1 | tail -n 25 | tee "build-fuzz/$target.log"; then
    echo "fuzz.sh: $target found a fault; its input is in build-fuzz/artifacts/" >&2
    status=1
  fi
done
exit $status
