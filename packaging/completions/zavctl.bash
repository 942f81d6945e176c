# bash completion for zavctl: commands, options, and the keys of the running property service.

_zavctl_keys() {
    # Keys contain neither blanks nor characters that are special to a shell.
    compgen -W "$(zavctl "${host[@]}" keys "$1" 2>/dev/null)" -- "$1"
}

_zavctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} command='' words=0 index word name
    local host=()
    local commands='backup describe diff doctor explain export fleet get help import keys lint list pack provision reset restore set status unpack watch'
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        case $word in
            --host)
                # readline treats = and : as separate words.
                [ "${COMP_WORDS[index + 1]-}" != = ] || ((++index))
                name=${COMP_WORDS[++index]-}
                if [ "${COMP_WORDS[index + 1]-}" = : ]; then
                    name+=:${COMP_WORDS[index + 2]-}
                    ((index += 2))
                fi
                # The current word is part of the broker's address.
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
            provision) options+=' --wait --timeout --log' ;;
            doctor) options+=' --log' ;;
            explain) options+=' --show-secrets --as --catalogue --key --base' ;;
            lint) options+=' --catalogue --as --key --base --offline --rules' ;;
            pack) options+=' --key --to --force --catalogue --dry-run --delete' ;;
            unpack) options+=' --key --to --force --dry-run' ;;
            fleet) options+=' --key --force --catalogue --dry-run --name --errors' ;;
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
        diff | explain | import | backup | restore | lint | pack | unpack | fleet)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            ;;
    esac
}

complete -F _zavctl zavctl
