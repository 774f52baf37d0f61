#!/bin/sh
# A stand-in for each of a Mac's tools that a release calls, by the name it is called by. It writes
# its command line to $CALLS, checks what it is given, and makes what the tool would make.
#   FAIL    a command line that fails with status 7; FAIL_TIMES, how often, always by default
#   HANG    a command line that waits to be ended
#   ANSWER  what the notary service says
set -eu
line=${0##*/} last='' source='' root='' scripts='' list='' distribution=''
for word; do
    case $last in
    -srcfolder | --root) root=$word ;; --scripts) scripts=$word ;;
    --component-plist) list=$word ;; --distribution) distribution=$word ;;
    --entitlements) test -f "$word" ;;
    esac
    source=$last; last=$word
    case $word in '' | *[!A-Za-z0-9_@%+=:,./-]*) word="'$word'" ;; esac # as shlex.quote
    line="$line $word"
done
printf '%s\n' "$line" >>"$CALLS"
[ "$line" != "${HANG-}" ] || exec /bin/sleep 60 >/dev/null 2>&1 # does not keep a release's output open
[ "$line" != "${FAIL-}" ] || [ "$(grep -cxF -e "$line" "$CALLS")" -gt "${FAIL_TIMES:-99}" ] || exit 7

tree() { # DIRECTORY: a line for each file below it, of mode and name
    (cd "$1" && find . ! -type l -exec ls -ld {} + | awk '{ print substr($1, 1, 10), $NF }' | sort -k 2)
}

case $line in
ditto*) cp -RP "$source" "$last" ;;
hdiutil*) tree "$root" >"$last" ;;
pkgbuild*)
    grep -qF "<string>$(ls "$root")</string>" "$list" # the component list is for the payload's bundle
    { echo payload && tree "$root" && echo scripts && tree "$scripts"; } >"$last" ;;
productbuild*)
    component=$(sed -n 's/.*<pkg-ref .*>\(..*\)<.*/\1/p' "$distribution")
    cat "$distribution" "${distribution%/*}/$component" >"$last" ;;
"xcrun notarytool submit"*)
    test -f "$3"
    echo "${ANSWER-"{\"id\": \"12-ab\", \"status\": \"Accepted\"}"}" ;;
"xcrun notarytool log"*) echo "the reasons of $3" ;;
sleep*) ;;
*) test -e "$last" ;; # codesign, install_name_tool, stapler, spctl, pkgutil
esac
