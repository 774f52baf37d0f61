#!/bin/sh
# Stands in for launchctl, pgrep and sleep, and does what cp, mv, rm, chown, chmod and mkdir do;
# it is linked under these names. Each call is a line of /state/record; after as many as
# /state/kill says every process is killed. What launchd knows is in /state too:
#
#   loaded       the plist and the process of the job that is loaded
#   disabled     the label is disabled             logged-out   there is no gui domain
#   busy         so many calls of bootstrap fail   slow         so many looks until the process
#                                                               has ended after bootout
# A program's first line is what launchd sees of it: "stays", "completes", "never", "fails N" or
# "crashes N", after N looks.
name=${0##*/} PATH=/usr/bin
echo "$name $*" >>/state/record
knob() { value=0; read -r value 2>/dev/null <"/state/$1" || : "${value:=0}"; }
count_down() { # whether the knob is above 0, and makes it one less
    knob "$1"
    [ "$value" -gt 0 ] && echo $((value - 1)) >"/state/$1"
}
failed() { echo "$2" >&2; status=$1; }
text() { sed -n "/<key>$1</{n;s/[^>]*>//;s/<.*//;p;}" "$2"; }

print() {
    case $1 in gui/*/* | system/*) ;; gui/*) [ ! -e /state/logged-out ] || status=125; return ;; esac
    if ! read -r pid looks plist 2>/dev/null </state/loaded; then
        count_down lingers || failed 113 "Could not find service in domain"
        return
    fi
    echo "$pid $((looks + 1)) $plist" >/state/loaded
    read -r behaviour after 2>/dev/null <"${plist##*:}" || behaviour=never
    case $after in *[!0-9]*) after=0 ;; esac
    state=running ended='last exit code = (never exited)'
    case $behaviour:$((looks < after)) in
        never:*) state="spawn scheduled" ;;
        completes:*) state="not running" ended="last exit code = 0" ;;
        fails:0) state="spawn scheduled" ended="last exit code = 1" ;;
        crashes:0) state="spawn scheduled" ended="last terminating signal = Abort trap: 6" ;;
    esac
    printf '%s = {\n\tstate = %s\n' job "$state"
    printf '\tendpoints = {\n\t\t"a" = {\n\t\t\tpid = 7\n\t\t}\n\t}\n'
    [ "$state" != running ] || printf '\tpid = %s\n' "$pid"
    printf '\t%s\n}\n' "$ended"
}
bootout() {
    [ -e /state/loaded ] || { failed 3 "Boot-out failed: 3: No such process"; return; }
    rm /state/loaded
    knob slow
    echo "$value" | tee /state/lingers >/state/ending
}
bootstrap() {
    log=$(text StandardOutPath "$1")
    knob ending
    if [ -e /state/disabled ] || [ -e /state/loaded ] || [ "$value" != 0 ] || count_down busy; then
        failed 5 "Bootstrap failed: 5: Input/output error"
    elif [ -d "${log%/*}" ]; then
        program=$(text WorkingDirectory "$1")/OrvaneService
        knob pid
        echo $((value + 1)) >/state/pid
        echo "$((101 + value)) 0 $1:$program" >/state/loaded
        tail -n 1 "$program" >>"$log"
    fi
}

status=0
case $name in
    launchctl)
        case $1 in
            print) print "$2" ;;
            enable) rm -f /state/disabled ;;
            bootstrap) bootstrap "$3" ;;
            bootout) bootout ;;
        esac ;;
    pgrep) [ -e /state/loaded ] || count_down ending || status=1 ;;
    sleep) ;;
    *) "/usr/bin/$name" "$@" || status=$? ;;
esac
count_down kill && [ "$value" = 1 ] && kill -9 -1
exit "$status"
