# bash completion for tivra(1): commands, sim commands, options, and node ids
# and service names asked of the running service and binderd.

_tivra_node_ids() {
    local tivra=$1
    { "$tivra" --json nodes; "$tivra" --json local-node; } 2>/dev/null |
        grep -o '"nodeId":"[^"]*"' | cut -d'"' -f4
}

_tivra() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local options="--json --pretty --verbose --help --version"
    local commands="local-device devices local-node node nodes ext udid uuid watch sim services monitor"
    local sim_commands="device-online device-offline node-online node-offline node-changed fault clear-faults
                        counts listeners raw stop"
    local keys="DEVICE_NAME DEVICE_TYPE VERSION_TYPE NETWORK_TYPE CONN_CAP BR_MAC IS_SUPPORT_P2P IS_P2P_ENABLED
                IS_SUPPORT_BLE IS_BLE_ENABLED IS_ACCOUNT_TRUST GROUP_INFO"
    COMPREPLY=()

    # The words before the cursor that are neither options nor their values.
    local words=() i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --for | --code | --times | --message | --service | --pid | --interface) ((i++)) ;;
            -*) ;;
            *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    case $prev in
        --for) mapfile -t COMPREPLY < <(compgen -W "500ms 10s 1m" -- "$cur"); return ;;
        --service) mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" services 2>/dev/null)" -- "$cur"); return ;;
        --interface)
            mapfile -t COMPREPLY < <(compgen -W "IDeviceMonitorService IDeviceChangeListener IDeviceListener" -- "$cur")
            return ;;
        --code | --times | --message | --pid) return ;;
    esac

    if [[ $cur == -* ]]; then
        case "${words[0]:-}:${words[1]:-}" in
            watch:*) options+=" --for" ;;
            monitor:*) options+=" --for --service --pid --interface --oneway --twoway" ;;
            sim:fault) options+=" --code --times --message" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    local candidates=""
    case "${#words[@]}:${words[0]:-}:${words[1]:-}" in
        0::) candidates=$commands ;;
        1:sim:) candidates=$sim_commands ;;
        1:node:* | 1:ext:* | 1:udid:* | 1:uuid:* | 2:sim:node-offline | 2:sim:node-changed)
            candidates=$(_tivra_node_ids "${COMP_WORDS[0]}") ;;
        2:ext:*) candidates=$keys ;;
        3:sim:node-changed) candidates="1 2 3" ;;
        3:sim:fault) candidates="exception transport refuse corruptReply" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
}

complete -F _tivra tivra
