#!/usr/bin/env bash
# sysroot.sh DIR PACKAGE... - makes DIR a root directory with these armhf packages of this machine's Debian release and all
# that they depend on, unpacked and not configured: enough to compile and link against, and for qemu's user emulation to
# find the dynamic loader and the libraries in. Neither root nor dpkg's multiarch is needed, and the machine's own lists
# of packages stay as they are.
# A DIR that was made for the same packages by the same script, and still holds every file, is left alone.
set -euo pipefail

die() {
    printf 'sysroot: %s\n' "$*" >&2
    exit 2
}

for tool in apt-get dpkg-deb; do
    command -v $tool >/dev/null || die "this needs Debian's $tool"
done
[ $# -ge 2 ] || die "usage: sysroot.sh DIR PACKAGE..."
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
directory=$(realpath -m "$1")
shift
packages=("$@")

wanted=$(sha256sum "${BASH_SOURCE[0]}" | cut -d ' ' -f 1)$(printf ' %s' "${packages[@]}")

# What the packages hold is written down last; links are not followed, as some lead out of the packages that were asked for.
complete() {
    [ -f "$directory/.made-for" ] && [ "$(cat "$directory/.made-for")" = "$wanted" ] &&
        (cd "$directory" && xargs -0 -a .files ls -d -- >/dev/null 2>&1)
}

# The place that apt fetches this machine's own packages from. Security updates are left out: what the programs are tested
# with may lag behind, and one archive whose files stay for the life of the release is less that can fail.
mirror() {
    # shellcheck disable=SC2016 # the words are apt's
    apt-get "${@:2}" indextargets --format '$(CODENAME) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
        awk -v release="$1" '$1 == release && $2 == "main" { print $3; exit }'
}

# apt knows its mirrors only by their lists, which images of containers come without.
mirror_by_fresh_lists() {
    local own=(-o Dir::State::lists="$work/own-lists" -o APT::Sandbox::User= -o Acquire::Retries=3)
    mkdir -p "$work/own-lists/partial"
    apt-get -q "${own[@]}" update </dev/null >&2
    mirror "$1" "${own[@]}"
}

write_apt_configuration() {
    local release uri
    # shellcheck disable=SC1091
    release=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
    uri=$(mirror "$release")
    [ -n "$uri" ] || uri=$(mirror_by_fresh_lists "$release")
    [ -n "$uri" ] || die "apt knows no mirror of Debian's release '$release'"
    mkdir -p "$work"/{lists,archives}/partial
    : >"$work/status"
    printf 'deb [signed-by=%s] %s %s main\n' "$keyring" "$uri" "$release" >"$work/sources.list"
    cat >"$work/apt.conf" <<TEXT
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Sandbox::User "";
Acquire::Languages "none";
Acquire::Retries "3";
Dir::Etc::sourcelist "$work/sources.list";
Dir::Etc::sourceparts "-";
Dir::State::lists "$work/lists";
Dir::State::status "$work/status";
Dir::Cache::archives "$work/archives";
Dir::Cache::pkgcache "";
Dir::Cache::srcpkgcache "";
TEXT
}

# Debian's links to libraries are absolute, and would lead to the files of the machine that builds.
make_links_relative() {
    local link target
    find "$root" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
        target=$root$(readlink "$link")
        ln -sfn "$(realpath -m -s --relative-to="$(dirname "$link")" "$target")" "$link"
    done
}

make_sysroot() {
    [ -r $keyring ] || die "$keyring is missing (package debian-archive-keyring)"
    write_apt_configuration
    export APT_CONFIG=$work/apt.conf
    apt-get -q update </dev/null
    apt-get -q -y --download-only install "${packages[@]}" </dev/null
    mkdir -p "$root/usr/lib"
    ln -s usr/lib "$root/lib"
    local deb
    for deb in "$work"/archives/*.deb; do
        dpkg-deb --extract "$deb" "$root"
    done
    rm -rf "$root"/usr/share/{doc,man,info,locale}
    make_links_relative
    (cd "$root" && find . -mindepth 1 -print0 >"$work/files" && mv "$work/files" .files)
    printf '%s\n' "$wanted" >"$root/.made-for"
    rm -rf "$directory"
    mv "$root" "$directory"
}

if complete; then exit 0; fi
printf '\n== sysroot: %s\n' "$directory"
mkdir -p "$(dirname "$directory")"
work=$(mktemp -d "$directory.XXXXXX")
root=$work/root
exec 3>&2 >"$directory.log" 2>&1

finish() {
    local result=$?
    rm -rf "$work"
    [ $result -eq 0 ] || {
        tail -n 30 "$directory.log"
        printf 'sysroot: %s could not be made\n' "$directory"
    } >&3
    exit $result
}
trap finish EXIT

make_sysroot
complete || die "not every file is there"
