#!/bin/sh
# Runs libzel-tc-lib's test plan through zel-tc on the device under test and reports every step to
# LAVA as it ends. Without the LAVA helpers (run by hand on a board) it prints what it would report.
# Exits with zel-tc's own exit code.
#
# Only POSIX sh, awk and sed: a device's rootfs may have no python3 or jq. zel-tc's --results
# stream is one flat JSON object per line whose string values are names, numbers and fixed words
# that never hold a quote, so a pattern per key reads it.

set -u
set -f  # step patterns such as 'zel_get*' go to zel-tc, not to the shell

STEPS="--all"
REPEAT="1"
TIMEOUT="120"
EXTRA_ARGS=""
ZEL_TC="zel-tc"
OUTPUT="$(pwd)/output"

usage() {
    echo "Usage: $0 [-s steps] [-r repeat] [-t timeout-seconds] [-e extra-zel-tc-arguments]" >&2
    echo "          [-z zel-tc] [-o output-dir]" >&2
    exit 2
}

while getopts "s:r:t:e:z:o:h" option; do
    case "$option" in
        s) STEPS="$OPTARG" ;;
        r) REPEAT="$OPTARG" ;;
        t) TIMEOUT="$OPTARG" ;;
        e) EXTRA_ARGS="$OPTARG" ;;
        z) ZEL_TC="$OPTARG" ;;
        o) OUTPUT="$OPTARG" ;;
        *) usage ;;
    esac
done

mkdir -p "$OUTPUT" || exit 2
RESULTS="$OUTPUT/zel-tc-results.jsonl"
JUNIT="$OUTPUT/zel-tc-junit.xml"
JSON="$OUTPUT/zel-tc.json"
FINISHED="$OUTPUT/zel-tc-exit-code"
rm -f "$RESULTS" "$FINISHED"
: > "$RESULTS"

if command -v lava-test-case > /dev/null 2>&1; then LAVA=yes; else LAVA=no; fi

lava() {
    if [ "$LAVA" = yes ]; then
        "$@"
    else
        echo "$* (LAVA helpers absent: not reported)"
    fi
}

# One step record per output line: record|case|round|verdict|seconds|result|result_name|reason.
to_fields() {
    awk '
    function field(key,    pattern, value) {
        pattern = "\"" key "\":(\"[^\"]*\"|[^,}]*)"
        if (!match($0, pattern)) return ""
        value = substr($0, RSTART + length(key) + 3, RLENGTH - length(key) - 3)
        gsub(/"/, "", value)
        return value == "null" ? "" : value
    }
    { print field("record") "|" field("case") "|" field("round") "|" field("verdict") "|" \
            field("seconds") "|" field("result") "|" field("result_name") "|" field("reason") }'
}

reported=0
current_set=""

report_new_records() {
    total=$(wc -l < "$RESULTS")
    # wc counts finished lines only: a record still being written waits for the next call.
    [ "$total" -gt "$reported" ] || return 0
    sed -n "$((reported + 1)),${total}p" "$RESULTS" | to_fields > "$OUTPUT/zel-tc-batch"
    while IFS='|' read -r record name round verdict seconds result result_name reason; do
        if [ "$record" = run ]; then
            # printf: the record is JSON, whose backslashes echo would take as escapes.
            printf 'zel-tc device identity: %s\n' "$(sed -n 1p "$RESULTS")"
            continue
        fi
        if [ "$REPEAT" -gt 1 ] && [ "round-$round" != "$current_set" ]; then
            [ -n "$current_set" ] && lava lava-test-set stop
            current_set="round-$round"
            lava lava-test-set start "$current_set"
        fi
        case "$verdict" in
            PASS) outcome=pass ;;
            SKIP) outcome=skip ;;
            *) outcome=fail ;;
        esac
        case "$verdict" in
            HUNG | CRASHED) echo "zel-tc: $name $verdict: $reason" ;;
            FAIL) echo "zel-tc: $name FAIL: result $result $result_name" ;;
        esac
        lava lava-test-case "$name" --result "$outcome" --measurement "$seconds" --units seconds
    done < "$OUTPUT/zel-tc-batch"
    reported=$total
}

print_report() {
    [ -s "$2" ] || return 0
    echo "===== BEGIN zel-tc $1 report ($2) ====="
    cat "$2"
    echo "===== END zel-tc $1 report ====="
}

# shellcheck disable=SC2086  # STEPS and EXTRA_ARGS are word lists on purpose
( "$ZEL_TC" run $STEPS --repeat "$REPEAT" --timeout "$TIMEOUT" --results "$RESULTS" \
      --junit "$JUNIT" --json "$JSON" $EXTRA_ARGS
  echo "$?" > "$FINISHED" ) &
runner=$!

# Steps are reported while the plan runs, so that a job cut short by LAVA's own timeout still
# has every step that ended.
while [ ! -s "$FINISHED" ]; do
    report_new_records
    sleep 1
done
wait "$runner"
report_new_records
[ -n "$current_set" ] && lava lava-test-set stop

print_report JUnit "$JUNIT"
print_report JSON "$JSON"
code=$(cat "$FINISHED")
echo "zel-tc exit code: $code"
exit "$code"
