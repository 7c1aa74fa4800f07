#!/usr/bin/env bash
# bench/program-peers.sh [--quick]: backs a tree of 100,000 entries up and restores it with kbagent, tar and
# restic, whole processes in turns into empty folders, and prints the medians in seconds and kbagent's multiples of
# the others, "name TAB value TAB unit". A backup of kbagent or restic includes the creation of the repository. Reads
# build/bench, or the build folder that BUILD names. The tree and the backups are in $TMPDIR or /tmp.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C RESTIC_PASSWORD=bench

build=${BUILD:-build/bench}
entries=100000
turns=5
[ "${1:-}" != --quick ] || entries=3000
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree backup=$work/backup target=$work/target
export RESTIC_CACHE_DIR=$work/cache KBAGENT_REPOSITORY=$work/backup/new KBAGENT_PASSWORD_FILE=$work/password
(umask 077 && echo bench >"$work/password")

row() { printf '%s\t%s\t%s\n' "$@"; }
time_into() {
    local name=$1 TIMEFORMAT='%3R'
    shift
    { time "$@" >"$work/output" 2>&1; } 2>>"$work/$name" || { cat "$work/output" >&2; exit 1; }
}
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
both() {
    local name=$1 store=$2 restore=$3
    rm -rf "$backup" "$target"
    mkdir "$backup" "$target"
    sync
    time_into "$name.backup" bash -c "$store"
    time_into "$name.restore" bash -c "$restore"
}

"$build/bench/CaptureBench" make "$tree" "$entries"
export build tree backup target
for _ in $(seq "$turns"); do
    both kbagent '"$build/kbagent" init -q && "$build/kbagent" backup -q "$tree"' \
        '"$build/kbagent" restore -q latest --target "$target"'
    both tar 'tar --xattrs --acls -cf "$backup/tar" -C "$tree" .' 'tar --xattrs --acls -xpf "$backup/tar" -C "$target"'
    both restic 'restic -q init -r "$backup/new" && restic -q backup -r "$backup/new" "$tree"' \
        'restic -q restore latest -r "$backup/new" --target "$target"'
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
