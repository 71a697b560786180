# Completion of velmor for bash. Works with and without the package bash-completion.

_velmor_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_velmor_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_velmor() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local common='--servers --election --root --session-timeout --connect-timeout --digest-file --log-level
        --log-format --config --help --version'
    local subcommand='' mark=0 i
    COMPREPLY=()

    # Bash takes "--restart=never" apart.
    if [[ $cur == '=' ]]; then
        cur=''
    elif [[ $prev == '=' ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            --)
                mark=$i
                break
                ;;
            run | status | watch | demo)
                # Not what an option takes.
                [[ ${COMP_WORDS[i - 1]} == @(--*|=) || $subcommand ]] || subcommand=${COMP_WORDS[i]}
                ;;
        esac
    done

    if ((mark)); then
        [[ $subcommand == run ]] || return
        if declare -F _command_offset >/dev/null; then
            _command_offset $((mark + 1))
        elif ((COMP_CWORD == mark + 1)); then
            mapfile -t COMPREPLY < <(compgen -c -- "$cur")
        else
            _velmor_files "$cur"
        fi
        return
    fi

    case $prev in
        --restart)
            _velmor_words 'never on-failure always' "$cur"
            return
            ;;
        --log-level)
            _velmor_words 'debug info warning error off' "$cur"
            return
            ;;
        --log-format)
            _velmor_words 'text json' "$cur"
            return
            ;;
        --config | --digest-file | --role-file)
            _velmor_files "$cur"
            return
            ;;
        --on-next | --on-lost)
            mapfile -t COMPREPLY < <(compgen -c -- "$cur")
            return
            ;;
        --servers | --election | --root | --session-timeout | --connect-timeout | --identity | --grace | --wait | --http)
            return
            ;;
    esac

    case $subcommand in
        run) _velmor_words "--identity --grace --wait --restart --on-next --on-lost --standby --role-file --http
            $common --" "$cur" ;;
        status) _velmor_words "--json $common" "$cur" ;;
        watch) _velmor_words "--json --live $common" "$cur" ;;
        demo) _velmor_words "$common" "$cur" ;;
        *) if [[ $cur == -* ]]; then
            _velmor_words "$common" "$cur"
        else
            _velmor_words 'run status watch demo' "$cur"
        fi ;;
    esac
}

complete -F _velmor velmor
