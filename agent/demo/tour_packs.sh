# The tour's steps with rule packs. Sourced by tour.sh.
# shellcheck shell=bash disable=SC2154

pack_rules=$(cd "$(dirname "${BASH_SOURCE[0]}")/../tests/data/rules" && pwd)
pack_mark=0

# The plug-in reads its settings when it starts.
look_for_packs_as_often_as_possible() {
    local ini=$tree/config/kzemdlmgr.ini
    if grep -q '^;*upgrade_check_interval' "$ini" 2>"$work/err"; then
        sed -i 's/^;*upgrade_check_interval.*/upgrade_check_interval = 60/' "$ini"
    else
        printf '[time]\nupgrade_check_interval = 60\n' >>"$ini"
    fi
}

# make_pack FORM RULES OPTION...: makes a pack in $work/packs.
make_pack() {
    "$kzectl" pack make "$1" "$pack_rules/$2" -o "$work/packs" "${@:3}" >"$work/out"
    note "made $(basename "$(cat "$work/out")")"
}

# see_verdict PACK TEXT: what "pack list" tells of a pack.
see_verdict() {
    local told
    told=$(grep -F -- "$1 " "$work/list" | sed -E 's/ +/ /g; s/ $//') || missed "$1 in the list"
    [[ $told == "$1 $2"* ]] || missed "\"$told\" instead of \"$2\""
    saw "$told"
}

# see_fate PACK FATE SECONDS [TEXT]: waits until a pack, by its name or a pattern, meets its fate.
see_fate() {
    run_waiting "$kzectl" pack wait "$1" "$2" --after "$pack_mark" --timeout "$3" ||
        missed "$1 $2 within $3 s: $(tail -n 1 "$work/err")"
    [ $# -lt 4 ] || grep -qF -- "$4" "$work/out" || missed "\"$4\" in: $(cat "$work/out")"
    saw "$(tail -n 1 "$work/out")"
}

# see_version TYPE VERSION: what the engine itself says.
see_version() {
    "$kzectl" engine status --json >"$work/out"
    grep -qE "\"versions\":\{[^}]*\"$1\":\"$2\"" "$work/out" ||
        missed "version $2 of $1 in $(grep -oE '"versions":\{[^}]*\}' "$work/out")"
    saw "the engine has version $2 of its $1 rules"
}

packs_are_made_and_dropped() {
    step 'Rule packs are made and dropped'
    mkdir "$work/packs"
    rm -rf "$tree/hlthreat_rule"
    make_pack ioc-full indicators_5.0.txt --version 5.0
    make_pack ioc-inc indicators_4.9.txt --from 4.8 --version 4.9
    make_pack ioc-inc indicators_5.1.txt --from 5.0 --version 5.1
    make_pack ioc-inc indicators_5.1.txt --from 5.1 --version 5.2 --corrupt archive
    make_pack ioa ioa_rules.txt --version 12
    make_pack md md_patterns.txt --version 7
    expect 'the engine begins with version 1.0 of IOC rules and 1 of the others'
    see_version ioc 1.0
    see_version ioa 1
    see_version md 1
    note 'kzectl reload: the first look is then a whole interval away'
    see "$kzectl" reload
    pack_mark=$(date +%s.%N)
    "$kzectl" pack drop "$work"/packs/*.tgz >"$work/out"
    show cat "$work/out"
    expect 'the full pack comes first, 5.1 behind it, and 4.9 is obsolete'
    "$kzectl" pack list >"$work/list"
    see_verdict ioc_full_5.0.tgz 'full 5.0 1 goes'
    see_verdict 'ioc_inc_[5.0-5.1].tgz' 'incremental 5.1 2 goes'
    see_verdict 'ioc_inc_[4.8-4.9].tgz' 'incremental 4.9 obsolete'
}

packs_raise_the_engines_versions() {
    step "Packs raise the engine's versions, and go"
    note 'The plug-in looks into the rule directory every 60 seconds, the shortest interval there is.'
    expect 'what a full pack makes obsolete is deleted unused'
    see_fate 'ioc_inc_[4.8-4.9].tgz' obsolete 75
    expect 'each pack in its turn; the engine confirms within five seconds'
    see_fate ioc_full_5.0.tgz applied 20 'version now is 5.0'
    see_fate 'ioc_inc_[5.0-5.1].tgz' applied 20 'version now is 5.1'
    see_version ioc 5.1
    expect 'IOA rules are confirmed by a higher version'
    see_fate ioa_linux_en.tgz renamed 20
    see_fate ioa_linux_en.tgz applied 20 'version now is 12'
    see_version ioa 12
    expect 'MD patterns are confirmed by a call back'
    see_fate md_linux.tgz applied 20 'version now is 7'
    see_version md 7
    expect 'the damaged one never reached the engine, and stays'
    see_fate 'ioc_inc_[5.1-5.2].tgz' 'unpack failed' 30
    show "$kzectl" engine rules
}

only_a_damaged_pack_is_left() {
    step 'What is left in the rule directory'
    expect 'nothing but the damaged pack, which is tried again until somebody removes it'
    local left
    left=$(ls -A "$tree/hlthreat_rule")
    [ "$left" = 'ioc_inc_[5.1-5.2].tgz' ] || missed "in the directory: $left"
    saw "$left"
    rm "$tree/hlthreat_rule/ioc_inc_[5.1-5.2].tgz"
    "$kzectl" pack watch --until-empty --from-now --timeout 5 >"$work/out" 2>"$work/err" ||
        missed "$(tail -n 1 "$work/err")"
    saw 'the rule directory is empty'
}

rule_packs() {
    packs_are_made_and_dropped
    packs_raise_the_engines_versions
    only_a_damaged_pack_is_left
}
