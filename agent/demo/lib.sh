# Functions of ./run and of the tour: what they print, and waiting with a sign of life.
# The caller sets kzectl, the program, and work, a directory for temporary files.
# shellcheck shell=bash disable=SC2154

on_terminal=no
if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
    on_terminal=yes
fi

bold='' faint='' good='' bad='' plain=''
if [ $on_terminal = yes ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' faint=$'\e[2m' good=$'\e[32m' bad=$'\e[1;31m' plain=$'\e[0m'
fi

# Takes back what stands on the terminal's current line.
clear_line() {
    if [ $on_terminal = yes ]; then
        printf '\r\e[K'
    else
        printf '\n'
    fi
}

# ---- the tour ----

steps=0
checks=0
waiting_pid=''

# step TITLE: begins a step.
step() {
    steps=$((steps + 1))
    printf '\n%s%d. %s%s\n' "$bold" "$steps" "$1" "$plain"
}

# note TEXT: tells what happens.
note() {
    printf '   %s%s%s\n' "$faint" "$1" "$plain"
}

# expect TEXT: says what is to be seen next.
expect() {
    printf '   expected  %s\n' "$1"
}

# saw TEXT: what was expected was seen.
saw() {
    checks=$((checks + 1))
    printf '   seen      %s %s✔%s\n' "$1" "$good" "$plain"
}

# missed TEXT: it was not, and the tour ends here.
missed() {
    printf '   %snot seen  %s ✘%s\n' "$bad" "$1" "$plain"
    exit 1
}

# show COMMAND...: prints what a command prints.
show() {
    "$@" | sed "s/^/             /"
}

# run_waiting COMMAND...: runs a command, with the seconds shown on a terminal meanwhile. What it
# prints is then in $work/out and $work/err. Returns its status.
run_waiting() {
    local begun=$SECONDS status=0 tick
    rm -f "$work/end"
    mkfifo "$work/end"
    # The pipe is at its end once the command is.
    "$@" >"$work/out" 2>"$work/err" 8>"$work/end" &
    waiting_pid=$!
    exec 7<"$work/end"
    while true; do
        tick=0
        read -r -t 0.5 -u 7 || tick=$?
        [ $tick -gt 128 ] || break
        if [ $on_terminal = yes ]; then
            printf '\r   %swaiting   %d s%s' "$faint" $((SECONDS - begun)) "$plain"
        fi
    done
    exec 7<&-
    wait "$waiting_pid" || status=$?
    waiting_pid=''
    [ $on_terminal = no ] || clear_line
    return $status
}

# see COMMAND...: runs a command that succeeds when what is expected happens; its last line is what
# was seen.
see() {
    local status=0
    run_waiting "$@" || status=$?
    if [ $status -ne 0 ]; then
        missed "$(tail -n 1 "$work/err") (status $status)"
    fi
    saw "$(tail -n 1 "$work/out")"
}

# see_log TEXT MARK SECONDS [WHICH]: waits for a line of the plug-in's log behind the mark, and shows
# its time and text.
see_log() {
    run_waiting "$kzectl" log wait "$1" "${4:-worker}" --after "$2" --timeout "$3" ||
        missed "\"$1\" within $3 s in the plug-in's log"
    # 2024-05-01 12:34:56.123456 INFO 4711 source.cpp:42 text
    saw "$(sed -nE '1s/^[^ ]+ ([0-9:]+)[.0-9]* [A-Z]+ [0-9]+ [^ ]+ (.*)$/\1  \2/p' "$work/out")"
}

# see_status STATUS COMMAND...: runs a command that is to end with this status.
see_status() {
    local wanted=$1 status=0
    shift
    run_waiting "$@" || status=$?
    [ $status -eq "$wanted" ] || missed "exit status $status instead of $wanted from ${*:2}"
    saw "kzectl ${*:2}: exit status $status"
}

# same WHAT FILE FILE: two files have the same bytes.
same() {
    cmp -s "$2" "$3" || missed "$1 differs: $(cmp "$2" "$3" 2>&1)"
    saw "$1: $(wc -c <"$2") bytes, all the same"
}
