#!/usr/bin/env bash
# bench/program-peers.sh [--quick]: backs a tree of 100,000 entries up and restores it with kbagent, tar and
# restic, whole processes in turns into empty folders, and prints the medians in seconds and kbagent's multiples of
# the others, "name TAB value TAB unit". Reads build/bench, or the build folder that BUILD names. Tree and stores lie in
# $TMPDIR or /tmp.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C RESTIC_PASSWORD=bench

build=${BUILD:-build/bench}
entries=100000
turns=5
[ "${1:-}" != --quick ] || entries=3000
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree store=$work/store target=$work/target
export RESTIC_CACHE_DIR=$work/cache

row() { printf '%s\t%s\t%s\n' "$@"; }
time_into() {
    local name=$1 TIMEFORMAT='%3R'
    shift
    { time "$@" >"$work/output" 2>&1; } 2>>"$work/$name" || { cat "$work/output" >&2; exit 1; }
}
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
both() {
    local name=$1 backup=$2 restore=$3
    rm -rf "$store" "$target"
    mkdir "$store" "$target"
    sync
    time_into "$name.backup" bash -c "$backup"
    time_into "$name.restore" bash -c "$restore"
}

"$build/bench/CaptureBench" make "$tree" "$entries"
export build tree store target
for _ in $(seq "$turns"); do
    both kbagent '"$build/kbagent" backup --store "$store/new" "$tree"' \
        '"$build/kbagent" restore --store "$store/new" --to "$target"'
    both tar 'tar --xattrs --acls -cf "$store/tar" -C "$tree" .' 'tar --xattrs --acls -xpf "$store/tar" -C "$target"'
    both restic 'restic -q init -r "$store/new" && restic -q backup -r "$store/new" "$tree"' \
        'restic -q restore latest -r "$store/new" --target "$target"'
done
for what in backup restore; do
    for name in kbagent tar restic; do
        row "program.$what.$name" "$(median $name.$what)" s
    done
    for peer in tar restic; do
        row "program.$what.beside_$peer" "$(awk -v a="$(median kbagent.$what)" -v b="$(median $peer.$what)" \
            'BEGIN { printf "%.4g", a / b }')" x
    done
done
