#!/usr/bin/env bash
# The shared library exports what the public headers mark INET_API, all of it, and nothing else. What is built for Windows
# depends on DLLs that every Windows has and takes from its own folder alone, and on no other.
#   symbols.sh SOURCE-DIR BUILD-DIR
set -euo pipefail
source_dir=$1 build_dir=$2
system='KERNEL32|msvcrt|WS2_32|IPHLPAPI|SHELL32|ADVAPI32|inet|inet-media'
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
complain() { echo "$@"; failed=1; }

# symbols LIBRARY: what it exports, as the linker knows it.
symbols() {
    case $1 in
        *.dll) x86_64-w64-mingw32-objdump -p "$1" | sed -n '/Name Pointer. Table/,/^$/s/^\s*\[ *[0-9]*\].* //p' ;;
        *) nm -D --defined-only "$1" | awk '$2 != "A" {print $3}' ;;
    esac
}

# compare LIBRARY MARK HEADER-FOLDER...: holds what the library exports against what the headers mark.
compare() {
    local library=$1 mark=$2
    shift 2
    # Names as exported: namespaces kept, arguments and the tags of vtables and type records cut off.
    # A DLL exports the type records of classes that nobody marked, too.
    symbols "$library" | c++filt | { [[ $library == *.so ]] && cat || grep -v '^typeinfo for '; } |
        sed -E 's/^(vtable|typeinfo|typeinfo name|VTT) for //; s/^(non-)?virtual thunk to //; s/\(.*$//; s/\[abi:[^]]*\]//' |
        sort -u >"$work/exported"
    # Names the headers declare: functions by their name before '(', classes by their name.
    find "$@" -name '*.h' ! -name api.h -exec cat {} + | sed -E 's://.*$::' | tr '\n' ' ' >"$work/headers"
    if [[ $mark == MEDIA_API ]]; then sed -E 's://.*$::' "$source_dir/media/include/media/api.h" | tr '\n' ' ' >>"$work/headers"; fi
    grep -oE "$mark [^;{]*[;{]" "$work/headers" |
        sed -nE "s/^$mark .*(class|struct) +$mark +//; s/^$mark [^(]*[ *&]([A-Za-z_0-9]+)\(.*/\1/p" | sort -u >"$work/functions"
    # Of the classes of the other library, type records stand in both.
    grep -rhoE '(class|struct) (INET|MEDIA)_API [A-Za-z_0-9]+' "$source_dir"/{core,common,avc,inet,media} --include='*.h' |
        awk '{print $3}' | sort -u >"$work/classes"
    while read -r name; do
        # What stands inside an exported class is a member of it.
        tr ':' '\n' <<<"$name" | grep -qxFf "$work/classes" || grep -qx "${name##*::}" "$work/functions" ||
            complain "${library##*/}: exported, but not in a public header: $name"
    done <"$work/exported"
    while read -r name; do complain "${library##*/}: in a public header, but not exported: $name"; done \
        < <(sed 's/.*:://' "$work/exported" | sort -u | comm -13 - "$work/functions")
    wc -l "$work"/{exported,functions,classes}
}

form=libNAME.so
if [[ -e $build_dir/inet.dll ]]; then form=NAME.dll; fi
compare "$build_dir/${form/NAME/inet}" INET_API "$source_dir"/{core,common,avc,inet}
compare "$build_dir/${form/NAME/inet-media}" MEDIA_API "$source_dir/media/include"

if [[ $form == *.dll ]]; then
    for file in "$build_dir"/inet{,-media}.dll "$build_dir"/inet-{camera,viewer}.exe "$build_dir"/inet-modules/*.dll; do
        needed=$(x86_64-w64-mingw32-objdump -p "$file" | sed -n 's/^\s*DLL Name: //p')
        [[ $needed ]] || complain "no import table: $file"
        ! grep -vixE "($system)\.dll" <<<"$needed" || complain "not of the system: what ${file##*/} imports"
    done
fi
exit $failed
