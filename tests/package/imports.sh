#!/usr/bin/env bash
# What is built for Windows depends on DLLs that every Windows has, and on no other.
#   imports.sh SOURCE-DIR BUILD-DIR
set -euo pipefail
build_dir=$2
system='KERNEL32|msvcrt|WS2_32|SHELL32|bcrypt|ADVAPI32'

failed=0
for file in "$build_dir"/inet.dll "$build_dir"/apps/inet-{camera,viewer}.exe; do
    mapfile -t needed < <(x86_64-w64-mingw32-objdump -p "$file" | sed -n 's/^\s*DLL Name: //p')
    echo "${file##*/}: ${needed[*]}"
    ((${#needed[@]})) || { echo "no import table"; failed=1; }
    printf '%s\n' "${needed[@]}" | grep -vixE "($system)\.dll" && { echo "not of the system"; failed=1; }
done
exit $failed
