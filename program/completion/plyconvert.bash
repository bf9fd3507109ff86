# Completion of plyconvert for bash.

_plyconvert() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local command=convert options
    if ((COMP_CWORD > 1)); then
        case ${COMP_WORDS[1]} in
        info | verify | view | picture | plan | summary | catalogue | export | normalise) command=${COMP_WORDS[1]} ;;
        esac
    fi
    case $command in
    convert) options='--force --dry-run --quiet --json --allow-loss --threads --max-memory --skip-done --report --strict'
        options+=' --crop --min-opacity --max-scale --scale --opacity --axes --epsg --offset --source --data-type --help' ;;
    info) options='--scan --json --cells --help' ;;
    verify) options='--quick --full --against --json --strict --quiet'
        options+=' --crop --min-opacity --max-scale --scale --opacity --axes --epsg --offset --source --data-type --help' ;;
    view) options='--epsg --port --no-open --write-html --force --help' ;;
    picture) options='--gsd --size --box --background --threads --force --quiet --help' ;;
    plan)
        options='--scan --json --slurm --threads --max-memory --strict'
        options+=' --crop --min-opacity --max-scale --scale --opacity --axes --epsg --offset --source --data-type --help' ;;
    summary) options='--json --help' ;;
    catalogue) options='--base --datetime --force --quiet --help' ;;
    export) options='--cell --force --quiet --help' ;;
    normalise)
        options='--force --quiet --strict'
        options+=' --crop --min-opacity --max-scale --scale --opacity --axes --epsg --offset --source --data-type --help' ;;
    esac
    ((COMP_CWORD > 1)) || options+=' --version'
    COMPREPLY=()
    case $before in
    --base | --cell | --datetime | --port | --gsd | --size | --box | --threads | --max-memory | --crop | --min-opacity | --max-scale | --epsg | --offset | --source | --data-type)
        return ;; # a key, which only the dataset knows, a number or a word
    esac
    case $before in
    --background)
        mapfile -t COMPREPLY < <(compgen -W 'black white' -- "$word")
        return
        ;;
    --scale | --opacity | --axes)
        local values='linear log'
        [[ $before != --opacity ]] || values='linear logit'
        [[ $before != --axes ]] || values='rub rdf'
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
        return
        ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$word"; compgen -f -X '!*.[pPsS][lLpP][yYzZ]' -- "$word")
    if ((COMP_CWORD == 1)); then
        local words
        mapfile -t words < <(compgen -W 'convert info verify view picture plan summary catalogue export normalise' -- "$word")
        COMPREPLY+=("${words[@]}")
    fi
}

complete -F _plyconvert plyconvert
