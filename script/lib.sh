# Sourced by the other scripts, from any directory: strict mode, the project's root as the
# working directory, and how a step is announced and a missing tool installed.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(getconf _NPROCESSORS_ONLN)}
export CMAKE_BUILD_PARALLEL_LEVEL

say() { printf '%s\n' "$*" >&2; }
die() { say "$(basename "$0"): $*"; exit 1; }

# step TEXT COMMAND...: says what is done and how long it took; shows the output of a
# command that failed, and ends the script with its status.
step() {
    local text=$1 log start=$SECONDS status=0
    shift
    { mkdir -p build/log 2>/dev/null && [ -w build/log ]; } ||
        die "cannot write to $PWD/build; make it writable, or call from a copy of the checkout that is"
    log=build/log/$(printf '%s' "$text" | tr -cs 'A-Za-z0-9' -).log
    "$@" >"$log" 2>&1 </dev/null || status=$?
    if [ $status -ne 0 ]; then
        cat "$log" >&2
        say "$text: failed with status $status after $((SECONDS - start)) s; the output above is in $log"
        exit $status
    fi
    say "$text: $((SECONDS - start)) s"
}

as_root() { if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi; }

# need THING:PACKAGE...: each THING is a program on the path or an absolute path; what is
# missing is installed from Debian's PACKAGE, or named where there is no apt-get.
need() {
    local missing=() pair thing
    for pair in "$@"; do
        thing=${pair%%:*}
        case $thing in
            /*) [ -e "$thing" ] || missing+=("${pair#*:}") ;;
            *) command -v "$thing" >/dev/null || missing+=("${pair#*:}") ;;
        esac
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || die "not installed here: ${missing[*]}; install and call again"
    [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
        die "not installed here: ${missing[*]}; install them as root, or install sudo, and call again"
    step "Fetching the package lists" as_root apt-get update
    step "Installing ${missing[*]}" as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}

need_build_tools() {
    if [ "$(uname)" = Darwin ]; then
        xcode-select -p >/dev/null 2>&1 || die "no compiler: run xcode-select --install"
        [ -n "${JAVA_HOME:-}" ] || /usr/libexec/java_home >/dev/null 2>&1 || die "no JDK: install one, 11 or later, and call again"
        command -v cmake >/dev/null || die "no cmake: install 3.25 or later and call again"
    else
        # No empty array: under "set -u" the bash of macOS, 3.2, takes one for unset.
        set -- g++:g++ make:make cmake:cmake python3:python3
        [ -n "${JAVA_HOME:-}" ] || set -- "$@" jlink:openjdk-17-jdk-headless
        need "$@"
    fi
}

need_test_tools() {
    [ "$(uname)" = Darwin ] || need bwrap:bubblewrap strace:strace readelf:binutils unzip:unzip \
        /usr/lib/python3/dist-packages/yaml/__init__.py:python3-yaml \
        /usr/share/java/h2.jar:libh2-java /usr/share/java/slf4j-api.jar:libslf4j-java \
        /usr/share/java/servlet-api.jar:libservlet-api-java \
        /usr/include/gtest/gtest.h:libgtest-dev
}

# clang++, with the runtimes of its sanitizers and of libFuzzer, libc++ (the C++ library of
# macOS) and the sources of GoogleTest, to be compiled for it.
need_clang() {
    local runtimes=/usr/lib/llvm-14/lib/clang/14.0.6/lib/linux
    need clang++:clang "$runtimes/libclang_rt.fuzzer-$(uname -m).a:libclang-rt-14-dev" \
        /usr/lib/llvm-14/include/c++/v1/version:libc++-14-dev \
        /usr/lib/llvm-14/lib/libc++abi.so:libc++abi-14-dev \
        /usr/src/googletest/CMakeLists.txt:googletest
}

# build PRESET: configures where that has not been done, and builds.
build() {
    [ -f "build/$1/Makefile" ] || [ -f "build/$1/build.ninja" ] ||
        step "Configuring $1" cmake --preset "$1"
    step "Building $1" cmake --build --preset "$1"
}

# pack DIRECTORY: installs and packs what was built there.
pack() {
    rm -rf "$1/Applications"
    step "Installing $1" cmake --install "$1" --prefix "$1/Applications"
    step "Packing $1" cpack --config "$1/CPackConfig.cmake"
}
