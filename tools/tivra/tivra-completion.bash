# bash completion for tivra(1): commands, sim commands, options and their
# values, and node ids, device ids and service names asked of the running
# service and binderd.

# _tivra_ids TIVRA QUERY FIELD: the values of FIELD in `tivra --json QUERY`.
_tivra_ids() {
    "$1" --json "$2" 2>/dev/null | grep -o "\"$3\":\"[^\"]*\"" | cut -d'"' -f4
}

_tivra() {
    local tivra=${COMP_WORDS[0]}
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} prefix=""
    local options="--json --pretty --verbose --help --version"
    local commands="local-device devices local-node node nodes ext udid uuid watch sim services monitor"
    local sim_commands="device-online device-offline node-online node-offline node-changed fault clear-faults
                        counts listeners raw stop"
    local keys="DEVICE_NAME DEVICE_TYPE VERSION_TYPE NETWORK_TYPE CONN_CAP BR_MAC IS_SUPPORT_P2P IS_P2P_ENABLED
                IS_SUPPORT_BLE IS_BLE_ENABLED IS_ACCOUNT_TRUST GROUP_INFO"
    local value_options="--for --code --times --message --service --pid --interface"
    COMPREPLY=()

    # --name=VALUE: bash splits it at "=" (COMP_WORDBREAKS) into "--name",
    # "=" and the value; without that split, the value is what follows "=".
    if [[ $cur == "=" ]]; then
        cur=""
    elif [[ $prev == "=" ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    elif [[ $cur == --*=* ]]; then
        prev=${cur%%=*} prefix="${cur%%=*}=" cur=${cur#*=}
    fi

    # The words before the cursor that are neither options nor their values.
    local words=() i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case " $value_options " in
            *" ${COMP_WORDS[i]} "*)
                ((i++))
                [[ ${COMP_WORDS[i]} == "=" ]] && ((i++))
                continue ;;
        esac
        case ${COMP_WORDS[i]} in
            -* | =) ;;
            *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    local candidates="" value=""
    case $prev in
        --for) value=1 candidates="500ms 10s 1m 1h" ;;
        --service) value=1 candidates=$("$tivra" services 2>/dev/null) ;;
        --interface)
            value=1 candidates="IDeviceMonitorService IDeviceChangeListener IDeviceListener IMonitorControl
                                IServiceManager IServiceCallback" ;;
        --code | --times | --message | --pid) return ;;
    esac
    if [[ -n $value ]]; then
        mapfile -t COMPREPLY < <(compgen -P "$prefix" -W "$candidates" -- "$cur")
        return
    fi

    if [[ $cur == -* ]]; then
        case "${words[0]:-}:${words[1]:-}" in
            watch:*) options+=" --for" ;;
            monitor:*) options+=" --for --service --pid --interface --oneway --twoway" ;;
            sim:fault) options+=" --code --times --message" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    case "${#words[@]}:${words[0]:-}:${words[1]:-}" in
        0::) candidates=$commands ;;
        1:sim:) candidates=$sim_commands ;;
        1:node:* | 1:ext:* | 1:udid:* | 1:uuid:* | 2:sim:node-offline | 2:sim:node-changed)
            candidates="$(_tivra_ids "$tivra" nodes nodeId) $(_tivra_ids "$tivra" local-node nodeId)" ;;
        2:sim:device-offline) candidates=$(_tivra_ids "$tivra" devices id) ;;
        2:ext:*) candidates=$keys ;;
        2:sim:fault)
            # The methods as `tivra sim fault --help` lists them.
            candidates=$("$tivra" sim fault --help 2>/dev/null | sed -n '/^METHOD is one of:$/,/^$/{/^ /p}') ;;
        3:sim:node-changed) candidates="1 2 3" ;;
        3:sim:fault) candidates="exception transport refuse corruptReply" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
}

complete -F _tivra tivra
