#!/bin/sh
# Stands in for the programs of a Mac that a release calls: each is a link to this file. It appends
# its command line to $CALLS, checks what it is given, and makes what that program would make. An
# image and a package are texts that list the modes and names of the files in them.
#
#   FAIL        the beginning of a command line that fails with status 7
#   FAIL_TIMES  how often it fails; always by default
#   HANG        the beginning of a command line that does not end
#   ANSWER      what the notary service says
set -eu

record() { # PROGRAM ARGUMENT...: into $line, quoted as script/release-macos does
    line=
    for word; do
        case $word in
        *[!A-Za-z0-9_@%+=:,./-]*) word="'$word'" ;;
        esac
        line="${line:+$line }$word"
    done
    printf '%s\n' "$line" >>"$CALLS"
}

value_of() { # OPTION ARGUMENT...: the argument after the option, if it is there
    option=$1
    shift
    while [ $# -gt 1 ]; do
        if [ "$1" = "$option" ]; then
            printf '%s\n' "$2"
            return
        fi
        shift
    done
}

files_in() { # DIRECTORY
    (cd "$1" && find . ! -type l -exec ls -ld {} + | awk '{ print substr($1, 1, 10), $NF }' | sort -k 2)
}

make_component() { # FILE ARGUMENT...
    file=$1 root=$(value_of --root "$@") scripts=$(value_of --scripts "$@")
    # The component list is about the bundle in the root.
    grep -qF "<string>$(ls "$root")</string>" "$(value_of --component-plist "$@")"
    {
        echo payload
        files_in "$root"
        echo scripts
        files_in "$scripts"
    } >"$file"
}

make_package() { # FILE ARGUMENT...
    file=$1 distribution=$(value_of --distribution "$@") directory=$(value_of --package-path "$@")
    component=$(sed -n 's/.*<pkg-ref .*>\(..*\)<.*/\1/p' "$distribution")
    cat "$distribution" "$directory/$component" >"$file"
}

check_signature_of() { # FILE ARGUMENT...
    test -e "$1"
    entitlements=$(value_of --entitlements "$@")
    if [ -n "$entitlements" ]; then
        test -f "$entitlements"
    fi
}

program=${0##*/}
record "$program" "$@"

case $line in "${HANG-none}"*)
    exec /bin/sleep 60 >/dev/null 2>&1 # without the release's output, which would stay open
    ;;
esac
case $line in "${FAIL-none}"*)
    attempts=$(grep -cF -e "$FAIL" "$CALLS")
    if [ "$attempts" -le "${FAIL_TIMES-$attempts}" ]; then
        echo "$program: not now" >&2
        exit 7
    fi
    ;;
esac

for last; do :; done
case $line in
"codesign "*) check_signature_of "$last" "$@" ;;
"ditto "*) cp -RP "$5" "$last" ;; # after four options
"hdiutil "*) files_in "$(value_of -srcfolder "$@")" >"$last" ;;
"pkgbuild "*) make_component "$last" "$@" ;;
"productbuild "*) make_package "$last" "$@" ;;
"sleep "*) ;;
"xcrun notarytool submit "*)
    test -f "$3"
    accepted='{"id": "12-ab", "status": "Accepted"}'
    echo "${ANSWER-$accepted}"
    ;;
"xcrun notarytool log "*) echo "the reasons of $3" ;;
*) test -e "$last" ;; # install_name_tool, pkgutil, spctl, stapler
esac
