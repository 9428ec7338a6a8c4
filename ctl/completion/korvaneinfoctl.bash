# bash completion for korvaneinfoctl

# __korvaneinfoctl_names PATTERN: names of the running daemon's items whose access fits, as short as is unique.
__korvaneinfoctl_names() {
    "${COMP_WORDS[0]}" --no-autostart --no-legend "${target[@]}" list 2>/dev/null | awk -v access_pattern="$1" '
        { count[$3]++; name[NR] = $3; access[NR] = $5; full[NR] = ($1 == "/" ? "" : $1) "/" $2 "/" $3 }
        END {
            for (i = 1; i <= NR; i++)
                if (access[i] ~ access_pattern)
                    print count[name[i]] == 1 ? name[i] : full[i]
        }'
}

_korvaneinfoctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= operands=0 target=() word i
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
        -H | --host | -M | --machine) target+=("$word" "${COMP_WORDS[++i]}") ;;
        --root | --salvage | --wait) ((++i)) ;;
        -*) ;;
        *) if [ -z "$command" ]; then command=$word; else ((++operands)); fi ;;
        esac
    done

    local words= options='--host --machine --no-autostart --json --no-legend --full --help --version'
    [ "$command" != check ] || options='--json --werror --root --no-values --salvage --wait --help'
    case $previous:$command:$operands:$current in
    -H:* | --host:*) words=$(compgen -A hostname -- "$current") ;;
    -M:* | --machine:*) words=$(machinectl --no-legend --no-pager list 2>/dev/null | awk '{ print $1 }') ;;
    --root:*) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    --salvage:*) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --wait:*) ;;
    *:-*) words=$options ;;
    *::*) words='list get set watch check' ;;
    *:get:* | *:watch:*) words=$(__korvaneinfoctl_names read) ;;
    *:set:0:*) words=$(__korvaneinfoctl_names write) ;;
    *:check:*) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _korvaneinfoctl korvaneinfoctl
