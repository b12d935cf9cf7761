#!/usr/bin/env bash
# Whether each header of the product is guarded by its own path. Usage: check_guards.sh ROOT
# Prints each one that is not; exit status 1 when there is one.
set -euo pipefail
cd "$1"

status=0
checked=0
while read -r header; do
    checked=$((checked + 1))
    guard=KZEMDLMGR_$(tr 'a-z/.' 'A-Z__' <<<"$header")
    if ! grep -A1 -m1 '^#ifndef ' "$header" | cmp -s - <(printf '#ifndef %s\n#define %s\n' "$guard" "$guard"); then
        echo "$header: its guard must be $guard"
        status=1
    fi
done < <(find plugin config engine datapath upgrade platform -name '*.h' | sort)

if [ "$checked" -eq 0 ]; then
    echo "no header was found below $1"
    status=1
fi
[ $status -ne 0 ] || echo "$checked headers are guarded by their path"
exit $status
