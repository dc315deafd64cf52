#!/usr/bin/env bash
# Unpacks the package of a built tree, and builds and runs the README's examples against it.
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

# The examples are the README's own: what a reader copies is what is compiled here.
cp -r "$source_dir/tests/package/consumer" "$work/consumer"
number=0
for name in camera watcher; do
    awk -v number=$((++number)) '/^```cpp/ {inside = ++block == number; next} /^```/ {inside = 0} inside' \
        "$source_dir/README.md" >"$work/consumer/$name.cpp"
    cmp "$work/consumer/$name.cpp" "$source_dir/examples/$name.cpp"
done
if (($(wc -l <"$work/consumer/camera.cpp") > 40 || $(wc -l <"$work/consumer/watcher.cpp") > 30)); then
    echo "an example is too long to be read at once"
    exit 1
fi
awk '/^```cpp/ {inside = 1; next} /^```/ {inside = 0} inside' "$source_dir/docs/modules.md" >"$work/consumer/heartbeat.cpp"
cmp "$work/consumer/heartbeat.cpp" "$source_dir/examples/modules/heartbeat.cpp"
clip=$source_dir/apps/camera/clip/clip.h264
# A player begins with one of the key pictures.
ffmpeg -nostdin -loglevel error -i "$clip" -vf "select='eq(pict_type,I)'" -fps_mode passthrough "$work/key%d.png"

# watch CAMERA WATCHER: starts the one, and has the other and a real player take pictures from it.
watch() {
    local port url key camera
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    url=rtsp://127.0.0.1:$port/live
    "${run[@]}" "$1" "$clip" "$port" &
    camera=$!
    "${run[@]}" "$2" "$url" >"$work/seen"
    grep -q 'a key' "$work/seen"
    timeout 30 ffmpeg -nostdin -loglevel fatal -y -rtsp_transport tcp -i "$url" -frames:v 1 "$work/seen.png"
    kill $camera
    wait $camera 2>/dev/null || true
    for key in "$work"/key*.png; do
        if cmp -s "$work/seen.png" "$key"; then return; fi
    done
    echo "not a picture of the clip"
    return 1
}

echo "-- by find_package"
quietly cmake -G Ninja -S "$work/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$tree" "${settings[@]}"
cmake --build "$work/build"
[[ ! $exe ]] || cp "$tree"/bin/inet*.dll "$work/build"
watch "$work/build/camera$exe" "$work/build/watcher$exe"
watch "$work/build/camera-static$exe" "$work/build/watcher-static$exe"

if [[ ! $exe ]]; then
    echo "-- by pkg-config"
    PKG_CONFIG_PATH=$(dirname "$(find "$tree" -name inet-media.pc)")
    export PKG_CONFIG_PATH
    for name in camera watcher; do
        # shellcheck disable=SC2046
        c++ -std=c++20 "$work/consumer/$name.cpp" -o "$work/$name" $(pkg-config --cflags --libs inet-media)
    done
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir inet-media)
    export LD_LIBRARY_PATH
    watch "$work/camera" "$work/watcher"
fi

echo "-- the programs"
for program in inet-camera inet-viewer; do
    "${run[@]}" "$tree/bin/$program$exe" --help >/dev/null
done
# The camera finds its clip, and the module that plays it.
exec {said}< <(exec "${run[@]}" "$tree/bin/inet-camera$exe" --rtsp 0 --http off)
camera=$!
grep -qm1 '^ready' <&"$said"
kill $camera
wait $camera 2>/dev/null || true
[[ -n $(find "$tree" -path "*/inet-modules/*reader.*") ]]
