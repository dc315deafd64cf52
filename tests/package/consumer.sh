#!/usr/bin/env bash
# Unpacks the package of a built tree, and builds the README's embedding example against it.
#   consumer.sh SOURCE-DIR BUILD-DIR
set -euo pipefail
source_dir=$1 build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# quietly COMMAND...: shows what a command says only when it fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; return 1; }; }

tree=$work/usr run=() exe='' settings=()
quietly cpack --config "$build_dir/CPackConfig.cmake" -B "$work/packages"
if [[ -e $build_dir/libinet.so ]]; then
    dpkg-deb -x "$work"/packages/*.deb "$work"
    dpkg-deb -f "$work"/packages/*.deb Package Version Architecture Depends
else
    (cd "$work" && python3 -m zipfile -e packages/*.zip .)
    mv "$work"/inet-*-windows-x64 "$tree"
    settings=(--toolchain "$source_dir/cmake/mingw-w64.cmake" -DCMAKE_FIND_ROOT_PATH="$tree")
    run=("$source_dir/scripts/wine") exe=.exe
fi

# The example is the README's own, on ports that nobody uses now: what a reader copies is what is compiled here.
cp -r "$source_dir/tests/package/consumer" "$work/consumer"
port=$(python3 -c 'import socket; s = socket.socket(type=socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1] & ~1)')
awk '/^```cpp/ {inside = 1; next} /^```/ {inside = 0} inside' "$source_dir/README.md" |
    sed "s/\b5004\b/$port/; s/\b5005\b/$((port + 1))/" >"$work/consumer/main.cpp"
picture=$source_dir/apps/camera/clip/clip_01.jpg
ffmpeg -nostdin -loglevel error -i "$picture" "$work/shown.png"

# watch PROGRAM: starts the example and has a real player take a picture from it.
watch() {
    "${run[@]}" "$1" "$picture" &
    local sender=$!
    timeout 30 ffmpeg -nostdin -loglevel fatal -y -i rtp://127.0.0.1:"$port" -frames:v 1 "$work/seen.png"
    kill $sender
    wait $sender 2>/dev/null || true
    cmp "$work/seen.png" "$work/shown.png"
}

echo "-- by find_package"
quietly cmake -G Ninja -S "$work/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$tree" "${settings[@]}"
cmake --build "$work/build"
[[ ! $exe ]] || cp "$tree/bin/inet.dll" "$work/build"
watch "$work/build/consumer$exe"
watch "$work/build/consumer-static$exe"

if [[ ! $exe ]]; then
    echo "-- by pkg-config"
    PKG_CONFIG_PATH=$(dirname "$(find "$tree" -name inet.pc)")
    export PKG_CONFIG_PATH
    # shellcheck disable=SC2046
    c++ -std=c++20 "$work/consumer/main.cpp" -o "$work/by-pkg-config" $(pkg-config --cflags --libs inet)
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir inet)
    export LD_LIBRARY_PATH
    watch "$work/by-pkg-config"
fi

echo "-- the programs"
for program in inet-camera inet-viewer; do
    "${run[@]}" "$tree/bin/$program$exe" --help >/dev/null
done
[[ -f $tree/share/inet/clip/clip.h264 ]]
