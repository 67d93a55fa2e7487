# bash completion for zoproject: commands, their options, format names, then files.
_zoproject()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="status diff recover pack unpack ls meta watch demo help"
    local formats="zop dir tar tar.gz tgz tar.bz2 tbz2 tar.xz txz tar.zst tzst zip 7z"

    case $previous in
    --format)
        mapfile -t COMPREPLY < <(compgen -W "$formats" -- "$current")
        return
        ;;
    -C)
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    --interval | --workspace | --exclude)
        return
        ;;
    esac

    # The command is the first word that is neither an option nor the directory of -C.
    local command="" word at
    for ((at = 1; at < COMP_CWORD; at++)); do
        word=${COMP_WORDS[at]}
        if [[ $word == -C ]]; then
            ((at++))
        elif [[ $word != -* ]]; then
            command=$word
            break
        fi
    done

    local options="-h --help"
    case $command in
    "") options+=" -v --version -C" ;;
    status) options+=" --json" ;;
    recover) options+=" --all --abandon --dry-run --force --overwrite --workspace" ;;
    pack) options+=" --format --exclude -q --quiet" ;;
    unpack) options+=" --format -f --force -k --keep-old-files -q --quiet" ;;
    ls) options+=" --json" ;;
    meta) options+=" --json -q --quiet" ;;
    watch) options+=" --interval --hidden --json" ;;
    help)
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
        return
        ;;
    esac

    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames 2>/dev/null
    fi
}
complete -F _zoproject zoproject
