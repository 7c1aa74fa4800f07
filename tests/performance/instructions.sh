#!/usr/bin/env bash
# instructions.sh PROGRAM LIMITS: runs each work that LIMITS names under callgrind and fails if one takes more
# instructions per run than LIMITS allows. Exit code 77 without valgrind.
set -euo pipefail
program=$1 limits=$2

command -v valgrind >/dev/null || { echo "Skipped: valgrind is missing"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
while read -r name limit; do
    [[ $name != \#* ]] || continue
    times=$(valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$work/out" --log-file="$work/log" \
        "$program" "$name")
    each=$(awk -v times="$times" '/Collected/ { printf "%.1f", $NF / times }' "$work/log")
    echo "$name: $each instructions, at most $limit"
    # A count of 0 would prove nothing.
    awk -v each="$each" -v limit="$limit" 'BEGIN { exit !(each > 0 && each <= limit) }' || failed=1
done <"$limits"
exit $failed
