#!/usr/bin/env bash
# bench/capture-peers.sh [--quick]: captures a tree of 100,000 entries with the library and lists it with rsync and
# find, whole processes in turns, and prints the medians and their ratios, "name TAB value TAB unit". Ratios of
# processor time are printed, too: a busy machine hardly changes them. Reads build/bench, or the build
# folder that BUILD names. The tree is in $TMPDIR or /tmp.
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
# Nanoseconds an entry that the command takes, by the clock and of processors, added to the files NAME and NAME.cpu.
time_into() {
    local name=$1 TIMEFORMAT='%3R %3U %3S'
    shift
    if ! { time "$@" >/dev/null 2>"$work/errors"; } 2>"$work/time"; then
        cat "$work/errors" >&2
        exit 1
    fi
    awk -v n="$entries" '{ print $1 * 1e9 / n }' "$work/time" >>"$work/$name"
    awk -v n="$entries" '{ print ($2 + $3) * 1e9 / n }' "$work/time" >>"$work/$name.cpu"
}
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { printf "%.0f", value[int((NR + 1) / 2)] }'; }

"$bench" calls
"$bench" make "$tree" "$entries"
for turn in $(seq 0 "$turns"); do
    time_into ours "$bench" capture "$tree"
    time_into rsync rsync --list-only -aHAX "$tree/"
    time_into find find "$tree" -printf '%s %T@ %m %U %G %p\n'
    # The first turn warms the caches up.
    [ "$turn" -ne 0 ] || rm "$work"/{ours,rsync,find}{,.cpu}
done

row capture.entry.ours "$(median ours)" ns
for peer in rsync find; do
    row capture.entry.$peer "$(median $peer)" ns
    row capture.$peer "$(ratio "$(median ours)" "$(median $peer)")" x
    row capture.$peer.cpu "$(ratio "$(median ours.cpu)" "$(median $peer.cpu)")" x
done
