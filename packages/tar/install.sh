#!/bin/sh
# Installs qor from the folder in which this script lies:
#
#     install.sh [--prefix FOLDER]                installs; without a FOLDER, into /usr/local, or for a user who is not
#                                                 root into .local in his home
#     install.sh --uninstall [--prefix FOLDER]    removes what was installed, and nothing else
#     install.sh --check                          says what the host lacks, and changes nothing
#     install.sh --help                           says this
#
# It is not necessary: the programs run in this folder, too.
set -eu

here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd -P)
action=install
prefix=

say() { printf '%s\n' "$@"; }
die() {
    say "$@" >&2
    exit 1
}
usage='usage: install.sh [--prefix FOLDER] [--uninstall | --check]'

while [ $# -gt 0 ]; do
    case $1 in
    --uninstall) action=uninstall ;;
    --check) action=check ;;
    --help)
        say "$usage"
        exit
        ;;
    --prefix=?*) prefix=${1#*=} ;;
    --prefix)
        # An empty name is a mistake of the caller, and not the usual folder.
        [ -n "${2-}" ] || die "$usage"
        prefix=$2
        shift
        ;;
    *) die "$usage" ;;
    esac
    shift
done
if [ -z "$prefix" ]; then
    if [ "$(id -u)" = 0 ]; then
        prefix=/usr/local
    else
        prefix=${HOME:?"There is no home here. Please name a folder with --prefix."}/.local
    fi
fi
case $prefix in
/*) ;;
*) prefix=$PWD/$prefix ;;
esac
[ "$prefix" = / ] || prefix=${prefix%/}
# What was installed: "file PATH" and "folder PATH", below the prefix.
list=share/qor/installed

# package_of LIBRARY: the Debian package that contains it.
package_of() {
    case $1 in
    libcrypt.so.*) echo libcrypt1 ;;
    libcrypto.so.3 | libssl.so.3) echo libssl3 ;;
    libdebuginfod.so.1) echo libdebuginfod1 ;;
    libdw.so.1) echo libdw1 ;;
    libmnl.so.0) echo libmnl0 ;;
    libpam.so.0) echo libpam0g ;;
    libsqlite3.so.0) echo libsqlite3-0 ;;
    libsystemd.so.0) echo libsystemd0 ;;
    libz.so.1) echo zlib1g ;;
    libzstd.so.1) echo libzstd1 ;;
    esac
}

# lacks USER LIBRARY: says that it is missing.
lacks() {
    package=$(package_of "$2")
    say "$1 needs $2, which is missing here${package:+. In Debian the package is }$package."
}

# Whether the loader finds a library.
has_library() { PATH=$PATH:/sbin:/usr/sbin ldconfig -p 2>/dev/null | grep -q "^[[:space:]]*$1 "; }

# check FOLDER: says which parts of qor cannot be used on this host. Fails if no program runs at all.
check() {
    reason=$("$1/bin/qortool" --quiet dow 1/1/2000 2>&1 >/dev/null) || {
        say "The programs do not run on this host:" "${reason:-qortool ends with an error.}"
        return 1
    }
    all=true
    for file in "$1"/bin/* "$1"/lib*/qor/*.so "$1"/lib/*/qor/*.so; do
        [ -f "$file" ] || continue
        for library in $(LC_ALL=C ldd "$file" 2>/dev/null | sed -n 's/^[[:space:]]*\([^ ]*\) => not found.*/\1/p'); do
            lacks "${file##*/}" "$library"
            all=false
        done
    done
    # These are loaded when they are first wanted.
    for pair in 'libz.so.1:logs that gzip has compressed' 'libzstd.so.1:logs that zstd has compressed' \
        'libdw.so.1:functions and lines of addresses'; do
        has_library "${pair%%:*}" && continue
        lacks "What reads ${pair#*:}" "${pair%%:*}"
        all=false
    done
    if $all; then
        say "Nothing is missing on this host."
    else
        say "Everything else works."
    fi
}

# remove_listed FILE [KEPT]: removes the files that FILE lists, without those that KEPT lists, and then the folders that
# are empty.
remove_listed() {
    if [ $# -gt 1 ]; then grep -vxF -f "$2" -- "$1"; else cat -- "$1"; fi | sed -n 's/^file //p' |
        while read -r path; do rm -f -- "$prefix/$path"; done
    sed -n 's/^folder //p' "$1" | LC_ALL=C sort -r | while read -r path; do
        folder=$prefix/$path
        rmdir -- "${folder%/.}" 2>/dev/null || true
    done
}

uninstall() {
    [ -f "$prefix/$list" ] || die "There is no qor in $prefix that this script has installed."
    old=$(mktemp)
    cp -- "$prefix/$list" "$old"
    rm -f -- "$prefix/$list"
    remove_listed "$old"
    rm -f -- "$old"
    say "qor is removed from $prefix."
}

install() {
    if [ -d "$prefix" ] && [ "$(cd -- "$prefix" && pwd -P)" = "$here" ]; then
        die "$prefix is the folder of this script: the programs there run as they are."
    fi
    check "$here" || exit 1

    new=$(mktemp)
    old=$(mktemp)
    trap 'rm -f -- "$new" "$old"' EXIT
    if [ -f "$prefix/$list" ]; then cp -- "$prefix/$list" "$old"; fi
    # A folder that is there already belongs to somebody else, unless the last installation has made it.
    { (cd -- "$here" && find . -type d) && say ./share/qor; } | LC_ALL=C sort -u | sed 's,^\./,,' |
        while read -r path; do
            if [ ! -d "$prefix/$path" ] || grep -qxF -- "folder $path" "$old"; then say "folder $path"; fi
        done >"$new"
    (cd -- "$here" && find . ! -type d ! -path ./install.sh) | LC_ALL=C sort | sed 's,^\./,file ,' >>"$new"
    # What root installs belongs to root, and everybody can use it: the files here are those of whoever unpacked them.
    umask 022
    mkdir -p -- "$prefix/share/qor" || die "The folder $prefix cannot be written."
    # The list is there before the files, so that an installation that is cut off can be removed.
    cat "$old" "$new" | LC_ALL=C sort -u >"$prefix/$list" || die "The folder $prefix cannot be written."

    sed -n 's/^file //p' "$new" | while read -r path; do
        to=$prefix/$path
        [ -d "${to%/*}" ] || mkdir -p -- "${to%/*}"
        # A program that runs keeps the old file.
        cp -P -- "$here/$path" "$to.new" && { [ -h "$to.new" ] || chmod u=rwX,go=rX "$to.new"; } &&
            mv -f -- "$to.new" "$to" || exit 1
    done || die "qor is not completely installed in $prefix."
    remove_listed "$old" "$new"
    cat "$new" >"$prefix/$list"
    say "qor is installed in $prefix."
    case :$PATH: in
    *:"$prefix/bin":*) ;;
    *) say "The programs are in $prefix/bin, which is not in PATH." ;;
    esac
}

case $action in
check) check "$here" ;;
*) "$action" ;;
esac
