#!/bin/sh
# Stands in for launchctl, pgrep and sleep, and does what cp, mv, rm, chown, chmod and mkdir do;
# it is linked under these names. Each call is a line of /state/record; after the one whose
# number is in /state/kill every process is killed. What launchd knows is in /state too:
#
#   loaded       the plist and the process of the job that is loaded
#   disabled     the label is disabled             logged-out   there is no gui domain
#   busy         so many calls of bootstrap fail   slow         so many looks until the process
#                                                               has ended after bootout
# A program's first line is what launchd sees of it: "stays", "completes", "never", "fails N" or
# "crashes N", after N looks.
name=${0##*/} PATH=/usr/bin
echo "$name $*" >>/state/record
knob() { cat "/state/$1" 2>/dev/null || echo 0; }
count_down() { # whether the knob is above 0, and makes it one less
    n=$(knob "$1")
    [ "$n" -gt 0 ] && echo $((n - 1)) >"/state/$1"
}
failed() { echo "$2" >&2; status=$1; }
value() { sed -n "/<key>$1</{n;s/[^>]*>//;s/<.*//;p;}" "$2"; }

print() {
    case $1 in gui/*/* | system/*) ;; gui/*) [ ! -e /state/logged-out ] || status=125; return ;; esac
    if ! read -r pid looks plist 2>/dev/null </state/loaded; then
        count_down lingers || failed 113 "Could not find service in domain"
        return
    fi
    echo "$pid $((looks + 1)) $plist" >/state/loaded
    # shellcheck disable=SC2046
    set -- $(head -n 1 "$(value WorkingDirectory "$plist")/OrvaneService" 2>/dev/null || echo never)
    state=running ended=
    case $1 in
        never) state="spawn scheduled" ;;
        completes) state="not running" ended="last exit code = 0" ;;
        fails) [ "$looks" -lt "$2" ] || { state="spawn scheduled" ended="last exit code = 1"; } ;;
        crashes) [ "$looks" -lt "$2" ] ||
            { state="spawn scheduled" ended="last terminating signal = Abort trap: 6"; } ;;
    esac
    printf '%s = {\n\tstate = %s\n' job "$state"
    printf '\tendpoints = {\n\t\t"a" = {\n\t\t\tpid = 7\n\t\t}\n\t}\n'
    [ "$state" != running ] || printf '\tpid = %s\n' "$pid"
    printf '\t%s\n}\n' "${ended:-last exit code = (never exited)}"
}
bootout() {
    [ -e /state/loaded ] || { failed 3 "Boot-out failed: 3: No such process"; return; }
    rm /state/loaded
    knob slow >/state/lingers
    knob slow >/state/ending
}
bootstrap() {
    log=$(value StandardOutPath "$1")
    if [ -e /state/disabled ] || [ -e /state/loaded ] || [ "$(knob ending)" != 0 ] || count_down busy; then
        failed 5 "Bootstrap failed: 5: Input/output error"
    elif [ -d "${log%/*}" ]; then
        pid=$(($(knob pid) + 1))
        echo "$pid" >/state/pid
        echo "$((100 + pid)) 0 $1" >/state/loaded
        tail -n 1 "$(value WorkingDirectory "$1")/OrvaneService" >>"$log"
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
[ "$(wc -l </state/record)" -ne "$(knob kill)" ] || kill -9 -1
exit "$status"
