#!/usr/bin/env bash
# Who may include whom. Usage: check_includes.sh ROOT
# Prints each include that crosses a layer the wrong way; exit status 1 when there is one.
set -euo pipefail
cd "$1"

# The layers that a file may include from, as extended regular expressions over paths of the
# repository; a file is judged by the first rule that matches it.
layers_of() {
    local platform='platform/include/[^/]+'
    local leaf='plugin/kzemm_(data_conv|fileoperate|command|platform)\.h'
    local contracts='(engine/(qd_client|module_header)|datapath/mbframe|config/kzacfgc_api)\.h'
    local messages='[^/]+\.pb\.h'
    case $1 in
        engine/qd_client.h | engine/module_header.h | datapath/mbframe.h | config/kzacfgc_api.h | \
            config/kzemm_switch.h | platform/include/*)
            echo '^$' ;;
        plugin/kzemm_command.h) echo '^(config/kzemm_switch|engine/qd_client)\.h$' ;;
        plugin/kzemm_data_conv.* | plugin/kzemm_fileoperate.* | plugin/kzemm_platform.h)
            echo "^($platform|$leaf|engine/module_header\.h)$" ;;
        engine/*) echo "^($platform|engine/[^/]+)$" ;;
        config/*) echo "^($platform|config/[^/]+)$" ;;
        datapath/* | upgrade/*)
            echo "^($platform|$leaf|$messages|(engine|config|datapath|upgrade)/[^/]+)$" ;;
        plugin/kzemm_work* | plugin/kzemm_drive_switch*)
            echo "^($platform|$messages|(engine|config|datapath|upgrade|plugin)/[^/]+)$" ;;
        plugin/kzemdlmgr.*)
            echo "^($platform|plugin/(kzemdlmgr|kzemm_work)\.h|engine/kzemm_loader\.h|datapath/kzemm_invoke\.h)$" ;;
        platform/*) echo '^platform/.+$' ;;
        agent/detector/*) echo "^($platform|$messages|agent/(detector|common)/.+)$" ;;
        agent/tests/* | agent/bench/*)
            echo "^($platform|platform/common/descriptor\.h|$contracts|$messages|tests/support/[^/]+|agent/.+)$" ;;
        agent/*) echo "^($platform|platform/common/descriptor\.h|$contracts|$messages|agent/.+)$" ;;
        tests/* | bench/*)
            echo "^($platform|$messages|(plugin|config|engine|datapath|upgrade|platform|tests|bench)/.+)$" ;;
        *) echo 'no rule' ;;
    esac
}

# Sets target to the repository's path of what a file includes by a name in quotes; to nothing when
# that is nothing of ours.
resolve() {
    local candidate
    for candidate in "${1%/*}/$2" "platform/include/$2" "$2"; do
        if [ -f "$candidate" ]; then
            target=$candidate
            [[ $candidate != *..* ]] || target=$(realpath --relative-to=. "$candidate")
            return
        fi
    done
    target=
    case $2 in *.pb.h) target=${2##*/} ;; esac
}

status=0
checked=0
while read -r file; do
    rule=$(layers_of "$file")
    if [ "$rule" = 'no rule' ]; then
        echo "$file: no rule says what it may include; add one to ${BASH_SOURCE[0]##*/}"
        status=1
        continue
    fi
    checked=$((checked + 1))
    while read -r name; do
        resolve "$file" "$name"
        if [ -z "$target" ]; then
            echo "$file: includes \"$name\", which is no file of ours; use <> for others'"
            status=1
        elif [[ ! $target =~ $rule ]]; then
            echo "$file: must not include $target"
            status=1
        fi
    done < <(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+)".*/\1/p' "$file")
done < <(find plugin config engine datapath upgrade platform agent tests bench \
    \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort)

if [ "$checked" -eq 0 ]; then
    echo "no source was found below $1"
    status=1
fi
[ $status -ne 0 ] || echo "$checked files include only what their layer may"
exit $status
