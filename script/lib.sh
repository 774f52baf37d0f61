# Sourced by the other scripts, from any directory: strict mode, the project's root as the
# working directory, and how a step is announced and a missing tool installed.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(getconf _NPROCESSORS_ONLN)}
export CMAKE_BUILD_PARALLEL_LEVEL

# show_help "$@": if the first argument is --help, prints the comment at the head of the script, and ends.
show_help() {
    if [ "${1-}" = --help ]; then
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "script/$(basename "$0")"
        exit
    fi
}

say() { printf '%s\n' "$*" >&2; }
die() { say "$(basename "$0"): $*"; exit 1; }

# step TEXT COMMAND...: says what is done and how long it took; shows the output of a command that
# failed, and ends the script with its status. A function ends at its first command that fails, so
# call step where no condition tests its status.
step() {
    local text=$1 log start=$SECONDS status
    shift
    { mkdir -p build/log 2>/dev/null && [ -w build/log ]; } ||
        die "cannot write to $PWD/build; make it writable, or call from a copy of the checkout that is"
    log=build/log/$(printf '%s' "$text" | tr -cs 'A-Za-z0-9' -).log
    set +e
    (set -e; "$@") >"$log" 2>&1 </dev/null
    status=$?
    set -e
    if [ $status -ne 0 ]; then
        cat "$log" >&2
        say "$text: failed with status $status after $((SECONDS - start)) s; the output above is in $log"
        exit $status
    fi
    say "$text: $((SECONDS - start)) s"
}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# need THING:PACKAGE...: each THING is a program on the path or an absolute path; what is missing is
# installed from Debian's PACKAGE, or named where there is no apt-get.
need() {
    local pair
    for pair; do
        shift
        case $pair in
            /*) [ -e "${pair%%:*}" ] || set -- "$@" "${pair#*:}" ;;
            *) command -v "${pair%%:*}" >/dev/null || set -- "$@" "${pair#*:}" ;;
        esac
    done
    [ $# = 0 ] || install_packages "$@"
}

install_packages() {
    command -v apt-get >/dev/null || die "not installed here: $*; install and call again"
    [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
        die "not installed here: $*; install them as root, or install sudo, and call again"
    step "Fetching the package lists" as_root apt-get update
    step "Installing $*" as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "$@"
}

need_build_tools() {
    if [ "$(uname)" = Darwin ]; then
        xcode-select -p >/dev/null 2>&1 || die "no compiler: run xcode-select --install"
        [ -n "${JAVA_HOME:-}" ] || /usr/libexec/java_home >/dev/null 2>&1 || die "no JDK: install one, 11 or later, and call again"
        command -v cmake >/dev/null || die "no cmake: install 3.25 or later and call again"
    else
        need g++:g++ make:make cmake:cmake python3:python3 objcopy:binutils
        [ -n "${JAVA_HOME:-}" ] || need jlink:default-jdk-headless
    fi
}

need_test_tools() {
    if [ "$(uname)" = Darwin ]; then
        build/venv/bin/python3 -c 'import hypothesis, pytest' 2>/dev/null ||
            step "Fetching pytest into build/venv" fetch_pytest
        return
    fi
    local python=/usr/lib/python3/dist-packages java=/usr/share/java
    need bwrap:bubblewrap strace:strace nm:binutils /usr/include/gtest/gtest.h:libgtest-dev \
        $python/pytest:python3-pytest $python/hypothesis:python3-hypothesis \
        $java/h2.jar:libh2-java $java/slf4j-api.jar:libslf4j-java $java/servlet-api.jar:libservlet-api-java
}
fetch_pytest() {
    python3 -m venv --clear build/venv
    build/venv/bin/pip install 'pytest<9' hypothesis # Debian 13 has pytest 8, Debian 12 has 7
}

# clang++, with its sanitizers, libc++ (the C++ library of macOS) and the sources of GoogleTest, to
# be compiled for it.
need_clang() {
    need clang++:clang /usr/src/googletest/CMakeLists.txt:googletest
    clang_is_whole || install_packages libclang-rt-dev libc++-dev libc++abi-dev
}
clang_is_whole() {
    clang++ -stdlib=libc++ -fsanitize=address,undefined -x c++ -o /dev/null - 2>/dev/null <<<'#include <string>
        int main() { return std::string().size(); }'
}

# configure PRESET: afresh where the checkout was moved or copied with its build directory, which CMake
# would reject.
configure() {
    local fresh=''
    if moved "$1"; then
        fresh=--fresh
    fi
    step "Configuring $1" cmake --preset "$1" $fresh
}
moved() {
    local recorded
    [ -f "build/$1/CMakeCache.txt" ] || return 1
    recorded=$(sed -n 's/^CMAKE_CACHEFILE_DIR:INTERNAL=//p' "build/$1/CMakeCache.txt")
    ! [ "$recorded" -ef "build/$1" ]
}

# build PRESET: configures, as the preset may have changed since, and builds.
build() {
    configure "$1"
    step "Building $1" cmake --build --preset "$1"
}
