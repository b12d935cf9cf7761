#!/usr/bin/env bash
# The tour of ./run --demo: plays in the tree it is given, checks what it sees, and stops what it
# started. Exit status 0 only when everything held.
set -Eeuo pipefail

if [ $# -ne 1 ] || [ ! -x "$1/bin/kzectl" ]; then
    echo "Usage: tour.sh TREE   (an agent's tree: a directory with bin/kzectl)" >&2
    exit 2
fi
# shellcheck source=agent/demo/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
# shellcheck source=agent/demo/tour_credible.sh
source "$(dirname "${BASH_SOURCE[0]}")/tour_credible.sh"
# shellcheck source=agent/demo/tour_packs.sh
source "$(dirname "${BASH_SOURCE[0]}")/tour_packs.sh"
# shellcheck source=agent/demo/tour_requests.sh
source "$(dirname "${BASH_SOURCE[0]}")/tour_requests.sh"

tree=$(cd "$1" && pwd)
kzectl=$tree/bin/kzectl
unset KZE_AGENT_HOME
work=$(mktemp -d "${TMPDIR:-/tmp}/kze-tour.XXXXXX")
begun=$SECONDS

# Whatever happens: nothing is left running, no file is left behind.
finish() {
    local status=$?
    trap '' INT TERM HUP PIPE # nobody may be left to read
    trap - EXIT
    [ -z "$waiting_pid" ] || kill "$waiting_pid" 2>/dev/null || true
    "$kzectl" down --timeout 10 >"$work/down" 2>&1 || status=1
    rm -rf "$work"
    if [ $status -eq 0 ]; then
        printf '\n%sAll held:%s %d steps, %d checks, %d s. Logs and journal: %s/var\n' \
            "$good" "$plain" "$steps" "$checks" $((SECONDS - begun)) "$tree" || true
    else
        printf '\n%sThe tour did not hold%s in step %d after %d checks. Logs and journal: %s/var\n' \
            "$bad" "$plain" "$steps" "$checks" "$tree" || true
    fi
    exit $status
}
trap finish EXIT
trap 'note "line $LINENO of the tour failed"' ERR
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# mark [WHICH]: where a log ends now.
mark() { "$kzectl" log mark "$@"; }
record_mark() { "$kzectl" gateway mark; }
capabilities() { "$kzectl" engine status | sed -n '/^Capabilities/,/^[A-Z]/p' | grep '^ ' ; }
# row NAME: a row of "gateway show", without its name.
row() { sed -nE "s/^$1 +//p" "$work/record" | head -n 1; }

start_of_the_agent() {
    step 'The agent starts'
    "$kzectl" config unset /mgr/base_collect /adv_threats >"$work/out"
    "$kzectl" config unset /mgr/base_collect /enable_actioninfo >"$work/out"
    expect 'the host loads the plug-in and its init succeeds'
    see "$kzectl" up --fresh
    expect "the engine's client comes online"
    see_log 'x_client status 1' 0 20
}

capabilities_follow_configuration() {
    step 'Capabilities follow central configuration'
    note '/mgr/base_collect /adv_threats is not set yet: the plug-in switches everything off'
    note 'and reads again every 5 seconds.'
    expect 'the configuration can not be read, and a retry is armed'
    see_log 'get cfgc switch failed, start retry' 0 10
    expect 'every capability of the engine is off'
    capabilities >"$work/before"
    show cat "$work/before"
    ! grep -qw on "$work/before" || missed 'a capability is on'
    saw 'all off'

    local from
    from=$(mark)
    note 'kzectl config set: /enable_actioninfo true, /adv_threats true'
    "$kzectl" config set /mgr/base_collect /enable_actioninfo true >"$work/out"
    "$kzectl" config set /mgr/base_collect /adv_threats true >"$work/out"
    expect 'the next read succeeds and the engine takes the new states'
    see_log 'set engine switch success, stop timer' "$from" 15
    see_log 'set engine switch, on[2], off[1]' "$from" 15
    expect 'collect, IOC, IOA, MD, reverse shell and detection analysis are on'
    capabilities >"$work/after"
    show cat "$work/after"
    local on
    on=$(grep -owc on <(tr -s ' ' '\n' <"$work/after"))
    [ "$on" -eq 6 ] || missed "$on capabilities are on instead of 6"
    saw '6 are on'
}

origin_data_reaches_the_gateway() {
    step "This host's processes reach the gateway"
    expect "origin data, compressed, with this tour's own shell (process $$) in it"
    local from bus_from id
    from=$(record_mark)
    bus_from=$("$kzectl" bus mark)
    "$kzectl" engine origin-now >"$work/out"
    run_waiting "$kzectl" gateway wait --type origin --after "$from" --contains "\"pid\":$$," \
        --timeout 30 || missed "$(tail -n 1 "$work/err")"
    id=$(cat "$work/out")
    "$kzectl" gateway show "$id" >"$work/record"
    saw "record $id, with process $$ in it"
    saw "$(row Processes) processes"
    saw "raw $(row Raw)"
    expect 'the message bus gets the same data, uncompressed'
    published origin "$bus_from" "\"size\":$(row Raw | sed -E 's/^[^(]*\(([0-9]+) bytes\).*/\1/'),"
}

# published EVENT MARK PART: the bus took such an event behind the mark, and its description as JSON
# has this part.
published() {
    run_waiting "$kzectl" bus wait --event "$1" --after "$2" --timeout 15 ||
        missed "$(tail -n 1 "$work/err")"
    "$kzectl" --json bus list --event "$1" --after "$2" >"$work/published"
    grep -qF "$3" "$work/published" || missed "no event with $3"
    saw "an event of the bus, $1, with ${3%,}"
    show "$kzectl" bus tail -n 1 --event "$1"
}

# pass_unchanged KIND TYPE: the engine delivers a file, the gateway gets the same bytes.
pass_unchanged() {
    local kind=$1 type=$2 from id
    head -c 5000 /dev/urandom >"$work/$kind.bin"
    from=$(record_mark)
    "$kzectl" engine push "$kind" "$work/$kind.bin" >"$work/out"
    run_waiting "$kzectl" gateway wait --type "$type" --after "$from" --timeout 15 ||
        missed "$(tail -n 1 "$work/err")"
    id=$(cat "$work/out")
    "$kzectl" gateway show "$id" --raw >"$work/received.bin"
    same "record $id of type $type, $kind" "$work/$kind.bin" "$work/received.bin"
}

results_pass_unchanged() {
    step 'Alarms and results of coordinate orders pass unchanged'
    note 'The engine delivers random bytes; what the gateway got is compared byte by byte.'
    expect 'an alarm as type 1, a hunting result as type 4'
    pass_unchanged alarm 1
    pass_unchanged hunting 4
}

outage_is_noticed_and_mended() {
    step 'The engine dies and comes back'
    local from host_from records bus_from
    bus_from=$("$kzectl" bus mark)
    from=$(mark)
    # The engine's client calls the plug-in on a thread of its own, which logs to the host's log.
    host_from=$(mark host)
    records=$(record_mark)
    note 'kzectl engine die: its service starts it again two seconds later'
    "$kzectl" engine die >"$work/out"
    expect 'the outage is noticed and the client is started again'
    see_log 'qd-agent is offline' "$host_from" 20 host
    see_log 'x_client status 1' "$from" 60
    expect 'capabilities and subscriptions are sent anew'
    see_log 'set engine switch, on[2], off[1]' "$from" 15
    see_log 'qd subscribe alarm ret: 0' "$from" 15
    see_log 'qd subscribe origin data success' "$from" 15
    expect 'the new engine delivers a new snapshot'
    run_waiting "$kzectl" gateway wait --type origin --after "$records" --timeout 30 ||
        missed "$(tail -n 1 "$work/err")"
    saw "record $(cat "$work/out") of type 5, origin"
    expect 'the message bus hears of the outage'
    published offline "$bus_from" '"content":"offline"'
}

waits_grow_while_the_engine_stays_away() {
    step 'The engine stays away'
    local from tries
    from=$(mark)
    note 'kzectl engine die --stay-down: nobody starts it again'
    "$kzectl" engine die --stay-down >"$work/out"
    expect 'the waits between the attempts grow: 2, 4, 8 seconds'
    for tries in '1, interval: 2' '2, interval: 4' '3, interval: 8'; do
        see_log "qd start try_times: $tries" "$from" 30
    done
    note 'kzectl engine start: by hand'
    from=$(mark)
    "$kzectl" engine start >"$work/out"
    expect 'the attempt behind the last wait succeeds'
    see_log 'x_client status 1' "$from" 30
    see_log 'qd subscribe origin data success' "$from" 15
}

refused_capability_is_kept_for_a_retry() {
    step 'The engine refuses a capability'
    local from
    from=$(mark)
    note 'The next answer to x_client_engine_control is -5; kzectl reload starts the plug-in anew.'
    "$kzectl" engine answer x_client_engine_control --code -5 --times 1 >"$work/out"
    see "$kzectl" reload
    expect 'the refusal is noted and will be tried again (in 180 seconds: the tour goes on)'
    see_log 'switch 6 status: 2 failed' "$from" 20
    see_log 'need to retry switch engine' "$from" 20
}

# clean_stop MARK: what is logged behind the mark counts.
clean_stop() {
    step 'The agent stops'
    expect 'the plug-in cleans up, and no process of the agent is left'
    see "$kzectl" down --timeout 20
    see_log 'kzemm_work stopped' "$1" 1
    local left
    # find fails when a process ends meanwhile.
    left=$({ find /proc -maxdepth 2 -name exe -lname "$tree/*" 2>/dev/null || true; } | wc -l)
    [ "$left" -eq 0 ] || missed "$left processes still run a program of this tree"
    saw 'no process in /proc runs a program of this tree'
    see_status 3 "$kzectl" status
}

printf '%sA tour of the threat module manager%s\n' "$bold" "$plain"
printf 'The agent runs in %s: real processes, sockets and files.\n' "$tree"
"$kzectl" down --timeout 10 >"$work/out" 2>&1 || true
look_for_packs_as_often_as_possible
start_of_the_agent
capabilities_follow_configuration
origin_data_reaches_the_gateway
results_pass_unchanged
outage_is_noticed_and_mended
waits_grow_while_the_engine_stays_away
refused_capability_is_kept_for_a_retry
management
rule_packs
credible_events
clean_stop "$(mark)"
