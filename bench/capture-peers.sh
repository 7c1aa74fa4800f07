#!/usr/bin/env bash
# bench/capture-peers.sh [--quick]: captures a tree of 100,000 entries with the library and lists it with rsync and
# find, whole processes in turns, and prints the medians and their ratios, "name TAB value TAB unit". Reads
# build/bench, or the build folder that BUILD names. The tree lies in $TMPDIR or /tmp.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C

bench=${BUILD:-build/bench}/bench/CaptureBench
entries=100000
turns=7
if [ "${1:-}" = --quick ]; then
    entries=3000
    turns=5
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree

row() { printf '%s\t%s\t%s\n' "$@"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.4g", a / b }'; }
# Nanoseconds an entry that the command takes, added to the file.
time_into() {
    local file=$1 start end
    shift
    start=${EPOCHREALTIME/./}
    "$@" >/dev/null
    end=${EPOCHREALTIME/./}
    awk -v us=$((end - start)) -v n="$entries" 'BEGIN { print us * 1000 / n }' >>"$work/$file"
}
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { printf "%.0f", value[int((NR + 1) / 2)] }'; }

"$bench" calls
"$bench" make "$tree" "$entries"
for turn in $(seq 0 "$turns"); do
    time_into ours "$bench" capture "$tree"
    time_into rsync rsync --list-only -aHAX "$tree/"
    time_into find find "$tree" -printf '%s %T@ %m %U %G %p\n'
    # The first turn warms the caches up.
    [ "$turn" -ne 0 ] || rm "$work"/{ours,rsync,find}
done

row capture.entry.ours "$(median ours)" ns
row capture.entry.rsync "$(median rsync)" ns
row capture.entry.find "$(median find)" ns
row capture.rsync "$(ratio "$(median ours)" "$(median rsync)")" x
row capture.find "$(ratio "$(median ours)" "$(median find)")" x
