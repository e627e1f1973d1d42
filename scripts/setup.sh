# shellcheck shell=bash disable=SC2034,SC2154  # names that pass between this file and its callers
# Sourced by ./run and ./test: installs what a build needs, and builds presets. The caller sets `tree`, the folder of
# the repository; this file sets `builds`, the folder of its builds. All messages go to standard error, because the
# standard output of ./run belongs to qortool alone.

# The packages that are needed, as "package=probe". A probe is a command or the path of a file. It is checked first: a
# host that has the tool from another source does not need the package, and the check starts no process.
needs_build=("g++=g++" "cmake=cmake" "ninja-build=ninja" "libmnl-dev=/usr/include/libmnl/libmnl.h"
    "zlib1g-dev=/usr/include/zlib.h" "libzstd-dev=/usr/include/zstd.h" "libdw-dev=/usr/include/elfutils/libdw.h"
    "libdebuginfod-dev=/usr/include/elfutils/debuginfod.h" "libtomlplusplus-dev=/usr/include/toml++/toml.h"
    "libsqlite3-dev=/usr/include/sqlite3.h" "libsystemd-dev=/usr/include/systemd/sd-bus.h"
    "libboost1.81-dev=/usr/include/boost/unordered/unordered_flat_map.hpp" "nlohmann-json3-dev=/usr/include/nlohmann/json.hpp")
needs_tests=("golang-github-burntsushi-toml-dev=/usr/share/gocode/src/github.com/BurntSushi/toml/internal/toml-test"
    "libgtest-dev=/usr/include/gtest/gtest.h" "libssl-dev=/usr/include/openssl/evp.h" "python3=python3"
    "libc-devtools=mtrace" "valgrind=valgrind" "iproute2=ip" "libpam0g-dev=/usr/include/security/pam_appl.h"
    "libnss-wrapper=/usr/lib/$HOSTTYPE-linux-gnu/libnss_wrapper.so" "umockdev=umockdev-run"
    "tzdata=/usr/share/zoneinfo/Europe/Berlin" "libfaketime=/usr/lib/$HOSTTYPE-linux-gnu/faketime/libfaketime.so.1"
    "xdg-user-dirs=xdg-user-dir" "systemd=systemd-path" "procps=free" "libgsasl-dev=/usr/include/gsasl.h"
    "openssl=openssl" "gzip=gzip" "zstd=zstd" "libspdlog-dev=/usr/include/spdlog/spdlog.h" "tmux=tmux" "doxygen=doxygen"
    "python3-cryptography=/usr/lib/python3/dist-packages/cryptography/__init__.py"
    "python3-serial=/usr/lib/python3/dist-packages/serial/__init__.py"
    "python3-openssl=/usr/lib/python3/dist-packages/OpenSSL/__init__.py"
    "clang-format-14=clang-format-14" "clang-tidy-16=clang-tidy-16" "shellcheck=shellcheck"
    "libjemalloc2=/usr/lib/$HOSTTYPE-linux-gnu/libjemalloc.so.2"
    "libtcmalloc-minimal4=/usr/lib/$HOSTTYPE-linux-gnu/libtcmalloc_minimal.so.4"
    "libmimalloc2.0=/usr/lib/$HOSTTYPE-linux-gnu/libmimalloc.so.2"
    "acl=getfacl" "attr=getfattr" "dbus=dbus-daemon" "python3-dbusmock=/usr/lib/python3/dist-packages/dbusmock/__init__.py"
    "systemd-journal-remote=/lib/systemd/systemd-journal-remote"
    "meson=meson" "make=make" "pkgconf=pkg-config" "elfutils=eu-addr2line" "heaptrack=heaptrack" "git=git" "sqlite3=sqlite3"
    "chromium=chromium" "chromium-driver=chromedriver" "firefox-esr=firefox-esr" "fonts-dejavu-core=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"
    "protobuf-compiler=protoc" "golang-go=go" "python3-jsonschema=/usr/lib/python3/dist-packages/jsonschema/__init__.py"
    "golang-github-google-pprof-dev=/usr/share/gocode/src/github.com/google/pprof/proto/profile.proto"
    "llvm-16=/usr/lib/llvm-16/bin/llvm-symbolizer" "dwz=dwz" "debuginfod=debuginfod" "libc6-dbg=/usr/share/doc/libc6-dbg"
    "man-db=man" "groff-base=groff" "mandoc=mandoc" "zsh=zsh" "fish=fish"
    "bash-completion=/usr/share/bash-completion/bash_completion")
needs_linux_packages=("debhelper=dh" "dpkg-dev=dpkg-buildpackage" "libssl-dev=/usr/include/openssl/evp.h"
    "libpam0g-dev=/usr/include/security/pam_appl.h" "python3=python3" "doxygen=doxygen")
needs_packages_tests=("debhelper=dh" "dpkg-dev=dpkg-buildpackage" "lintian=lintian" "mmdebstrap=mmdebstrap")
needs_fuzz=("clang-16=clang++-16" "libboost1.81-dev=/usr/include/boost/unordered/unordered_flat_map.hpp"
    "nlohmann-json3-dev=/usr/include/nlohmann/json.hpp" "libssl-dev=/usr/include/openssl/evp.h" "llvm-16=/usr/lib/llvm-16/bin/llvm-symbolizer"
    "libclang-rt-16-dev=/usr/lib/llvm-16/lib/clang/16/lib/linux/libclang_rt.fuzzer-$HOSTTYPE.a")
needs_windows=("cmake=cmake" "ninja-build=ninja" "libboost1.81-dev=/usr/include/boost/unordered/unordered_flat_map.hpp"
    "nlohmann-json3-dev=/usr/include/nlohmann/json.hpp" "g++-mingw-w64-x86-64-posix=x86_64-w64-mingw32-g++-posix"
    "libz-mingw-w64-dev=/usr/x86_64-w64-mingw32/include/zlib.h" "gzip=gzip" "zstd=zstd"
    "wine64=/usr/lib/wine/wine64" "googletest=/usr/src/googletest/CMakeLists.txt" "python3=python3" "libc-devtools=mtrace"
    "openssl=openssl" "python3-openssl=/usr/lib/python3/dist-packages/OpenSSL/__init__.py"
    "llvm-16=/usr/lib/llvm-16/bin/llvm-symbolizer" "clang-16=clang++-16" "libtomlplusplus-dev=/usr/include/toml++/toml.h"
    "golang-github-burntsushi-toml-dev=/usr/share/gocode/src/github.com/BurntSushi/toml/internal/toml-test")
needs_windows_packages=("nsis=makensis" "git=git")
needs_windows_tests=("python3-pefile=/usr/lib/python3/dist-packages/pefile.py")

say() { printf '%s\n' "$@" >&2; }

die() {
    say "$@"
    exit 1
}

# install_missing NEED...: installs the packages whose probes fail, or ends with the command to type.
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
        # Ask for a password only if there is a terminal to answer on.
        if command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [[ -t 0 && -t 2 ]]; }; then
            as_root=(sudo)
        else
            die "These packages are missing: ${missing[*]}" \
                "Installing them takes root. Please type as root:" \
                "    apt-get update && ${install[*]}"
        fi
    fi

    say "Installing ${missing[*]}; this may take a minute ..."
    # On a fresh machine, another apt may be running: wait for it instead of failing.
    local log quiet=(-qq -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=300)
    as_root+=(env DEBIAN_FRONTEND=noninteractive)
    # The hundreds of lines of output matter only if something goes wrong.
    log=$({ "${as_root[@]}" apt-get update "${quiet[@]}" && "${as_root[@]}" "${install[@]}" "${quiet[@]}"; } \
        </dev/null 2>&1) || die "$log" "These packages could not be installed: ${missing[*]}"
}

# may_build_in FOLDER: whether this user may build there. Another user, for example root, may have built there before.
may_build_in() {
    local lock
    if [[ ! -e $1 ]]; then [[ -w ${1%/*} ]]; return; fi
    [[ -w $1 ]] || return
    for lock in "$1"/*.lock; do
        [[ -w $lock || ! -e $lock ]] || return
    done
}

# Builds the libraries for Windows that Debian does not package.
build_windows_libraries() {
    local library
    for library in openssl zstd backtrace sqlite; do "$tree/scripts/build-$library-windows" || return; done
}

# Builds lie in the clone, or in the user's cache if the user may not write to the clone: it may belong to another user
# or lie on a read-only medium. ctest starts scripts/in-wine, which finds the builds through this variable.
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

# build PRESET [TARGET]: configures and builds the preset if something has changed; otherwise prints nothing. Does not
# read standard input, which belongs to the program that is built. Reports failure through the return code, because bash
# ignores `set -e` in a function whose result is tested.
build() {
    local dir=$builds/$1
    mkdir -p "$builds" || return
    # One build at a time: two terminals may start the first build together.
    { flock 9 && configure "$1" "$dir" && run_ninja "$dir" "${2:-all}"; } </dev/null >&2 9>"$dir.lock"
}

# CMake reconfigures by itself when a CMakeLists.txt changes, but not when a preset changes. The stamp contains the path
# of the tree, because CMake refuses a build folder that has moved.
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

# Drop ninja's messages that there is nothing to do, which every ./run would show.
run_ninja() {
    local noise=(-e '^ninja: Entering' -e '^ninja: no work' -e 'Re-checking globbed')
    ninja -C "$1" "$2" | { grep --line-buffered -v "${noise[@]}" || true; }
}
