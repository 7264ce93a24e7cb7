# bash completion for fwforge-lzh: its commands c and d, their options, and file names
# for INPUT and OUTPUT. Installed as share/bash-completion/completions/fwforge-lzh.

_fwforge_lzh()
{
    local cur prev words cword
    _init_completion || return

    local command="" i
    for ((i = 1; i < cword; i++)); do
        if [[ ${words[i]} != -* ]]; then
            command=${words[i]}
            break
        fi
    done

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            COMPREPLY=($(compgen -W '--help --version' -- "$cur"))
        else
            COMPREPLY=($(compgen -W 'c d' -- "$cur"))
        fi
        return
    fi
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '--help' -- "$cur"))
        return
    fi
    local operand=0
    for ((i++; i < cword; i++)); do
        [[ ${words[i]} != -* ]] && ((operand++))
    done
    ((operand < 2)) && _filedir
} &&
    complete -F _fwforge_lzh fwforge-lzh
