# bash completion for fwforge-inspect: its commands, each command's options, and file
# names (folders for the DIR of extract) where a command takes them. Installed as
# share/bash-completion/completions/fwforge-inspect, which bash-completion loads the first
# time the command is completed; `source` it to try it from the repository.

_fwforge_inspect()
{
    local cur prev words cword split
    _init_completion -s || return

    # Before the command come only --help and --version, so the first word that is no
    # option is the command.
    local command="" i
    for ((i = 1; i < cword; i++)); do
        if [[ ${words[i]} != -* ]]; then
            command=${words[i]}
            break
        fi
    done

    case $prev in
        --bbsize | --module | --budget)
            return
            ;;
        --html | --file)
            _filedir
            return
            ;;
        --out)
            _filedir -d
            return
            ;;
    esac
    $split && return

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W '--help --version' -- "$cur"))
        else
            COMPREPLY=($(compgen -W 'list verify extract map diff replace plan' -- "$cur"))
        fi
        return
    fi

    if [[ $cur == -* ]]; then
        local options="--16 --32 --bbsize --help"
        case $command in
            list | verify) options+=" --json" ;;
            map) options+=" --html" ;;
            replace) options+=" --module --file --as-is" ;;
            plan) options="--out -c --json --budget --help" ;;
        esac
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
    fi

    # Which operand is being typed: options and the values of those that take one do
    # not count.
    local operand=0
    for ((i++; i < cword; i++)); do
        case ${words[i]} in
            --bbsize | --module | --html | --file | --out | --budget) ((i++)) ;;
            -*) ;;
            *) ((operand++)) ;;
        esac
    done
    case $command:$operand in
        list:0 | verify:0 | map:0 | diff:[01] | replace:[01] | extract:0 | plan:0) _filedir ;;
        extract:1) _filedir -d ;;
    esac
} &&
    complete -F _fwforge_inspect fwforge-inspect
