#!/usr/bin/env bash
# bench/load.sh [COUNT] [DIRECTORY]: the program under load. COUNT files (1000000) are backed up twice into a
# repository, listed, restored and compared; backed up under a job of COUNT rules; and COUNT records go through a
# conversion. One line per run reports its seconds and its peak memory; no run may open more than 192 descriptors. Files
# are created below DIRECTORY ($TMPDIR or /tmp), which needs 3 inodes and 12 KiB for each of COUNT. Ends non-zero if
# anything is lost.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

count=${1:-1000000}
work=$(mktemp -d "${2:-${TMPDIR:-/tmp}}/kbagent-load-XXXXXX")
trap 'rm -rf "$work"' EXIT
descriptors=192 # of which 128 wait to be read
folder=1000 # files in a directory
source=$work/source
job=$work/job
kbagent=$PWD/build/release/kbagent
golden=$PWD/tests/golden
export KBAGENT_REPOSITORY=$work/repository KBAGENT_PASSWORD_FILE=$work/password
(umask 077 && echo load >"$work/password")

packaging/install-packages.sh build bench
mkdir -p build
cmake --preset release >build/configure.log 2>&1 || { cat build/configure.log >&2; exit 1; }
cmake --build build/release --target kbagent -- -j "$(nproc)" >build/load.log || { cat build/load.log >&2; exit 1; }

# measured NAME COMMAND...: its output goes to $work/output.
measured() {
    local name=$1 seconds memory
    shift
    (ulimit -n $descriptors && exec /usr/bin/time -o "$work/time" -f '%e %M' "$@" >"$work/output") ||
        { cat "$work/output" >&2; exit 1; }
    read -r seconds memory <"$work/time"
    awk -v name="$name" -v seconds="$seconds" -v memory="$memory" \
        'BEGIN { printf "%-44s %8.1f s %8.1f MiB\n", name, seconds, memory / 1024 }'
}
# printed TEXT: fails unless the last run printed it.
printed() {
    grep -qF -- "$1" "$work/output" || { echo "load.sh: \"$1\" is not in:" >&2; head -n 20 "$work/output" >&2; exit 1; }
}
# Line I, from 0 on, of COUNT: the awk statements print it.
lines() { awk -v count="$count" -v folder=$folder -v source="$source" "BEGIN { for (i = 0; i < count; ++i) { $1 } }"; }

# The snapshot contains the directories above the source, too.
directories=$(((count + folder - 1) / folder))
above=$(tr -cd / <<<"$source" | wc -c) # and the source itself
entries=$((count + directories + above))
seq -f "$source/d%.0f" 0 $((directories - 1)) | xargs mkdir -p
lines 'file = source "/d" int(i / folder) "/f" i; print i > file; close(file)'

"$kbagent" init -q
measured "backup of $count files" "$kbagent" backup "$source"
printed " $count new, "
printed ", 0 failed"
measured "backup of the same again" "$kbagent" backup "$source"
printed " $count unmodified"
measured "list of them" "$kbagent" ls -q latest
[ "$(wc -l <"$work/output")" -eq "$entries" ]
measured "restore of them" "$kbagent" restore latest --target "$work/target"
printed "Restored $entries files/dirs "
diff -r --no-dereference "$source" "$work/target$source"
rm -rf "$work/target"

# Every other file is excluded by name, the others are included by name.
{
    rule='{"path":"%s","descriptor":{"descriptor":{"pattern":"%s","match_type":"%s","case_sensitive":true},'
    rule+='"selection_type":"%s","recursion_type":"%s","report_exclude":true,"explicit_selection":true}}'
    # shellcheck disable=SC2059
    printf '{"includes":[\n'"$rule" "$source" "" any include recursive
    for kind in include exclude; do
        awk -v count="$count" -v folder=$folder -v source="$source" -v rule="$rule" -v kind=$kind 'BEGIN {
            for (i = kind == "include"; i < count; i += 2)
                printf("%s\n" rule, (kind == "include" || i > 0 ? "," : ""), source "/d" int(i / folder), "f" i,
                    "exact", kind, "nonrecursive")
        }'
        [ $kind = exclude ] || echo '],"excludes":['
    done
    echo ']}'
} >"$job"
measured "backup under $count rules" "$kbagent" backup --force --job "$job"
printed " $((count / 2)) new, "
printed "$(((count + 1) / 2)) excluded, 0 failed"

# Records of this age and of an earlier one in turns, through a pipe.
records() {
    awk -v count="$count" -v array="$1" '
        { line[n++] = $0 }
        END {
            if (array) printf "["
            for (i = 0; i < count; ++i) printf "%s%s", line[i % n], i + 1 == count ? "" : array ? "," : "\n"
            print array ? "]" : ""
        }' <(cat "$golden/metadata-unix-file.json"; echo) <(cat "$golden/legacy-unix-file.json"; echo)
}
for form in "" array; do
    measured "conversion of $count records${form:+ in an array}" "$kbagent" convert < <(records "$form")
    [ "$(wc -l <"$work/output")" -eq "$count" ]
done
