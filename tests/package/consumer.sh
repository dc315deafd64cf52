#!/usr/bin/env bash
# Installs a built tree and builds the README's embedding example against it, by the CMake package and by pkg-config.
#   consumer.sh SOURCE-DIR BUILD-DIR
set -euo pipefail
source_dir=$1 build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/usr" >"$work/install.log"
cp -r "$source_dir/tests/package/consumer" "$work/consumer"
# The example is the README's own: what a reader copies is what is compiled here.
awk '/^```cpp/ {inside = 1; next} /^```/ {inside = 0} inside' "$source_dir/README.md" >"$work/consumer/main.cpp"

# watch PROGRAM: starts the example and has a real player take a picture from it.
watch() {
    "$1" "$picture" &
    local sender=$!
    timeout 30 ffmpeg -nostdin -loglevel fatal -y -i rtp://127.0.0.1:$port -frames:v 1 "$work/seen.png"
    kill $sender
    wait $sender 2>/dev/null || true
    cmp "$work/seen.png" "$work/shown.png"
}

picture=$source_dir/apps/camera/clip/clip_01.jpg
ffmpeg -nostdin -loglevel error -y -i "$picture" "$work/shown.png"
# On ports that nobody uses now.
port=$(python3 -c 'import socket; s = socket.socket(type=socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1] & ~1)')
sed -i "s/\b5004\b/$port/; s/\b5005\b/$((port + 1))/" "$work/consumer/main.cpp"
lines=$(grep -c . "$work/consumer/main.cpp")
((lines > 10)) || { echo "no example in README.md"; exit 1; }

echo "-- by find_package"
cmake -G Ninja -S "$work/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/usr" >"$work/cmake.log" || { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/build"
watch "$work/build/consumer"
watch "$work/build/consumer-static"

echo "-- by pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$work/usr" -name inet.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046
c++ -std=c++20 "$work/consumer/main.cpp" -o "$work/by-pkg-config" $(pkg-config --cflags --libs inet)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir inet)
export LD_LIBRARY_PATH
watch "$work/by-pkg-config"

echo "-- the programs"
"$work/usr/bin/inet-camera" --help >/dev/null
"$work/usr/bin/inet-viewer" --help >/dev/null
