# The tour's steps with management: requests, custom rules, modules of the configuration, the drive.
# Sourced by tour.sh.
# shellcheck shell=bash disable=SC2154

# see_record TYPE TEXT MARK SECONDS: waits for a record of the gateway that carries the text.
see_record() {
    run_waiting "$kzectl" gateway wait --type "$1" --contains "$2" --after "$3" --timeout "$4" ||
        missed "$1 with $2: $(tail -n 1 "$work/err")"
    saw "record $(cat "$work/out") of type $1 carries $2"
}

# await_text TEXT SECONDS COMMAND...: runs a command again and again until it prints the text.
await_text() {
    local text=$1 until=$((SECONDS + $2))
    shift 2
    until "$@" >"$work/out" 2>"$work/err" && grep -qF -- "$text" "$work/out"; do
        [ $SECONDS -lt $until ] || missed "$text from ${*:2}: $(cat "$work/out" "$work/err")"
        sleep 0.2
    done
}

# request_reaches_gateway KIND: the engine's answer to an order comes out at the gateway.
request_reaches_gateway() {
    local from
    from=$(record_mark)
    see "$kzectl" request "$1" --text "the tour's $1 order"
    see_record "$1" "\"text\":\"the tour's $1 order\"" "$from" 15
}

requests_and_their_results() {
    step 'Management requests, each with its response and its result'
    note 'The response says that a request is queued. What it comes to arrives elsewhere: results of'
    note "coordinate orders at the gateway, that of a linkage analysis at the linkage service."
    expect 'KZEMM_TRACE_OK for each, and its result in its place'
    local kind from
    for kind in linkage append hunting; do
        request_reaches_gateway $kind
    done
    from=$("$kzectl" lkg mark)
    see "$kzectl" request lkganal --text 'what the tour asks'
    run_waiting "$kzectl" lkg wait --contains 'what the tour asks' --after "$from" --timeout 15 ||
        missed "$(tail -n 1 "$work/err")"
    saw "reply $(cat "$work/out") at the linkage service"
    note 'A frame with a broken header is refused before anything else is looked at.'
    see_status 13 "$kzectl" request hunting --raw --text 'no frame'
}

# turn_threats_on_or_off TRUE|FALSE: and waits until the plug-in has read it.
turn_threats_on_or_off() {
    local from
    from=$(mark)
    "$kzectl" config set /mgr/base_collect /adv_threats "$1" >"$work/out"
    see_log 'do cfgc notify success' "$from" 15
}

request_is_refused_while_its_switch_is_off() {
    step 'A request is refused while its switch is off'
    note 'kzectl config set: /adv_threats false, and the plug-in is notified'
    turn_threats_on_or_off false
    expect 'KZEMM_TRACE_NO_PERMISSION, which kzectl ends with as 12'
    see_status 12 "$kzectl" request hunting --text 'an order'
    note 'kzectl config set: /adv_threats true'
    turn_threats_on_or_off true
    expect 'the same request is taken'
    request_reaches_gateway hunting
}

full_queue_refuses() {
    step 'A full queue refuses, and what it took is done'
    local from records
    from=$(mark task)
    records=$(record_mark)
    note 'The engine takes three seconds for one order; meanwhile twelve more come at once.'
    "$kzectl" engine answer x_client_coordinate --delay-ms 3000 --times 1 >"$work/out"
    see "$kzectl" request linkage --text 'a slow order'
    see_log 'run task, type: 1' "$from" 10 task
    expect 'ten are queued, two find the queue full'
    run_waiting "$kzectl" request append --text 'one of many' --count 12 || [ $? -eq 11 ] ||
        missed "$(tail -n 1 "$work/err")"
    show cat "$work/out"
    grep -q '^10 KZEMM_TRACE_OK' "$work/out" || missed 'ten queued'
    grep -q '^2 KZEMM_TRACE_QUEUE_FULL' "$work/out" || missed 'two refused'
    saw 'ten queued, two refused'
    expect 'those ten are done once the engine is free, and none of the others'
    see_record linkage 'a slow order' "$records" 15
    see "$kzectl" request append --text 'the last of all'
    see_record append 'the last of all' "$records" 15
    "$kzectl" gateway list --type append --after "$records" --json >"$work/out"
    local count
    count=$(grep -o '"id":' "$work/out" | wc -l)
    [ "$count" -eq 11 ] || missed "$count results of append orders instead of 11"
    saw 'ten results of append orders, and the last one'
}

# see_ioa_status PATTERN: what kzectl tells of the custom rules.
see_ioa_status() {
    "$kzectl" ioa status >"$work/ioa"
    grep -qE "$1" "$work/ioa" || missed "\"$1\" in: $(cat "$work/ioa")"
    saw "$(grep -E "$1" "$work/ioa" | tr -s ' ')"
}

custom_rules_are_accepted_or_refused() {
    step 'Custom IOA rules: one set is accepted, another refused'
    local from first=tour-$$-1 second=tour-$$-2
    from=$(record_mark)
    note "kzectl request ioa --rules-id $first --rules …"
    see "$kzectl" request ioa --rules-id "$first" --rules "process.pid == $$"
    expect 'the console hears of it, the identifier is stored, the engine holds the text'
    see_record ctmioa_result "$first" "$from" 15
    see_ioa_status "^Stored +\"$first\""
    see_ioa_status "^Last result +rules \"$first\" accepted"
    "$kzectl" engine rules custom_ioa >"$work/rules"
    grep -qF "process.pid == $$" "$work/rules" || missed "the text in: $(cat "$work/rules")"
    saw "the engine holds: process.pid == $$"

    from=$(record_mark)
    note 'The engine will refuse the next set: its callback tells -8.'
    "$kzectl" engine answer x_client_engine_update_by_data --value -8 --for-type 7 --times 1 \
        >"$work/out"
    see "$kzectl" request ioa --rules-id "$second" --rules 'never in force'
    expect 'the console hears -4 for it, and the stored identifier stays'
    see_record ctmioa_result "$second" "$from" 15
    see_ioa_status "^Last result +rules \"$second\" refused, res -4"
    see_ioa_status "^Stored +\"$first\""
    "$kzectl" engine rules custom_ioa >"$work/rules"
    grep -qF "process.pid == $$" "$work/rules" || missed "the first set in: $(cat "$work/rules")"
    ! grep -qF 'never in force' "$work/rules" || missed 'the refused text is in force'
    saw 'the engine holds the first set still'
}

trusted_addresses_reach_the_engine() {
    step 'The list of trusted addresses reaches the engine in its envelope'
    local from list envelope
    list="{\"ips\":[\"10.0.$((RANDOM % 256)).$((RANDOM % 256))\"]"
    envelope="{\"tkbfd\":{\"white_ip\":$list,\"need_update\":true}}}"
    from=$(mark)
    note "kzectl config module set trust_ip white_ip='$list}'"
    "$kzectl" config module set trust_ip white_ip="$list}" >"$work/out"
    expect 'the plug-in asks for the module and sends the list on'
    see_log 'send white info [' "$from" 15
    await_text "$envelope" 5 "$kzectl" engine rules bruteforce_ssh
    saw "the engine holds $envelope"
}

# see_drive DRIVE COLLECT: waits until the engine's drive switches stand so.
see_drive() {
    await_text "\"drive\":{\"collect\":$2,\"drive\":$1}" 30 "$kzectl" engine status --json
    saw "the engine's drive is $1, its collecting $2"
}

drive_switches_follow() {
    step "The engine's drive switches follow the configuration"
    "$kzectl" config module set base_drive enable=false collect_enable=false >"$work/out"
    expect 'both are off at first'
    see_drive 0 0
    note 'kzectl config module set base_drive enable=true collect_enable=true'
    "$kzectl" config module set base_drive enable=true collect_enable=true >"$work/out"
    expect 'both are switched on'
    see_drive 1 1
    note 'kzectl config module set base_drive collect_enable=false'
    "$kzectl" config module set base_drive collect_enable=false >"$work/out"
    expect 'the drive stays on, its collecting goes off'
    see_drive 1 0
}

management() {
    requests_and_their_results
    request_is_refused_while_its_switch_is_off
    full_queue_refuses
    custom_rules_are_accepted_or_refused
    trusted_addresses_reach_the_engine
    drive_switches_follow
}
