#!/usr/bin/env bash
# tests/include-cycles.sh FOLDER...: no header below the folders includes itself, directly or through others, and the
# folders of agent/ include only folders of the lines below their own. Planted faults show first that the script finds
# them.
set -euo pipefail

# From top to bottom.
agent_folders='
Cli
Copy Import Repair Rewrite
Backup Convert Dump Explain Forget Inspect Job Prune Restore Trust
Access Record Walk
Remote
Http
Repository Run'

# Prints a cycle, if there is one. An include path begins with the folder's own name.
circle() {
    local folder
    for folder in "$@"; do
        (cd "$(dirname "$folder")" &&
            grep -roE --include='*.h' --include='*.inl' '^#include "[^"]+"' "$(basename "$folder")")
    done | awk -F: '
        { sub(/^#include "/, "", $2); sub(/"$/, "", $2); wanted[$1] = wanted[$1] " " $2 }
        function visit(header, path,    count, others, i) {
            if (state[header] == "on the path") { print path header; circular = 1; exit 1 }
            if (state[header] == "done") return
            state[header] = "on the path"
            count = split(wanted[header], others, " ")
            for (i = 1; i <= count; ++i) visit(others[i], path header " > ")
            state[header] = "done"
        }
        END { if (!circular) for (header in wanted) visit(header, "") }'
}

# upward LINES FOLDER: prints the includes that do not point from a folder of LINES to one of a later line.
upward() {
    (cd "$(dirname "$2")" && grep -rE '^#include "'"$(basename "$2")"'/[^"]+/' "$(basename "$2")") |
        awk -v lines="$1" '
        BEGIN {
            count = split(lines, line, "\n")
            for (i = 1; i <= count; ++i) {
                folders = split(line[i], folder, " ")
                for (j = 1; j <= folders; ++j) depth[folder[j]] = i
            }
        }
        {
            split($0, path, "/"); from = path[2]
            sub(/.*#include "[^\/]*\//, ""); sub(/\/.*/, ""); to = $0
            if (!(from in depth)) message = from " is not in the list of folders"
            else if (!(to in depth)) message = to " is not in the list of folders"
            else if (from != to && depth[from] >= depth[to]) message = from " includes " to
            else next
            if (!(message in printed)) print message
            printed[message] = 1
        }
        END { for (message in printed) exit 1 }'
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/Planted/High" "$work/Planted/Low"
echo '#include "Planted/B.h"' >"$work/Planted/A.h"
printf '#pragma once\n#include "Planted/C.h"\n' >"$work/Planted/B.h"
echo '#include "Planted/A.h"' >"$work/Planted/C.h"
echo '#include "Planted/High/D.h"' >"$work/Planted/Low/D.cpp"
echo '#include "Planted/Low/E.h"' >"$work/Planted/High/E.cpp"
if circle "$work/Planted" >"$work/found" || [ ! -s "$work/found" ]; then
    echo "The planted cycle was not found" >&2
    exit 1
fi
if upward $'High\nLow' "$work/Planted" >"$work/found" || [ "$(cat "$work/found")" != "Low includes High" ]; then
    echo "The planted include that points up was not found" >&2
    exit 1
fi
circle "$@" >&2
for folder in "$@"; do
    if [ "$(basename "$folder")" = agent ]; then
        upward "$agent_folders" "$folder" >&2
    fi
done
