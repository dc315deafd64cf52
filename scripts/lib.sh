# Shared by the scripts: says what is going on, installs what is missing, knows where things are.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
started=$SECONDS

say() { printf '== [%3ds] %s\n' $((SECONDS - started)) "$*"; }

# need PACKAGE...: installs the Debian packages that are not there yet.
need() {
    local missing=()
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    say "installing ${missing[*]}"
    local run=() tries=60
    ((EUID == 0)) || run=(sudo)
    # Another package manager may be at work. It is waited for: its lock of the lists by trying again, the other by apt-get.
    until "${run[@]}" apt-get update -qq; do
        ((--tries)) || return 1
        sleep 10
    done
    DEBIAN_FRONTEND=noninteractive "${run[@]}" apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# need_npm: the packages that scripts/npm/package-lock.json names, in build/npm/node_modules.
need_npm() {
    local from=$root/scripts/npm to=$root/build/npm
    # A node that is not Debian's brings npm along, and goes before it.
    command -v npm >/dev/null || need nodejs npm
    cmp -s "$from/package-lock.json" "$to/installed.json" && return
    say "installing what scripts/npm names"
    mkdir -p "$to"
    cp "$from"/package*.json "$to"
    npm ci --prefix "$to" --ignore-scripts --no-audit --no-fund --loglevel=error --fetch-retries=1 \
        --fetch-retry-mintimeout=1000 --fetch-retry-maxtimeout=5000 >/dev/null
    cp "$from/package-lock.json" "$to/installed.json"
}

# want_player: dash.js for the camera's page, which is built without where npm or its registry is out of reach.
want_player() {
    bash -c 'source "$1/scripts/lib.sh"; need_npm' - "$root" || say "no dash.js: the camera's page will play MJPEG alone"
}

# build PRESET [CMAKE-ARGUMENT...] [-- TARGET...]: configures and builds, quiet unless something fails.
build() {
    local preset=$1 arguments=() log=$root/build/$1.log
    shift
    while (($#)) && [[ $1 != -- ]]; do
        arguments+=("$1")
        shift
    done
    (($#)) && shift
    local targets=()
    (($#)) && targets=(--target "$@")
    want_player
    say "building $preset (log: build/$preset.log)"
    mkdir -p "$root/build"
    if ! (cd "$root" && cmake --preset "$preset" "${arguments[@]}" && cmake --build --preset "$preset" "${targets[@]}") \
        >"$log" 2>&1; then
        tail -n 60 "$log"
        say "building $preset failed"
        return 1
    fi
}

build_tools=(g++ cmake ninja-build)
package_tools=(dpkg-dev file)
test_tools=(libgtest-dev libbenchmark-dev libssl-dev libexpat1-dev pkg-config ffmpeg libjpeg-turbo-progs curl
    gstreamer1.0-tools gstreamer1.0-plugins-good vlc-bin vlc-plugin-base python3 iproute2 sip-tester chromium nginx-light
    libnginx-mod-rtmp kamailio baresip-core baresip-ffmpeg "${package_tools[@]}")
fuzz_tools=(clang libclang-rt-14-dev)
windows_tools=(g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine64 googletest)
check_tools=(clang-format clang-tidy)
