#!/usr/bin/env bash
# zel-tc's bash completion, driven as bash drives it: COMP_WORDS and COMP_CWORD set, the
# completion function called, COMPREPLY read.
#
#   completion_test.sh COMPLETION_SCRIPT ZEL_TC
set -uo pipefail
script=$1
bin_dir=$(cd "$(dirname "$2")" && pwd)
export PATH="$bin_dir:$PATH"
# shellcheck source=/dev/null
source "$script"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/report.xml" "$work/repro-1.txt"
cd "$work" || exit 1

failures=0
# expect "WANTED COMPLETIONS" WORD... : the words typed so far, the last being completed.
expect() {
    local wanted=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _zel_tc
    local got="${COMPREPLY[*]}"
    if [ "$got" != "$wanted" ]; then
        echo "completion: '$*' gave '$got', wanted '$wanted'" >&2
        failures=$((failures + 1))
    fi
}

[ "$(complete -p zel-tc)" = "complete -F _zel_tc zel-tc" ] || {
    echo "completion: the script does not register _zel_tc for zel-tc" >&2
    failures=$((failures + 1))
}
expect "list run vault fuzz replay helper bench" zel-tc ""
expect "--stop-on-failure" zel-tc run --st
expect "zel_getHash zel_getHubID zel_getHackInfo" zel-tc run zel_getH
expect "bist" zel-tc bench --count 5 bis
expect "auto always never" zel-tc run --color ""
expect "zel_test zel_test_a" zel-tc fuzz --uuid zel
# A value that is a number or a name gets no file names; a report's path does.
expect "" zel-tc run --index ""
expect "report.xml" zel-tc run --all --junit repo
expect "repro-1.txt" zel-tc replay repr
# Nested subcommands, each with its own options.
expect "fail fail-session fail-alloc" zel-tc vault fai
expect "--cmd --count" zel-tc vault stall --c

if [ "$failures" -ne 0 ]; then
    echo "completion: $failures case(s) failed" >&2
    exit 1
fi
echo "completion: every case completed as wanted"
