# Shared by the scripts: where the project is, what it says, what it installs.
# shellcheck shell=bash

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
. "$project/scripts/lib/usage.sh"
cd "$project" || exit 1

say() { printf '\033[1m%s\033[0m\n' "$*" >&2; }
fail() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# need PACKAGE...: installs the Debian packages that are missing, quietly; asks the network for nothing when
# all of them are there.
need() {
    local missing=() package log
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing ${#missing[@]} Debian packages: ${missing[*]}"
    log=$(mktemp)
    if ! { as_root apt-get update -qq &&
           as_root env DEBIAN_FRONTEND=noninteractive \
               apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        cat "$log" >&2
        fail "could not install: ${missing[*]} (see above)"
    fi
    rm -f "$log"
}

build_packages=(cmake ninja-build g++ ccache qtbase5-dev libqt5websockets5-dev libqt5serialport5-dev
                libqt5serialbus5-dev libqt5serialbus5-plugins qtdeclarative5-dev libudev-dev libpaho-mqttpp-dev
                libpaho-mqtt-dev libssl-dev)
# shellcheck disable=SC2034 # for the scripts
client_packages=(python3 python3-websockets python3-msgpack python3-rich)
# shellcheck disable=SC2034 # for the scripts
test_packages=("${build_packages[@]}" "${client_packages[@]}" python3-pytest python3-pytest-asyncio
               python3-numpy python3-matplotlib iproute2 util-linux procps pkgconf chromium systemd nginx-light
               openssl man-db qml-module-qtquick2 mosquitto mosquitto-clients nats-server prometheus
               python3-paho-mqtt python3-canmatrix python3-lxml python3-can can-utils victoria-metrics apt-utils gpg strace)
fuzz_packages=(clang libclang-rt-14-dev)

# For cmake: what several builds have in common is compiled once.
export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache

# need_npm: Node.js and npm from anywhere, or from Debian when there are none.
need_npm() {
    { command -v node && command -v npm; } >/dev/null || need nodejs npm
}

# build PRESET [--target NAME]: configures when it has not been, then builds what changed. Warnings are errors.
build() {
    local preset=$1
    shift
    [ "$preset" != fuzz ] || need "${fuzz_packages[@]}"
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" -DVORBEL_WERROR=ON >/dev/null ||
        fail "could not configure the $preset build (see above)"
    cmake --build --preset "$preset" "$@" || fail "the $preset build failed (see above)"
}
