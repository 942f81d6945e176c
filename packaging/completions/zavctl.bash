# Completion of zavctl for bash: commands, options, and the names of keys as the running property service has them.

_zavctl_keys() {
    # Keys hold no blanks and nothing that a shell would read as more than a letter.
    compgen -W "$(zavctl "${host[@]}" keys "$1" 2>/dev/null)" -- "$1"
}

_zavctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} command='' words=0 index word name
    local host=()
    local commands='backup describe diff export get help import keys list provision reset restore set status watch'
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        case $word in
            --host)
                # To readline, = and : are words of their own.
                [ "${COMP_WORDS[index + 1]-}" != = ] || ((++index))
                name=${COMP_WORDS[++index]-}
                if [ "${COMP_WORDS[index + 1]-}" = : ]; then
                    name+=:${COMP_WORDS[index + 2]-}
                    ((index += 2))
                fi
                # It is the broker that is being written.
                ((index < COMP_CWORD)) || return
                host=(--host "$name")
                ;;
            --host=*) host=("$word") ;;
            -*) ;;
            *) if [ -z "$command" ]; then command=$word; else ((++words)); fi ;;
        esac
    done
    if [[ $cur == -* ]]; then
        local options='--json --host --help'
        case $command in
            '') options+=' --version' ;;
            list | export) options+=' --show-secrets' ;;
            diff) options+=' --show-secrets --all' ;;
            import) options+=' --show-secrets --apply' ;;
            backup) options+=' --force' ;;
            provision) options+=' --wait --timeout' ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    case $command in
        '') mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur") ;;
        help) if [ "$words" -eq 0 ]; then mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur"); fi ;;
        describe | export | get | keys | list | reset | set | watch)
            if [ "$words" -eq 0 ]; then mapfile -t COMPREPLY < <(_zavctl_keys "$cur"); fi
            ;;
        diff | import | backup | restore)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            ;;
    esac
}

complete -F _zavctl zavctl
