# shellcheck shell=bash disable=SC2034,SC2154  # names that pass between this file and its callers
# Sourced by ./run and ./test: what a build needs, and how a preset is built.
# The caller sets `tree`, the folder of the repository; `builds` becomes the folder of its builds. Everything said here
# goes to standard error, because the standard output of ./run belongs to qortool alone.

# What has to be there, as "package=probe". A probe is a command, or the path of a file. It is looked
# for first: a host that has a tool from elsewhere needs no package, and the look costs no process.
needs_build=("g++=g++" "cmake=cmake" "ninja-build=ninja" "libmnl-dev=/usr/include/libmnl/libmnl.h"
    "libzstd-dev=/usr/include/zstd.h" "zlib1g-dev=/usr/include/zlib.h")
needs_tests=("libgtest-dev=/usr/include/gtest/gtest.h" "libssl-dev=/usr/include/openssl/evp.h" "python3=python3"
    "libc-devtools=mtrace" "valgrind=valgrind" "iproute2=ip" "libpam0g-dev=/usr/include/security/pam_appl.h"
    "libnss-wrapper=/usr/lib/$HOSTTYPE-linux-gnu/libnss_wrapper.so" "umockdev=umockdev-run"
    "tzdata=/usr/share/zoneinfo/Europe/Berlin" "libfaketime=/usr/lib/$HOSTTYPE-linux-gnu/faketime/libfaketime.so.1"
    "xdg-user-dirs=xdg-user-dir" "systemd=systemd-path" "procps=free" "libgsasl-dev=/usr/include/gsasl.h"
    "openssl=openssl" "libspdlog-dev=/usr/include/spdlog/spdlog.h" "tmux=tmux" "doxygen=doxygen"
    "python3-openssl=/usr/lib/python3/dist-packages/OpenSSL/__init__.py"
    "clang-format-14=clang-format-14" "shellcheck=shellcheck"
    "zstd=zstd" "libjemalloc2=/usr/lib/$HOSTTYPE-linux-gnu/libjemalloc.so.2"
    "libtcmalloc-minimal4=/usr/lib/$HOSTTYPE-linux-gnu/libtcmalloc_minimal.so.4"
    "libmimalloc2.0=/usr/lib/$HOSTTYPE-linux-gnu/libmimalloc.so.2")
needs_windows=("cmake=cmake" "ninja-build=ninja" "g++-mingw-w64-x86-64-posix=x86_64-w64-mingw32-g++-posix"
    "wine64=/usr/lib/wine/wine64" "googletest=/usr/src/googletest/CMakeLists.txt" "python3=python3" "libc-devtools=mtrace"
    "openssl=openssl" "python3-openssl=/usr/lib/python3/dist-packages/OpenSSL/__init__.py")

say() { printf '%s\n' "$@" >&2; }

die() {
    say "$@"
    exit 1
}

# install_missing NEED...: installs the packages whose probes fail, or ends with what to type.
install_missing() {
    local need probe missing=()
    for need in "$@"; do
        probe=${need#*=}
        if [[ $probe == /* ]]; then [[ -e $probe ]]; else command -v "$probe" >/dev/null; fi ||
            missing+=("${need%%=*}")
    done
    ((${#missing[@]})) || return 0

    command -v apt-get >/dev/null ||
        die "These are missing: ${missing[*]} (their Debian names)." \
            "This host has no apt-get: please install them with its own package manager."

    local as_root=() install=(apt-get install -y --no-install-recommends "${missing[@]}")
    if ((EUID != 0)); then
        # A password can be asked for only where somebody can answer.
        if command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [[ -t 0 && -t 2 ]]; }; then
            as_root=(sudo)
        else
            die "These packages are missing: ${missing[*]}" \
                "Installing them takes root. Please type as root:" \
                "    apt-get update && ${install[*]}"
        fi
    fi

    say "Installing ${missing[*]}; this may take a minute ..."
    # Another apt may be at work on a fresh machine: wait for it instead of failing.
    local log quiet=(-qq -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=300)
    as_root+=(env DEBIAN_FRONTEND=noninteractive)
    # Hundreds of lines that matter only when something went wrong.
    log=$({ "${as_root[@]}" apt-get update "${quiet[@]}" && "${as_root[@]}" "${install[@]}" "${quiet[@]}"; } \
        </dev/null 2>&1) || die "$log" "These packages could not be installed: ${missing[*]}"
}

# may_build_in FOLDER: whether this user may build there. Another user, root for instance, may have built in it before.
may_build_in() {
    local lock
    if [[ ! -e $1 ]]; then [[ -w ${1%/*} ]]; return; fi
    [[ -w $1 ]] || return
    for lock in "$1"/*.lock; do
        [[ -w $lock || ! -e $lock ]] || return
    done
}

# Builds lie in the clone, or where this user may not write there, in the user's cache: the clone may belong to somebody
# else, or lie on a medium that is read-only. scripts/in-wine, which ctest starts, finds them by the variable.
builds=$tree/build
if ! may_build_in "$builds"; then
    cache=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}}
    builds=$cache/qor/build-$(cksum <<<"$tree" | tr ' ' -)
    if [[ ! -d $builds ]]; then
        if [[ $cache != /* ]] || ! mkdir -p "$builds" 2>/dev/null; then
            die "The user '$(id -un)' may not write to $tree/build, and has no folder of his own for the build." \
                "Please clone the repository to a folder that you may write to, or set XDG_CACHE_HOME to such a folder."
        fi
        say "The user '$(id -un)' may not write to $tree/build. The build goes to $builds instead."
    fi
fi
export QOR_BUILDS=$builds

# build PRESET [TARGET]: configures and builds it where something has changed; silent where nothing has.
# Standard input is left alone: it belongs to what is built. Returns non-zero on failure, in words
# instead of through `set -e`, which bash switches off in a function whose result is tested.
build() {
    local dir=$builds/$1
    mkdir -p "$builds" || return
    # One build at a time: two terminals may well start the first one together.
    { flock 9 && configure "$1" "$dir" && run_ninja "$dir" "${2:-all}"; } </dev/null >&2 9>"$dir.lock"
}

# CMake regenerates by itself when a CMakeLists.txt changes, but not when a preset does. The stamp
# says which tree was configured, because CMake refuses a build folder that has moved.
configure() {
    local stamp=$2/.configured fresh=()
    if [[ -f $stamp ]]; then
        if [[ $(<"$stamp") != "$tree" ]]; then
            fresh=(--fresh)
        elif [[ $tree/CMakePresets.json -ot $stamp ]]; then
            return
        fi
    fi
    (cd "$tree" && cmake "${fresh[@]}" --preset "$1" -B "$2" --log-level=WARNING) && echo "$tree" >"$stamp"
}

# What ninja says when it has nothing to do is not worth a line in every ./run.
run_ninja() {
    local noise=(-e '^ninja: Entering' -e '^ninja: no work' -e 'Re-checking globbed')
    ninja -C "$1" "$2" | { grep --line-buffered -v "${noise[@]}" || true; }
}
