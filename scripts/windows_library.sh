# shellcheck shell=bash disable=SC2154  # names that pass between this file and its callers
# Sourced by the scripts that build a library for 64-bit Windows from Debian's source package, because no Debian package
# contains the library. The caller sources setup.sh first and then defines
#
#     library           the library's name, for the result and for messages
#     source_package    the name of Debian's source package
#     needs             the packages that the build needs, in the form that install_missing takes
#     compile FOLDER DESTINATION    builds DESTINATION/LIBRARY from the sources in FOLDER
#
# The caller then calls `make_library "$@"`. kept_result.sh says where it keeps the result, build/LIBRARY-windows. The
# scripts read the apt settings of the host and never change them; only their own download uses Debian's source
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

produce() {
    download "$1" && compile "$1/$source_package"-*/ "$1/root" && mv "$1/root/$library" "$2"
}

name=$library-windows what="$library for Windows"
source "$tree/scripts/kept_result.sh"
make_library() { keep_result "$@"; }
