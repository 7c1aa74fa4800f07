#!/usr/bin/env bash
# tests/include-cycles.sh FOLDER...: no header below the folders includes itself, directly or through others. A planted
# cycle shows first that the script finds one.
set -euo pipefail

# Prints a cycle, if there is one. An include path begins with the folder's own name.
circle() {
    local folder
    for folder in "$@"; do
        (cd "$(dirname "$folder")" &&
            grep -roE --include='*.h' --include='*.inl' '^#include "[^"]+"' "$(basename "$folder")")
    done | awk -F: '
        { sub(/^#include "/, "", $2); sub(/"$/, "", $2); wanted[$1] = wanted[$1] " " $2 }
        function visit(header, way,    count, others, i) {
            if (state[header] == "on the way") { print way header; circular = 1; exit 1 }
            if (state[header] == "done") return
            state[header] = "on the way"
            count = split(wanted[header], others, " ")
            for (i = 1; i <= count; ++i) visit(others[i], way header " > ")
            state[header] = "done"
        }
        END { if (!circular) for (header in wanted) visit(header, "") }'
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/Planted"
echo '#include "Planted/B.h"' >"$work/Planted/A.h"
printf '#pragma once\n#include "Planted/C.h"\n' >"$work/Planted/B.h"
echo '#include "Planted/A.h"' >"$work/Planted/C.h"
if circle "$work/Planted" >"$work/found" || [ ! -s "$work/found" ]; then
    echo "The planted cycle was not found" >&2
    exit 1
fi
circle "$@" >&2
