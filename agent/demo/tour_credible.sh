# The tour's steps with credible events: reported, marked, disposed of. Sourced by tour.sh.
# shellcheck shell=bash disable=SC2154

harmless=''
disposal_service=07agt_rpdsp

# start_harmless: a process for the tour to dispose of; it ends with the tour at the latest.
start_harmless() {
    local until=$((SECONDS + 10))
    [ -e "$work/harmless" ] || cp "$(command -v sleep)" "$work/harmless"
    setpriv --pdeathsig KILL "$work/harmless" 600 &
    harmless=$!
    disown
    while ! runs_harmless; do
        [ $SECONDS -lt $until ] || missed "process $harmless runs $work/harmless"
        sleep 0.05
    done
    note "process $harmless runs $work/harmless"
}

# Whether it lives: one that has ended has no executable.
runs_harmless() { [ "$(readlink "/proc/$harmless/exe")" = "$work/harmless" ]; }

see_harmless_alive() {
    runs_harmless || missed "process $harmless is alive"
    saw "process $harmless is alive"
}

# turn_disposal MASK: 1 web, 2 phishing, 3 both; and waits until the plug-in has read it.
turn_disposal() {
    local from
    from=$(mark)
    note "kzectl config set /mgr/auto_dispose /switch $1"
    "$kzectl" config set /mgr/auto_dispose /switch "$1" >"$work/out"
    see_log 'do cfgc notify success' "$from" 15
}

# raise OPTION...: a credible event of the web scene about the harmless process.
raise() {
    note "kzectl engine credible --scene web --pid $harmless${*:+ $*}"
    "$kzectl" engine credible --scene web --pid "$harmless" "$@" >"$work/out"
}

# see_event MARK STATE: the event at the gateway, with its disposal state.
see_event() {
    run_waiting "$kzectl" gateway wait --type credible --after "$1" --timeout 15 ||
        missed "a credible event: $(tail -n 1 "$work/err")"
    local id
    id=$(cat "$work/out")
    "$kzectl" gateway show "$id" >"$work/record"
    [ "$(row Disposal)" = "$2" ] || missed "state \"$(row Disposal)\" instead of $2"
    saw "record $id of type 10, $(row Scene), $(row Disposal)"
}

# see_disposal MARK FATE: what the disposal service did with the harmless process.
see_disposal() {
    run_waiting "$kzectl" disposal wait --after "$1" --pid "$harmless" --timeout 15 ||
        missed "an order for process $harmless: $(tail -n 1 "$work/err")"
    "$kzectl" disposal show "$(cat "$work/out")" >"$work/order"
    grep -qE "^ +$harmless +[0-9]+ +$2 " "$work/order" || missed "$2 in: $(cat "$work/order")"
    saw "order $(cat "$work/out"): process $harmless $2"
}

credible_event_is_disposed_of() {
    step 'A credible event: the process is reported, marked and ended'
    local from orders worker_from
    start_harmless
    turn_disposal 3
    "$kzectl" disposal mode kill >"$work/out"
    note 'kzectl disposal mode kill: from now on the disposal service ends processes'
    from=$(record_mark)
    orders=$("$kzectl" disposal mark)
    worker_from=$(mark)
    raise
    expect 'the gateway gets the event with its mark'
    see_event "$from" DISPOSAL_STATE_AUTO_DISPOSING
    saw "$(row Unknown), kept"
    expect 'the disposal service checks id, creation time, path and MD5, and ends the process'
    see_disposal "$orders" ended
    show cat "$work/order"
    see_log 'auto dispose task to rpdsp success' "$worker_from" 15
    ! runs_harmless || missed "process $harmless has ended"
    saw "process $harmless has ended"
}

credible_event_goes_up_while_disposal_is_off() {
    step 'The same with the switch off: the event goes up as it came'
    local from orders id
    start_harmless
    turn_disposal 0
    from=$(record_mark)
    orders=$("$kzectl" disposal mark)
    "$kzectl" engine credible --scene web --pid "$harmless" -o "$work/event.bin" >"$work/out"
    "$kzectl" engine push credible "$work/event.bin" >"$work/out"
    expect 'no mark, not a byte changed, and no order'
    see_event "$from" DISPOSAL_STATE_UNHANDLED
    id=$("$kzectl" gateway wait --type credible --after "$from" --timeout 1)
    "$kzectl" gateway show "$id" --raw >"$work/received.bin"
    same "record $id of type 10" "$work/event.bin" "$work/received.bin"
    [ "$("$kzectl" disposal mark)" = "$orders" ] || missed 'no order'
    saw 'no order at the disposal service'
    see_harmless_alive
}

reused_id_is_not_hit() {
    step 'A process id that belongs to another process by now'
    note 'The event tells of an earlier process with this id, by its creation time.'
    local orders
    turn_disposal 3
    orders=$("$kzectl" disposal mark)
    raise --reused
    expect 'the creation time differs: the process that has the id now is left alone'
    see_disposal "$orders" another
    see_harmless_alive
}

disposal_service_is_away() {
    step 'The disposal service is away'
    local from records tries
    note "vrd_services stop $disposal_service"
    "$tree/bin/vrd_services" stop $disposal_service >"$work/out"
    from=$(mark)
    records=$(record_mark)
    raise
    expect 'the event goes up all the same, its order is tried four times and given up'
    see_event "$records" DISPOSAL_STATE_AUTO_DISPOSING
    for tries in 1 2 3; do
        see_log "send auto dispose task to rpdsp $tries time" "$from" 15
    done
    see_log 'auto dispose task to rpdsp failed by 3 times, stop retry' "$from" 15
    see_harmless_alive
    see "$kzectl" up
}

malformed_event_does_no_harm() {
    step 'A malformed credible event'
    local from host_from
    from=$(record_mark)
    host_from=$(mark host)
    raise --malformed version
    expect 'it is refused, and nothing of it goes anywhere'
    see_log 'credible(auto dispose) subscription data invalid' "$host_from" 15 host
    see_log 'do auto dispose failed' "$host_from" 15 host
    raise --malformed body
    see_log 'parse qd_engine_sub_credible data to proto failed' "$host_from" 15 host
    note 'an alarm behind it shows that the way is free'
    pass_unchanged alarm 1
    "$kzectl" gateway list --type credible --after "$from" --json >"$work/out"
    grep -q '"records":\[\]' "$work/out" || missed "no credible event in: $(cat "$work/out")"
    saw 'no credible event at the gateway'
    see_harmless_alive
    kill -KILL "$harmless"
}

credible_events() {
    credible_event_is_disposed_of
    credible_event_goes_up_while_disposal_is_off
    reused_id_is_not_hit
    disposal_service_is_away
    malformed_event_does_no_harm
    "$kzectl" disposal mode report >"$work/out"
}
