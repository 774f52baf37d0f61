# What install, uninstall and check-install have in common. Each sources this file from its own directory: whoever
# may write here could as well change the script. Functions report by their status; these variables say more:
#   reason     why a function has failed, as a clause for a message
#   answer     what launchctl printed last; job_pid, job_runs and job_end are fields of it
# The script has set me, its name, and here, its directory.
# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # variables of the scripts, and theirs here

export PATH=/usr/bin:/bin:/usr/sbin:/sbin
umask 022
set -u

# How long things may take, in seconds. Loops count rounds of a pause each, not the time of day, which jumps when a
# Mac has slept.
pause=1            # between two looks at launchd
steady=5           # a version has come up when it has had one process for so long
start_limit=60     # until it must have come up
bootstrap_limit=30 # launchd refuses a job for some seconds after one of that label has ended
stop_limit=90      # until the job must have ended: longer than its ExitTimeOut, 60, when launchd kills it
bootout_limit=75   # launchctl bootout may wait for that end itself: also longer than ExitTimeOut
launchctl_limit=20 # any other call of launchctl
plutil_limit=20
pkgutil_limit=60
codesign_limit=300 # it reads the whole bundle
check_limit=300    # all of check-install; therefore less for each codesign there
check_codesign_limit=60
copy_limit=1800    # the bundle may be on a slow volume
sync_limit=120
lock_limit=5       # what a killed call has started may still be at work

tool=$here/operator-tool
inner=Contents/Library/LaunchServices/OrvaneService.app/Contents
# What the launcher allows in a line of the override file.
allowed='^(-Xmx(0[xX][0-9a-fA-F]+|[0-9]+)[kKmMgGtT]?$|-Djava\.net\.preferIPv4Stack=|-Dorv\.security\.mode=)'
# The names in $kept that only a call at work, or an interrupted one, has there. The last two are of earlier scripts.
unfinished=('new' 'new.*' 'gone' 'gone.*' 'ready.*' 'replacing.*' 'replaced.*' 'old' 'probe.*')

say() { printf '%s\n' "${*//[[:cntrl:]]/?}"; }
die() { # STATUS TEXT...
    local status=$1
    shift
    say "$me: $*" >&2
    exit "$status"
}
refuse() { die 1 "$*; nothing was changed"; }

exists() { [ -e "$1" ] || [ -L "$1" ]; }
is_file() { [ -f "$1" ] && [ ! -L "$1" ]; }

# ------------------------------------------------------------------------------------------------ places

# The places of the system-wide installation, or of that of the caller, whose home directory is HOME.
set_places() { # [HOME]
    home=${1-}
    if [ -z "$home" ]; then
        domain=system label=com.vaultory.service
        jobs=/Library/LaunchDaemons template=$inner/Resources/launchd/$label.plist
    else
        domain=gui/$(id -u) label=com.vaultory.service.agent
        jobs=$home/Library/LaunchAgents template=$inner/Resources/launchd/$label.plist.in
    fi
    target=$domain/$label
    job=$jobs/$label.plist
    app=$home/Applications/Orvane.app
    log=$home/Library/Logs/OrvaneService.log
    support="$home/Library/Application Support"
    kept=$support/Orvane
    data=$support/Quillrest
    override=$data/conf/jvm_args
    package_stage="$support/Orvane.installing" # where the Installer puts the bundle of a package
}

# ----------------------------------------------------------------------------------------- files, bundles

# Runs a command in a process group of its own; status 124 if it has not ended in time and was killed.
limited() { "$tool" limit "$@"; } # SECONDS COMMAND [ARGUMENT...]

# The first megabyte of a regular file that is no link.
contents() { "$tool" read "$1" first 1048576 2>/dev/null; }

# A property list on standard input, as XML.
as_xml() { limited "$plutil_limit" plutil -convert xml1 -o - - 2>&1; }

# A text of a bundle's Info.plist, empty if it has none.
info() { # CONTENTS-DIRECTORY KEY
    contents "$1/Info.plist" | as_xml | sed -n "/<key>$2</{n;s/.*<string>\([^<]*\)<.*/\1/p;}"
}
version() { info "$1/$inner" CFBundleShortVersionString; }

# Whether an access control list allows others to change what find finds. A name with a line feed can add an entry
# here, and hide none.
has_access_list() { # PATH [FIND-ARGUMENT...]
    find "$@" -exec ls -lden {} + 2>/dev/null |
        grep -Eq '^ [0-9]+: .* allow .*(write|append|delete|add_|chown)'
}

# The property list of the bundle's job for this installation. An agent's names the user's home directory.
job_of() { # BUNDLE
    local text
    if [ -z "$home" ]; then
        contents "$1/$template"
        return
    fi
    text=$(printf '%s\n' "$home" | sed 's/&/\&amp;/g; s/</\&lt;/g; s/[\\&|]/\\&/g')
    contents "$1/$template" | sed "s|@HOME@|$text|g"
}

# -------------------------------------------------------------------------------------------------- launchd

# Asks launchctl: 0 it has answered; 1 there is no such job or domain; 2 no answer.
ask() { # ARGUMENT...
    local try status
    reason="launchctl does not answer"
    for try in 1 2 3; do
        if [ "$try" != 1 ]; then sleep "$pause" 9>&-; fi
        answer=$(limited "$launchctl_limit" launchctl "$@" 2>&1)
        status=$?
        if [[ $answer = "operator-tool: "* && $status != 124 ]]; then continue; fi # 125 is its own failure, too
        case $status in
            0) return 0 ;;
            112 | 113 | 125) return 1 ;; # no such domain; no such job; nobody is logged in to that domain
            124) return 2 ;;             # once is enough of that
        esac
    done
    return 2
}

# A field of the job itself in the answer, which begins behind one tab; those of its parts have more.
field() { # NAME
    local start=$'\n\t'"$1 = " text
    case $answer in
        *"$start"*)
            text=${answer#*"$start"}
            printf '%s' "${text%%$'\n'*}"
            ;;
    esac
}

# Looks for the job, as ask does.
look() {
    local status
    job_pid='' job_runs='' job_end=''
    ask print "$target"
    status=$?
    if [ "$status" = 0 ]; then
        job_pid=$(field pid)
        job_runs=$(field runs)
        # How it has ended before; the first two are missing unless a signal or launchd has ended it.
        job_end=$(field 'last terminating signal')$(field 'last exit reason')
        job_end=${job_end:-$(field 'last exit code')}
    fi
    return "$status"
}

# Whether an administrator has switched the job off: 0 yes, 1 no, 2 no answer.
is_disabled() {
    ask print-disabled "$domain" || return $?
    case $answer in
        *"\"$label\" => true"* | *"\"$label\" => disabled"*) return 0 ;;
    esac
    return 1
}

# Ends the job. launchctl bootout waits neither for launchd to forget it nor for its process to end.
stop() {
    local round status bootout=0 process='' born=''
    for ((round = 0; round <= stop_limit; round++)); do
        look
        status=$?
        if [ "$status" = 2 ]; then return 1; fi
        if [ -n "$job_pid" ] && [ "$job_pid" != "$process" ]; then
            process=$job_pid
            born=$(started_at "$process")
        fi
        if [ "$status" = 1 ]; then
            if [ -z "$born" ] || [ "$(started_at "$process")" != "$born" ]; then return 0; fi
        else
            if [ "$round" = 0 ]; then say "Stopping $label${process:+, process $process}."; fi
            # It can fail once, and succeed when repeated. One that hangs is not repeated.
            if [ $((round % 5)) = 0 ] && [ "$bootout" != 124 ]; then
                limited "$bootout_limit" launchctl bootout "$target" >/dev/null 2>&1
                bootout=$?
            fi
        fi
        sleep "$pause" 9>&-
    done
    reason="$label${process:+, process $process,} has not ended within $stop_limit s"
    return 1
}
started_at() { ps -o lstart= -p "$1"; } # with it, the number of a process is not another's

# ------------------------------------------------------------------------ what install and uninstall change

# Decides whose installation it is: with USER the caller's own, otherwise the system-wide one, root's.
choose_installation() { # [USER]
    if [ -z "$1" ]; then
        [ "$(id -u)" = 0 ] || die 1 "the system-wide service is root's: call with sudo, or --user"
        set_places
        return
    fi
    [ "$(id -u)" != 0 ] ||
        die 1 "an agent is its user's: call launchctl asuser UID sudo -H -u NAME $here/$me --user"
    [[ $HOME =~ ^/Users/[^/]+$ && -O $HOME ]] ||
        die 1 "HOME is '$HOME', not the caller's directory in /Users; with sudo, add -H"
    set_places "$HOME"
}

# Whether only root may write to the directories above $kept. Whoever else may could replace it at any moment. An
# agent is as safe as its user's account.
is_above_only_roots() {
    local directory
    if [ -n "$home" ]; then return 0; fi
    for directory in / /Library "$support"; do
        exists "$directory" || continue
        if [ -n "$(find "$directory" -prune '(' ! -type d -o ! -user 0 -o -perm -020 -o -perm -002 ')')" ] ||
            has_access_list "$directory" -prune; then
            reason="others may write to $directory: chown root, chmod go-w, chmod -N"
            return 1
        fi
    done
}

# The directory in which only the owner may write: the lock, the version kept, and what a call is at work on.
make_kept_directory() {
    mkdir -p "$support" || return
    if [ ! -d "$kept" ]; then mkdir -m 700 "$kept" || return; fi
    if [ -L "$kept" ] || [ ! -O "$kept" ]; then return 1; fi
    # An access list that it has inherited would let others in, and be passed on to what is written there.
    chmod 700 "$kept" && chmod -N "$kept"
}

# Calls the script again with the lock. All that it starts inherits the lock, on descriptor 9: as long as something
# that a killed call has started is at work, the next call is refused. Signals are ignored from here on: a call
# that has begun ends. What limited starts gets their default actions again.
call_with_lock() { # [ARGUMENT...]
    local status
    "$tool" >/dev/null 2>&1
    status=$? # that of a wrong call, unless it cannot be executed at all
    if [ "$status" != 2 ]; then
        refuse "$tool cannot be executed, status $status: if it is quarantined or not signed, macOS kills it"
    fi
    is_above_only_roots || refuse "$reason"
    make_kept_directory || refuse "$kept must be a directory that the caller owns: remove it"
    trap '' HUP INT QUIT TERM PIPE TSTP TTOU TTIN ALRM USR1 USR2
    STAGE="locked $$" "$tool" lock "$kept/lock" "$lock_limit" /bin/bash -p "$here/$me" "$@"
    status=$?
    case $status in
        124) refuse "another install or uninstall is at work" ;;
        125 | 126 | 127) refuse "cannot lock $kept/lock" ;;
        137) say "$me: killed; the next call completes or undoes what this one has begun" >&2 ;;
    esac
    exit "$status"
}

begin_work() {
    # The bundle with this script may be renamed: a relative path follows it.
    cd "$here" || refuse "cannot enter $here"
    tool=./operator-tool
    remove_scratch
    mkdir -p "$kept/gone" || refuse "cannot write $kept"
    discard "$kept/new" || refuse "cannot write $kept" # which could not be removed
    trap end_work EXIT
}
end_work() {
    cd / || true # the directory may be removed now
    remove_scratch || say "$me: cannot remove what is left in $kept" >&2
}

# What a call copies and what it removes; a suffix is of earlier scripts.
remove_scratch() {
    local path failed=0
    for path in "$kept"/new "$kept"/new.* "$kept"/gone "$kept"/gone.*; do
        exists "$path" || continue
        rm -rf "$path" 2>/dev/null && continue
        unlock "$path" >/dev/null 2>&1
        rm -rf "$path" 2>/dev/null || failed=1
    done
    return "$failed"
}
# An agent's user may have locked files, or directories without the right to write.
unlock() {
    clear_flags "$1"
    clear_access_lists "$1"
    chmod -R u+rwX "$1"
}
clear_flags() { find "$1" -exec chflags -h nouchg,noschg,nouappnd,nosappnd {} +; }
# Not chmod -RN, which since macOS 12 changes what symbolic links lead to.
clear_access_lists() { find "$1" ! -type l -exec chmod -N {} +; }

# Exchanges, renames and removes names; no content is copied, nothing else is replaced, no link is followed. A tool
# that was killed may have done its work: what counts is what is on disk then.
inode() { # empty if there is no such file
    local number
    read -r number _ < <(ls -di "$1" 2>/dev/null)
    printf '%s' "${number-}"
}
exchange() { # ONE OTHER
    local was
    was=$(inode "$2")
    "$tool" exchange "$1" "$2" || { [ -n "$was" ] && [ "$(inode "$1")" = "$was" ]; }
}
move() { # FROM TO
    "$tool" rename "$1" "$2" || { ! exists "$1" && exists "$2"; }
}
discard() { # PATH, of which a call that has begun to remove it leaves nothing in its place
    local number=1
    exists "$1" || return 0
    while exists "$kept/gone/$number"; do number=$((number + 1)); done
    move "$1" "$kept/gone/$number"
}
