# Completion of plyconvert for bash.

_plyconvert() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command=convert options
    if ((COMP_CWORD > 1)); then
        case ${COMP_WORDS[1]} in
        info | verify | export | view) command=${COMP_WORDS[1]} ;;
        esac
    fi
    case $command in
    convert) options='--force --dry-run --quiet --json --allow-loss --threads --max-memory --help' ;;
    info) options='--scan --json --cells --help' ;;
    verify) options='--quick --full --against --json --strict --quiet --help' ;;
    export) options='--cell --force --quiet --help' ;;
    view) options='--port --no-open --write-html --force --help' ;;
    esac
    ((COMP_CWORD > 1)) || options+=' --version'
    COMPREPLY=()
    case $before in
    --cell | --port | --threads | --max-memory) return ;; # a key, which only the dataset knows, or a number
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$word"; compgen -f -X '!*.[pP][lL][yY]' -- "$word")
    if ((COMP_CWORD == 1)); then
        local words
        mapfile -t words < <(compgen -W 'convert info verify export view' -- "$word")
        COMPREPLY+=("${words[@]}")
    fi
}

complete -F _plyconvert plyconvert
