# shellcheck shell=bash disable=SC2154  # names that pass between this file and its callers
# Sourced by the scripts that make what takes minutes and seldom changes. The caller sources setup.sh first and then
# defines
#
#     name     the result's name, which is that of a folder
#     what     the same for messages
#     needs    the packages that it takes, in the form that install_missing takes
#     produce FOLDER RESULT    makes the folder RESULT; FOLDER is for what it needs on the way
#
# The caller then calls `keep_result "$@"`. The result is kept in $QOR_CACHE (otherwise ~/.cache/qor), where later calls
# from any clone find it. --again makes it again, for instance after a security update. build/NAME is a link to it.

# make_result RESULT MADE_BY: makes the result with the stamp MADE_BY.
make_result() {
    say "Building $what; this may take some minutes ..."
    work=$cache/work.$$
    trap 'rm -rf "$work"' EXIT
    mkdir -p "$work"
    local log=$work/log
    if ! produce "$work" "$work/result" >"$log" 2>&1 </dev/null; then
        tail -n 30 "$log" >&2
        die "$what could not be built."
    fi
    echo "$2" >"$work/result/made-by"
    rm -rf "$1"
    mv "$work/result" "$1"
}

keep_result() {
    [[ ${1:-} == --again || $# == 0 ]] || die "usage: $0 [--again]"
    cache=${QOR_CACHE:-${HOME:+$HOME/.cache/qor}}
    cache=${cache:-$builds/cache}
    # A result is valid for the commands that made it, so a change of the scripts, except of comments, makes a new one.
    local result=$cache/$name made_by
    made_by=$(sort -u <(printf '%s\n' "${BASH_SOURCE[@]}") | xargs -d '\n' grep -hv '^ *#' | cksum)
    mkdir -p "$cache" "$builds"
    {
        flock 9
        if [[ ${1:-} == --again || $(cat "$result/made-by" 2>/dev/null) != "$made_by" ]]; then
            install_missing "${needs[@]}"
            make_result "$result" "$made_by"
        fi
    } 9>"$cache/$name.lock"
    ln -sfn "$result" "$builds/$name"
}
