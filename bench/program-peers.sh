#!/usr/bin/env bash
# bench/program-peers.sh [--quick] [PART...]: compares kbagent with restic, tar and rsync, whole processes in turns,
# and prints medians of five and their ratios, "name TAB value TAB unit". Parts:
#   tree    /usr/share and /usr/include: backed up, again unchanged, restored, checked; the repository's size
#   large   4 files of 512 MiB that can't be compressed: backed up, again unchanged, restored
#   prune   after half of 20 snapshots were forgotten
#   one     one file of a snapshot of 1,000,000 entries: time, and bytes that are read from packs
#   calls   system calls of an entry of "tree"
#   memory  the peak at 100,000 entries, and that of each blob of the index
#   growth  a first backup of 10,000, 100,000 and 1,000,000 entries
# Both programs open repositories with a cheap key, since the derivation of a usual one takes as long as a small
# backup. Reads build/bench, or the build folder that BUILD names. All files are in $TMPDIR or /dev/shm, which should
# be a tmpfs with 16 GB; an entry of a generated tree takes 4 KiB and an inode.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C RESTIC_PASSWORD=bench

turns=5
sources=(/usr/share /usr/include)
large=512
many=1000000
growth=(10000 100000 1000000)
measured=100000 # entries for the memory
blobs=1000000
changed=2000000
parts=()
for argument in "$@"; do
    if [ "$argument" = --quick ]; then
        turns=1 sources=(/usr/include/linux) large=16 many=3000 growth=(300 3000) measured=3000 blobs=50000 changed=100000
    else
        parts+=("$argument")
    fi
done
[ ${#parts[@]} -ne 0 ] || parts=(tree large prune one calls memory growth)

build=$(realpath "${BUILD:-build/bench}")
kbagent=$build/kbagent
maker=$build/bench/RepositoryMaker
work=$(mktemp -d "${TMPDIR:-/dev/shm}/program-peers-XXXXXX")
trap 'chmod -R u+rwX "$work"; rm -rf "$work"' EXIT
repository=$work/repository target=$work/target
export RESTIC_CACHE_DIR=$work/cache KBAGENT_PASSWORD_FILE=$work/password KBAGENT_CACHE_DIR=$work/cache
(umask 077 && echo bench >"$work/password")

row() { printf '%s\t%s\t%s\n' "$@"; }
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.4g", a / b }'; }
quotient() { awk -v a="$1" -v b="$2" -v unit="${3:-1}" 'BEGIN { printf "%.4g", a / b / unit }'; }
quietly() { "$@" >"$work/output" 2>&1 || { cat "$work/output" >&2; exit 1; }; }
# The seconds of the command are added to the file NAME.
time_into() {
    local name=$1 TIMEFORMAT='%3R'
    shift
    { time "$@" >"$work/output" 2>&1; } 2>>"$work/$name" || { cat "$work/output" >&2; exit 1; }
}
# The medians of the two programs in seconds, and their ratio: NAME PEER
compared() {
    row "program.$1.kbagent" "$(median "kbagent.$1")" s
    row "program.$1.$2" "$(median "$2.$1")" s
    row "program.$1.beside_$2" "$(ratio "$(median "kbagent.$1")" "$(median "$2.$1")")" x
}

# The programs, in their quiet forms: PROGRAM ARGUMENTS...
run_kbagent() { "$kbagent" -q -r "$repository" "$@"; }
run_restic() { restic -q -r "$repository" "$@"; }
new_repository() {
    rm -rf "$repository" "$work/cache"
    "$maker" create "$repository" bench
}
new_target() { rm -rf "$target" && mkdir "$target"; }
# shellcheck disable=SC2016 # it is expanded by the inner shell
tar_and_zstd() { bash -c 'set -o pipefail; tar -cf - "${@:2}" 2>/dev/null | zstd -q -3 -T2 >"$1"' - "$work/tar" "$@"; }
count_entries() { find "$@" | wc -l; }

# COUNT files in directories of at most 1,000 entries below $work/many. Each has a content of its own.
make_many() {
    rm -rf "$work/many"
    mkdir "$work/many"
    (cd "$work/many" && awk -v count="$1" 'BEGIN {
        for (i = 0; i * 1000 < count; ++i) system("mkdir d" i)
        for (i = 0; i < count; ++i) { file = "d" int(i / 1000) "/f" i; print i > file; close(file) }
    }')
}

measure_tree() {
    local program
    find "${sources[@]}" -type f -exec cat {} + >/dev/null 2>&1 || true # into the system's cache
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            new_repository
            time_into $program.tree.first run_$program backup "${sources[@]}"
            time_into $program.tree.unchanged run_$program backup "${sources[@]}"
            du -sb "$repository" | cut -f 1 >>"$work/$program.size"
            time_into $program.tree.check run_$program check --read-data
            new_target
            time_into $program.tree.restore run_$program restore latest --target "$target"
        done
        time_into tar.tree.first tar_and_zstd "${sources[@]}"
        new_target
        quietly rsync -aHAX "${sources[@]}" "$target"
        time_into rsync.tree.unchanged rsync -aHAX "${sources[@]}" "$target"
    done
    compared tree.first restic
    compared tree.first tar
    compared tree.unchanged restic
    compared tree.unchanged rsync
    compared tree.restore restic
    compared tree.check restic
    row program.size.beside_restic "$(ratio "$(median kbagent.size)" "$(median restic.size)")" x
}

measure_large() {
    local program number
    mkdir "$work/large"
    for number in 1 2 3 4; do
        head -c "${large}M" /dev/urandom >"$work/large/$number"
    done
    sleep 3 # a file is trusted from 2 seconds after its change on
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            new_repository
            time_into $program.large.first run_$program backup "$work/large"
            time_into $program.large.unchanged run_$program backup "$work/large"
            new_target
            time_into $program.large.restore run_$program restore latest --target "$target"
        done
    done
    rm -rf "$work/large" "$target" "$repository"
    compared large.first restic
    compared large.unchanged restic
    compared large.restore restic
}

# Each snapshot changes a tenth of the files. The programs prune copies of one repository.
measure_prune() {
    local program number
    mkdir "$work/changing"
    new_repository
    for number in $(seq 0 29); do
        head -c "$changed" /dev/urandom | base64 |
            split -d -a 4 -b 20000 - "$work/changing/part-$((number % 10))-"
        [ "$number" -lt 10 ] || quietly run_kbagent backup "$work/changing"
    done
    quietly run_kbagent forget --keep-last 10
    mv "$repository" "$work/forgotten"
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            rm -rf "$repository" "$work/cache"
            cp -a "$work/forgotten" "$repository"
            time_into $program.prune run_$program prune
        done
    done
    rm -rf "$work/forgotten" "$work/changing"
    compared prune restic
}

measure_one() {
    local program number=$((many / 2))
    local file=$work/many/d$((number / 1000))/f$number
    make_many "$many"
    new_repository
    quietly run_kbagent backup "$work/many"
    rm -rf "$work/many"
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            new_target
            time_into $program.one run_$program restore latest --include "$file" --target "$target"
            [ "$(cat "$target$file")" = "$number" ]
        done
    done
    compared one restic
    new_target
    strace -f -y -e trace=read,pread64 -o "$work/reads" "$kbagent" -q -r "$repository" restore latest \
        --include "$file" --target "$target"
    row program.one.read "$(awk -v data="<$repository/data/" \
        'index($0, data) { bytes += $NF } END { printf "%.4g", bytes / 1048576 }' "$work/reads")" MiB
}

# NAME ENTRIES COMMAND...: the system calls of all threads and processes of a command, for each entry.
count_calls() {
    local name=$1 entries=$2
    shift 2
    quietly strace -c -f -o "$work/calls" "$@"
    row "program.calls.$name" "$(quotient "$(awk '$NF == "total" { print $4 }' "$work/calls")" "$entries")" calls
}
measure_calls() {
    local entries
    entries=$(count_entries "${sources[@]}")
    new_repository
    count_calls first "$entries" "$kbagent" -q -r "$repository" backup "${sources[@]}"
    count_calls unchanged "$entries" "$kbagent" -q -r "$repository" backup "${sources[@]}"
    new_target
    count_calls restore "$entries" "$kbagent" -q -r "$repository" restore latest --target "$target"
    new_repository
    count_calls first.restic "$entries" restic -q -r "$repository" backup "${sources[@]}"
    count_calls first.tar "$entries" tar -cf "$work/tar" "${sources[@]}"
}

# COMMAND...: prints the peak of its memory in bytes.
peak_of() {
    /usr/bin/time -o "$work/peak" -f %M "$@" >"$work/output" 2>&1 || { cat "$work/output" >&2; exit 1; }
    echo $(($(tail -n 1 "$work/peak") * 1024))
}
measure_memory() {
    local before after
    "$build/bench/CaptureBench" make "$work/captured" "$measured"
    new_repository
    for name in first unchanged; do
        row "program.memory.$name" "$(quotient "$(peak_of "$kbagent" -q -r "$repository" backup "$work/captured")" 1e6)" MB
    done
    new_target
    row program.memory.restore \
        "$(quotient "$(peak_of "$kbagent" -q -r "$repository" restore latest --target "$target")" 1e6)" MB
    row program.memory.check "$(quotient "$(peak_of "$kbagent" -q -r "$repository" check --read-data)" 1e6)" MB
    new_target
    rm -rf "$work/captured"
    before=$(peak_of "$kbagent" -q -r "$repository" ls latest /)
    "$maker" fill "$repository" bench "$blobs"
    after=$(peak_of "$kbagent" -q -r "$repository" ls latest /)
    row program.memory.blob "$(quotient $((after - before)) "$blobs")" bytes
}

# An entry's microseconds by the number of entries, without the time of a run on an empty directory.
measure_growth() {
    local count program
    local programs=(kbagent restic tar rsync)
    empty_then() { # COUNT
        for program in kbagent restic; do
            new_repository
            time_into "$program.growth.$1" run_$program backup "$work/many"
        done
        time_into "tar.growth.$1" tar_and_zstd "$work/many"
        new_target
        time_into "rsync.growth.$1" rsync -aHAX "$work/many" "$target"
    }
    for count in 0 "${growth[@]}"; do
        make_many "$count"
        # The largest takes minutes.
        for _ in $(seq "$((count < 1000000 ? turns : (turns + 1) / 2))"); do
            empty_then "$count"
        done
    done
    rm -rf "$work/many" "$target"
    per_entry() { # PROGRAM COUNT
        awk -v all="$(median "$1.growth.$2")" -v empty="$(median "$1.growth.0")" -v n="$2" \
            'BEGIN { printf "%.4g", (all - empty) * 1e6 / n }'
    }
    for program in "${programs[@]}"; do
        for count in "${growth[@]}"; do
            row "program.growth.$program.$count" "$(per_entry "$program" "$count")" us
        done
    done
    row program.growth "$(ratio "$(per_entry kbagent "${growth[-1]}")" "$(per_entry kbagent "${growth[0]}")")" x
}

for part in "${parts[@]}"; do
    "measure_$part"
done
