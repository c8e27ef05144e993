# bash completion for tarn, made by tarn_docgen from the tool's command table.
_tarn() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD-1]}
    COMPREPLY=()
    if [[ $COMP_CWORD -eq 1 ]]; then
        COMPREPLY=($(compgen -W "demo serve connect call sub impair bridge version help --help -h --version -V" -- "$cur"))
        return
    fi
    case ${COMP_WORDS[1]} in
        demo)
            case $prev in
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tls --help -h --version -V --log-level" -- "$cur"))
            fi
            ;;
        serve)
            case $prev in
                --bind|-b)
                    return ;;
                --port|-p)
                    return ;;
                --allow-send)
                    COMPREPLY=($(compgen -W "realtime reliable realtime,reliable" -- "$cur"))
                    return ;;
                --allow-receive)
                    COMPREPLY=($(compgen -W "realtime reliable realtime,reliable" -- "$cur"))
                    return ;;
                --cert)
                    return ;;
                --key)
                    return ;;
                --ca)
                    return ;;
                --max-connections)
                    return ;;
                --max-per-address)
                    return ;;
                --max-new-per-second)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tcp --eudp --bind -b --port -p --json -j --allow-send --allow-receive --tls --cert --key --ca --require-client-cert --hardened --max-connections --max-per-address --max-new-per-second --help -h --version -V --log-level" -- "$cur"))
            fi
            ;;
        connect)
            case $prev in
                --allow-send)
                    COMPREPLY=($(compgen -W "realtime reliable realtime,reliable" -- "$cur"))
                    return ;;
                --allow-receive)
                    COMPREPLY=($(compgen -W "realtime reliable realtime,reliable" -- "$cur"))
                    return ;;
                --wait|-w)
                    return ;;
                --cert)
                    return ;;
                --key)
                    return ;;
                --ca)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tcp --eudp --json -j --allow-send --allow-receive --wait -w --tls --cert --key --ca --insecure --hardened --help -h --version -V --log-level" -- "$cur"))
            else
                COMPREPLY=($(compgen -A hostname -- "$cur"))
            fi
            ;;
        call)
            case $prev in
                --wait|-w)
                    return ;;
                --cert)
                    return ;;
                --key)
                    return ;;
                --ca)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tcp --eudp --reliable -r --wait -w --tls --cert --key --ca --insecure --hardened --help -h --version -V --log-level" -- "$cur"))
            else
                COMPREPLY=($(compgen -A hostname -- "$cur"))
            fi
            ;;
        sub)
            case $prev in
                --count|-c)
                    return ;;
                --timeout|-t)
                    return ;;
                --wait|-w)
                    return ;;
                --cert)
                    return ;;
                --key)
                    return ;;
                --ca)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tcp --eudp --reliable -r --json -j --count -c --timeout -t --wait -w --tls --cert --key --ca --insecure --hardened --help -h --version -V --log-level" -- "$cur"))
            else
                COMPREPLY=($(compgen -A hostname -- "$cur"))
            fi
            ;;
        impair)
            case $prev in
                --listen)
                    return ;;
                --bind|-b)
                    return ;;
                --to)
                    return ;;
                --loss)
                    return ;;
                --dup)
                    return ;;
                --reorder)
                    return ;;
                --delay)
                    return ;;
                --jitter)
                    return ;;
                --seed)
                    return ;;
                --duration)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--listen --bind -b --to --loss --dup --reorder --delay --jitter --seed --data-only --duration --help -h --version -V --log-level" -- "$cur"))
            fi
            ;;
        bridge)
            case $prev in
                --device)
                    return ;;
                --sub)
                    return ;;
                --sub-file)
                    return ;;
                --broker)
                    return ;;
                --topic-root)
                    return ;;
                --name)
                    return ;;
                --qos)
                    COMPREPLY=($(compgen -W "0 1 2" -- "$cur"))
                    return ;;
                --config)
                    return ;;
                --client-id)
                    return ;;
                --username)
                    return ;;
                --password)
                    return ;;
                --cafile)
                    return ;;
                --capath)
                    return ;;
                --cert)
                    return ;;
                --key)
                    return ;;
                --keepalive)
                    return ;;
                --retry-max)
                    return ;;
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--device --sub --sub-file --broker --topic-root --name --raw --qos --json --config --client-id --username --password --cafile --capath --cert --key --tls-insecure --keepalive --retry-max --help -h --version -V --log-level" -- "$cur"))
            fi
            ;;
        version)
            case $prev in
                --log-level)
                    COMPREPLY=($(compgen -W "none error warning info debug" -- "$cur"))
                    return ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--help -h --version -V --log-level" -- "$cur"))
            fi
            ;;
        help)
            if [[ $COMP_CWORD -eq 2 ]]; then
                COMPREPLY=($(compgen -W "demo serve connect call sub impair bridge version help" -- "$cur"))
            fi
            return ;;
    esac
}
complete -F _tarn tarn
