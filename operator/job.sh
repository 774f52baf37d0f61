# Sourced by install and uninstall: where an installation is, and how its job is stopped and
# started. $user is set for a user's agent and empty for the system-wide daemon.
# shellcheck shell=sh
umask 022
case $(uname) in Darwin) PATH=/usr/bin:/bin:/usr/sbin:/sbin ;; esac

me=${0##*/}
say() { printf '%s\n' "$*"; }
die() { # STATUS TEXT
    status=$1
    shift
    printf '%s: %s\n' "$me" "$*" >&2
    exit "$status"
}

locate() {
    home=''
    if [ -n "$user" ]; then
        [ "$(id -u)" != 0 ] ||
            die 1 "an agent belongs to its user: as root, call launchctl asuser UID sudo -H -u NAME $0 --user"
        case $HOME in
            /Users/*/* | /Users/) ;;
            /Users/*) [ ! -O "$HOME" ] || home=$HOME ;;
        esac
        [ -n "$home" ] ||
            die 1 "HOME is '$HOME', not the caller's directory in /Users; with sudo, add -H"
        domain=gui/$(id -u) jobs=$home/Library/LaunchAgents suffix=plist.in
    else
        [ "$(id -u)" = 0 ] || die 1 "the system-wide service is root's: call with sudo, or with --user for an agent"
        domain=system jobs=/Library/LaunchDaemons suffix=plist
    fi
    app=$home/Applications/Orvane.app
    inner=Contents/Library/LaunchServices/OrvaneService.app/Contents
    program=$app/$inner/MacOS/OrvaneService
    log=$home/Library/Logs/OrvaneService.log
    here=$(cd -P "$(dirname "$0")" && pwd)
    template=$(cd "$here/../launchd" 2>/dev/null && ls -- *."$suffix" 2>/dev/null)
    label=${template%".$suffix"}
    job=$jobs/$label.plist
    [ -n "$label" ] || die 1 "$here is not in an Orvane.app; call the script where the bundle has it"
}

exists() { [ -e "$1" ] || [ -L "$1" ]; }

# Removes a bundle, which is never seen half removed under its own name.
discard() {
    ! exists "$1" || { mv "$1" "$app.gone" && rm -rf "$app.gone"; }
}

# Succeeds if launchd knows the job; sets what it says of it.
look() {
    pid='' code='' signal=''
    text=$(launchctl print "$domain/$label" 2>/dev/null) || return 1
    # Only lines of the job itself: what is nested begins with more than one tab.
    pid=$(said pid)
    code=$(said 'last exit code')
    signal=$(said 'last terminating signal')
}
said() { printf '%s\n' "$text" | sed -n "s/^	$1 = //p"; }

# Ends the job. Returns when launchd no longer knows it and its process has ended, which
# bootout does not wait for; fails after 90 s, 30 more than launchd lets a process have.
stop() {
    if look; then
        say "Stopping $label${pid:+, process $pid}."
        launchctl bootout "$domain/$label" >/dev/null 2>&1
    fi
    seconds=0
    while look || pgrep -f "^$program" >/dev/null; do
        [ $seconds -lt 90 ] || { reason="still there 90 s after it was stopped"; return 1; }
        seconds=$((seconds + 1))
        sleep 1
    done
}

# Starts the job. Succeeds when its process has been there for 5 s, or has ended with status 0;
# otherwise sets $reason. launchd refuses a job for some seconds after another of that name.
start() {
    [ "$domain" = system ] || launchctl print "$domain" >/dev/null 2>&1 ||
        { outcome="starts when the user logs in"; return 0; }
    say "Starting $label."
    launchctl enable "$domain/$label"
    seconds=0
    until error=$(launchctl bootstrap "$domain" "$job" 2>&1); do
        [ $seconds -lt 20 ] || { reason="launchctl bootstrap: $error"; return 1; }
        seconds=$((seconds + 2))
        sleep 2
    done
    before='' seen=0 seconds=0
    while [ $seconds -lt 60 ]; do
        seconds=$((seconds + 1))
        sleep 1
        look || { reason="launchd has dropped the job"; return 1; }
        [ -z "$signal" ] || { reason="it was ended by a signal, $signal"; return 1; }
        case $code in
            '' | '('* | 0) ;;
            *) reason="it ended with status $code"; return 1 ;;
        esac
        if [ -n "$pid" ]; then
            [ "$pid" = "$before" ] || seen=0
            before=$pid seen=$((seen + 1))
            [ $seen -lt 5 ] || { outcome="runs, process $pid"; return 0; }
        elif [ "$code" = 0 ]; then
            outcome="has run and ended with status 0"
            return 0
        fi
    done
    reason="it had no process for 5 s on end within 60 s"
    return 1
}
