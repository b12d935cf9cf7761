#!/usr/bin/env bash
# The check of the layers refuses each kind of violation. Usage: refuses_violations.sh CHECK
set -euo pipefail
check=$1
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
failed=0

# A small tree that keeps the rules.
fresh_tree() {
    rm -rf "${tree:?}"/*
    mkdir -p "$tree"/{plugin,config,engine,datapath,platform/include,platform/vrdipc,agent/host,agent/detector,agent/tests,tests/unit,bench}
    touch "$tree"/platform/include/vrdbase.h "$tree"/engine/qd_client.h \
        "$tree"/platform/vrdipc/frame.h "$tree"/agent/host/host.h "$tree"/plugin/kzemm_work.h \
        "$tree"/plugin/kzemm_data_conv.h "$tree"/config/kzemm_config.h
    echo '#include "engine/qd_client.h"' >"$tree"/datapath/kzemm_gateway.cpp
}

# refuses FILE INCLUDED: FILE may not include INCLUDED.
refuses() {
    fresh_tree
    echo "#include \"$2\"" >>"$tree/$1"
    if output=$("$check" "$tree") || ! grep -qF "$1: " <<<"$output"; then
        echo "not refused: $1 includes $2"
        failed=1
    fi
}

fresh_tree
"$check" "$tree" >/dev/null || { echo "a tree that keeps the rules was refused"; failed=1; }
refuses platform/include/vrdbase.h engine/qd_client.h
refuses engine/qd_client.h vrdbase.h
refuses engine/kzemm_loader.cpp config/kzemm_config.h
refuses config/kzemm_config.cpp plugin/kzemm_data_conv.h
refuses plugin/kzemm_data_conv.cpp engine/qd_client.h
refuses datapath/kzemm_gateway.cpp plugin/kzemm_work.h
refuses plugin/kzemm_work.cpp agent/host/host.h
refuses plugin/kzemm_work.cpp platform/vrdipc/frame.h
refuses plugin/kzemdlmgr.cpp config/kzemm_config.h
refuses platform/vrdipc/frame.cpp engine/qd_client.h
refuses agent/host/main.cpp plugin/kzemm_data_conv.h
refuses agent/host/main.cpp no_such_file.h
refuses agent/detector/event.cpp agent/host/host.h
refuses agent/tests/host_test.cpp plugin/kzemm_work.h
refuses tests/unit/kzemm_work_test.cpp agent/host/host.h
refuses bench/bench_log.cpp agent/host/host.h
refuses plugin/other.cpp vrdbase.h
exit $failed
