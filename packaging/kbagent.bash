# Completion of kbagent's commands and options in bash. The words come from the program's own --help, so that they can't
# fall behind.
_kbagent() {
    local program=${COMP_WORDS[0]} command=() words i
    [[ " ${COMP_WORDS[*]:1:COMP_CWORD-1} " != *" -- "* ]] || return 0
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            --log | --debug) ((++i)) ;;
            -r | --repo | --repository-file | -p | --password-file | --password-command | --key-hint | --retry-lock | \
                --cache-dir | --cacert | --tls-pin | -o | --option | --limit-upload | --limit-download) ((++i)) ;;
            -*) ;;
            *)
                command+=("${COMP_WORDS[i]}")
                # These alone have commands of their own.
                [[ ${command[*]} == service || ${command[*]} == key || ${command[*]} == repair ||
                    ${command[*]} == job ]] || break
                ;;
        esac
    done
    words=$("$program" "${command[@]}" --help 2>/dev/null | awk '
        /^[A-Z][a-z]*:/ { section = $1 }
        section == "Subcommands:" && /^  [a-z]/ { print $1 }
        /^  -/ { n = split($1, names, ","); for (i = 1; i <= n; ++i) if (names[i] ~ /^--/) print names[i] }')
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _kbagent kbagent
