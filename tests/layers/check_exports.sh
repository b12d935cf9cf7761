#!/usr/bin/env bash
# Exactly the named symbols leave a library. Usage: check_exports.sh LIBRARY SYMBOL...
set -euo pipefail
library=$1
shift
expected=$(printf '%s\n' "$@" | sort)
found=$(nm -D --defined-only "$library" | awk '{print $NF}' | sort)
if [ "$found" != "$expected" ]; then
    printf '%s exports\n%s\ninstead of\n%s\n' "$library" "$found" "$expected"
    exit 1
fi
