"""Stand-ins for the tools that only a Mac has, in the directory at the front of the scripts' PATH; and
for operator-tool, which lets a test act at a step. Each is a script of sh. DIRECTORY is where the tests'
own files are."""

# As a signature does, the file _CodeSignature/CodeResources notices what is changed later; it has the
# team. There are two texts for a bundle without one: its executable may have the linker's signature.
CODESIGN = """echo "codesign $1" >>DIRECTORY/calls
for path; do :; done
fail() { echo "$path: $1" >&2; exit 1; }
seal=$path/Contents/_CodeSignature/CodeResources
if [ ! -e "$seal" ]; then
    for executable in "$path"/Contents/MacOS/*; do
        [ ! -e "$executable" ] || fail "code has no resources but signature indicates they must be present"
    done
    fail "code object is not signed at all"
fi
[ -z "$(find "$path" -newer "$seal")" ] || fail "a sealed resource is missing or invalid
file added: x"
case $* in *\\"$(cat "$seal")\\"*) ;; *OU*) fail "test-requirement: code failed to satisfy" ;; esac"""

# -N clears access lists, which DIRECTORY/lists records. With -R, those of what links lead to as well, as
# since macOS 12.
CHMOD = """case $1 in
    -N) shift; printf '%s\\n' "$@" >>DIRECTORY/lists ;;
    -RN) find "$2" >>DIRECTORY/lists; find "$2" -type l -exec readlink {} \\; >>DIRECTORY/lists ;;
    *) exec /bin/chmod "$@" ;;
esac"""

# One access control list on each path, and on ACL one more that allows changes.
LS = r"""[ "$1" = -lden ] || exec /bin/ls "$@"
shift
/bin/ls -ldn "$@" | awk -v acl="ACL" '{ print; print " 0: group:everyone deny delete" }
    acl && substr($0, length($0) - length(acl)) == " " acl { print " 1: user:bob allow write" }' """

# What DIRECTORY/locked names cannot be removed, where RM is installed, until chflags has been called for it.
CHFLAGS = """[ -e DIRECTORY/locked ] || exit 0
for path; do [ "${path##*/}" != "$(cat DIRECTORY/locked)" ] || rm DIRECTORY/locked; done"""
RM = """if [ -e DIRECTORY/locked ]; then
    for path; do
        if [ -n "$(find "$path" -name "$(cat DIRECTORY/locked)" 2>/dev/null)" ]; then
            echo "rm: $path: Operation not permitted" >&2
            exit 1
        fi
    done
fi
exec /bin/rm "$@" """

STAND_INS = {
    "chflags": CHFLAGS,
    "chmod": CHMOD,
    "codesign": CODESIGN,
    "ls": LS.replace("ACL", ""),
    "pkgutil": "[ -e DIRECTORY/receipts/$2 ] || exit 1; [ $1 != --forget ] || rm DIRECTORY/receipts/$2",
    "sync": "exit 0",
    "xattr": 'echo "xattr $1" >>DIRECTORY/calls; [ $1 = -rd ] || [ -e DIRECTORY/quarantine ]',
}

# Runs the product's own, and names each rename and exchange: "rename new ready", "exchange ready/job job",
# and the second of the same name "exchange ready/job job, again". What DIRECTORY/at says of a step happens
# then.
OPERATOR_TOOL = """case $1 in rename | exchange) ;; *) exec DIRECTORY/operator-tool "$@" ;; esac
[ -e DIRECTORY/at ] || exec DIRECTORY/operator-tool "$@"
name() {
    case $1 in
        */Applications/Orvane.app) echo app ;;
        *.plist) echo job ;;
        */Orvane/gone/*) echo gone ;;
        *) echo "$1" | sed 's|.*/Application Support/||; s|^Orvane/||; s|^\\([a-z-]*\\)\\.[^/]*|\\1|' ;;
    esac
}
step="$1 $(name "$2") $(name "$3")"
echo "$step" >>DIRECTORY/steps
[ "$(grep -cFx "$step" DIRECTORY/steps)" = 1 ] || step="$step, again"
BEFORE='' AFTER=''
. DIRECTORY/at
eval "$BEFORE"
DIRECTORY/operator-tool "$@"
status=$?
eval "$AFTER"
exit $status"""
