# shellcheck shell=bash disable=SC2154  # names that pass between this file and its callers
# Sourced by the scripts that build a library for 64-bit Windows from Debian's source package, because no Debian package
# contains the library. The caller sources setup.sh first and then defines
#
#     library           the library's name, for the result and for messages
#     source_package    the name of Debian's source package
#     needs             the packages that the build needs, in the form that install_missing takes
#     compile FOLDER DESTINATION    builds DESTINATION/LIBRARY from the sources in FOLDER
#
# The caller then calls `make_library "$@"`. The result is kept in $QOR_CACHE (otherwise ~/.cache/qor), where later calls
# from any clone find it. --again builds it again, for instance after a security update. build/LIBRARY-windows is a link to
# it. The scripts read the apt settings of the host and never change them; only their own download uses Debian's source
# repository.

# Prints the host's Debian repositories as source repositories, for `apt-get source`. Those of other vendors seldom have
# sources.
source_list() {
    local key=/usr/share/keyrings/debian-archive-keyring.gpg options=""
    [[ -e $key ]] && options="[signed-by=$key] "
    apt-get indextargets --format "deb-src $options\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" \
        'Created-By: Packages' 'Origin: Debian' | sort -u
}

# download FOLDER: unpacks the source package there, with Debian's patches applied. It takes the newest version; if the
# mirror lists that version but does not have it yet, it takes the next older one.
download() {
    local state=$1/apt version
    mkdir -p "$state/lists/partial" "$state/cache/archives/partial"
    source_list >"$state/sources.list"
    if [[ ! -s $state/sources.list ]]; then
        say "apt knows no repository of Debian. Is its list of packages there? 'apt-get update' fetches it."
        return 1
    fi
    local settings=(-q -o "Dir::Etc::SourceList=$state/sources.list" -o Dir::Etc::SourceParts=/dev/null
        -o "Dir::State::Lists=$state/lists" -o "Dir::Cache=$state/cache" -o APT::Sandbox::User=root)
    apt-get "${settings[@]}" update || return
    for version in $(apt-cache "${settings[@]}" showsrc --only-source "$source_package" |
        sed -n 's/^Version: //p' | sort -Vru); do
        (cd "$1" && apt-get "${settings[@]}" source "$source_package=$version") && return
    done
    return 1
}

# make_result RESULT MADE_BY: builds the library and puts it in the folder RESULT, with the stamp MADE_BY.
make_result() {
    say "Building $library for Windows; this may take some minutes ..."
    work=$cache/work.$$
    trap 'rm -rf "$work"' EXIT
    mkdir -p "$work"
    local log=$work/log
    if ! { download "$work" && compile "$work/$source_package"-*/ "$work/root"; } >"$log" 2>&1 </dev/null; then
        tail -n 30 "$log" >&2
        die "$library for Windows could not be built."
    fi
    echo "$2" >"$work/root/$library/made-by"
    rm -rf "$1"
    mv "$work/root/$library" "$1"
}

make_library() {
    [[ ${1:-} == --again || $# == 0 ]] || die "usage: $0 [--again]"
    cache=${QOR_CACHE:-${HOME:+$HOME/.cache/qor}}
    cache=${cache:-$builds/cache}
    # A result is valid for the commands that made it, so a change of the scripts, except of comments, makes a new one.
    local result=$cache/$library-windows made_by
    made_by=$(grep -hv '^ *#' "$0" "${BASH_SOURCE[0]}" | cksum)
    mkdir -p "$cache" "$builds"
    {
        flock 9
        if [[ ${1:-} == --again || $(cat "$result/made-by" 2>/dev/null) != "$made_by" ]]; then
            install_missing "${needs[@]}"
            make_result "$result" "$made_by"
        fi
    } 9>"$cache/$library-windows.lock"
    ln -sfn "$result" "$builds/$library-windows"
}
