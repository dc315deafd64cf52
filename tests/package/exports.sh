#!/usr/bin/env bash
# The shared library exports what the public headers mark INET_API, all of it, and nothing else.
#   exports.sh SOURCE-DIR BUILD-DIR LIBRARY
set -euo pipefail
source_dir=$1 library=$2/$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# symbols: what the library exports, as the linker knows it.
symbols() {
    case $library in
        *.dll) x86_64-w64-mingw32-objdump -p "$library" | sed -n '/Name Pointer. Table/,/^$/s/^\s*\[ *[0-9]*\].* //p' ;;
        *) nm -D --defined-only "$library" | awk '$2 != "A" {print $3}' ;;
    esac
}

# Names as exported: namespaces kept, arguments and the tags of vtables and type records cut off.
symbols | c++filt |
    sed -E 's/^(vtable|typeinfo|typeinfo name|VTT) for //; s/^non-virtual thunk to //; s/\(.*$//; s/\[abi:[^]]*\]//' |
    sort -u >"$work/exported"

# Names the headers declare: functions by their name before '(', classes by their name.
find "$source_dir"/*/include -name '*.h' ! -name api.h -exec cat {} + | sed -E 's://.*$::' | tr '\n' ' ' >"$work/headers"
grep -oE 'INET_API [^;{]*[;{]' "$work/headers" |
    sed -nE 's/^INET_API .*(class|struct) +INET_API +//; s/^INET_API [^(]*[ *&]([A-Za-z_0-9]+)\(.*/\1/p' | sort -u >"$work/functions"
grep -oE '(class|struct) INET_API [A-Za-z_0-9]+' "$work/headers" | awk '{print $3}' | sort -u >"$work/classes"

failed=0
while read -r name; do
    # What stands inside an exported class is a member of it.
    if tr ':' '\n' <<<"$name" | grep -qxFf "$work/classes"; then continue; fi
    grep -qx "${name##*::}" "$work/functions" || { echo "exported, but not in a public header: $name"; failed=1; }
done <"$work/exported"

sed 's/.*:://' "$work/exported" | sort -u >"$work/exported-plain"
while read -r name; do
    grep -qx "$name" "$work/exported-plain" || { echo "in a public header, but not exported: $name"; failed=1; }
done <"$work/functions"

echo "$(wc -l <"$work/exported") names exported, $(wc -l <"$work/functions") functions and $(wc -l <"$work/classes") classes declared"
exit $failed
