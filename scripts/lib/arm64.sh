# Debian packages of the target's architecture without touching the host's dpkg: adding a foreign architecture
# there would change dozens of the host's packages. Sourced after common.sh.
# shellcheck shell=bash

cache=${XDG_CACHE_HOME:-$HOME/.cache}/vorbel

# The host's list of Debian's own packages, whichever way it is written.
debian_sources() {
    local file
    for file in /etc/apt/sources.list.d/debian.sources /etc/apt/sources.list; do
        [ ! -s "$file" ] || { echo "$file"; return; }
    done
    fail "found no list of Debian package sources"
}

# Gives apt a state of its own with no package installed. Its lists carry the mirror's name in theirs, so they
# live in a temporary folder and never in a cache.
arm64_begin() {
    apt_state=$(mktemp -d)
    trap 'rm -rf "$apt_state"' EXIT
    mkdir -p "$apt_state/lists/partial" "$apt_state/cache/archives/partial" "$cache/archives"
    : >"$apt_state/status"
    apt_options=(-qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Install-Recommends=false
                 -o APT::Sandbox::User=root -o Dir::Etc::SourceList="$(debian_sources)"
                 -o Dir::Etc::SourceParts=/dev/null -o Dir::State="$apt_state"
                 -o Dir::State::status="$apt_state/status" -o Dir::Cache="$apt_state/cache")
    apt-get "${apt_options[@]}" update >&2 || fail "could not read the lists of arm64 packages"
}

# arm64_closure NAME...: the names of these packages and of all that they depend on.
arm64_closure() {
    apt-get "${apt_options[@]}" -s install "$@" | sed -n 's/^Inst \([^ ]*\) .*/\1/p'
}

# The name of the newest stock kernel's package.
arm64_kernel() {
    apt-cache "${apt_options[@]}" depends linux-image-arm64 | sed -n 's/.*Depends: \(linux-image-.*-arm64\)$/\1/p'
}

# arm64_download NAME...: fetches just these packages into the cache, unless they are there; prints their paths.
arm64_download() {
    local file size missing=()
    while read -r _ file size _; do
        [ "$(stat -c %s "$cache/archives/$file" 2>/dev/null)" = "$size" ] || missing+=("${file%%_*}")
        echo "$cache/archives/$file"
    done < <(apt-get "${apt_options[@]}" --print-uris download "$@")
    [ ${#missing[@]} = 0 ] ||
        (cd "$cache/archives" && apt-get "${apt_options[@]}" download "${missing[@]}" >&2) ||
        fail "could not download the arm64 packages"
}

# arm64_unpack ROOT DEB...: unpacks packages over one another; no maintainer script runs.
arm64_unpack() {
    local root=$1 name deb
    shift
    for name in bin lib sbin; do
        mkdir -p "$root/usr/$name"
        ln -sfn "usr/$name" "$root/$name"
    done
    for deb in "$@"; do
        dpkg-deb --fsys-tarfile "$deb" | tar -C "$root" --keep-directory-symlink --no-same-owner -xf - ||
            fail "could not unpack $deb"
    done
}
