# bash completion for zel-tc. Subcommands and options come from the program's own --help and
# step names from `zel-tc list`, so the completion is always that of the zel-tc being run.

# The long options of one --help: "--name" for a flag, "--name=" for one that takes a value.
_zel_tc_options() {
    "$@" --help 2>/dev/null | awk '
        /^[A-Za-z]/ { section = $0 }
        section == "Options:" && /^ +-/ {
            n = split($1, names, ",")
            for (i = 1; i <= n; i++)
                if (names[i] ~ /^--/) print names[i] ($2 ~ /^[A-Z]/ ? "=" : "")
        }'
}

_zel_tc_subcommands() {
    "$@" --help 2>/dev/null | awk '
        /^[A-Za-z]/ { section = $0; next }
        section == "Subcommands:" && /^  [^ ]/ { print $1 }'
}

_zel_tc() {
    local program=${COMP_WORDS[0]} cur=${COMP_WORDS[COMP_CWORD]} prev=""
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()

    # The subcommand path so far: each word that is a subcommand of the path before it.
    local -a path=()
    local i word subcommands
    subcommands=$(_zel_tc_subcommands "$program")
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ " ${subcommands//$'\n'/ } " == *" $word "* ]]; then
            path+=("$word")
            subcommands=$(_zel_tc_subcommands "$program" "${path[@]}")
        fi
    done

    local options
    options=$(_zel_tc_options "$program" "${path[@]}")
    if [[ $prev == --* && $'\n'$options$'\n' == *$'\n'"$prev="$'\n'* ]]; then
        case $prev in
            --color) mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$cur") ;;
            --uuid) mapfile -t COMPREPLY < <(compgen -W "zel_test zel_test_a" -- "$cur") ;;
            --junit | --json | --results | --baseline | --storage | --socket | --vaultd | --out | \
                --transcript)
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$cur")
                ;;
        esac
        return 0
    fi
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${options//=/}" -- "$cur")
        return 0
    fi
    if [[ -n $subcommands ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$cur")
    elif [[ ${path[*]} == run || ${path[*]} == bench ]]; then
        local steps
        steps=$("$program" list 2>/dev/null | awk '$1 ~ /^[0-9]+$/ { print $2 }')
        mapfile -t COMPREPLY < <(compgen -W "$steps" -- "$cur")
    elif [[ ${path[*]} == replay ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
    return 0
}

complete -F _zel_tc zel-tc
