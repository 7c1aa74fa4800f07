#!/usr/bin/env bash
# bench/remote-peers.sh [--quick]: backs /usr/share and /usr/include up to a server of S3, backs them up unchanged, and
# restores them, with kbagent and restic in turns. testing/s3-server.sh runs it. The time in which curl moves the same
# bytes over five connections is subtracted from each. Prints the medians in seconds and kbagent's multiples of restic,
# "name TAB value TAB unit", the multiples with their bounds, and whether these are met. A multiple is not measurable if
# curl took longer than a program. Reads build/bench, or the build folder that BUILD names. The caches and what is
# restored are in $TMPDIR or /dev/shm, so that a disk is not measured; they take 3 GB.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C RESTIC_PASSWORD=bench KBAGENT_PASSWORD=bench

build=${BUILD:-build/bench}
sources=(/usr/share /usr/include)
turns=3
[ "${1:-}" != --quick ] || sources=(/usr/include/linux) turns=1
work=$(mktemp -d "${TMPDIR:-/dev/shm}/remote-peers-XXXXXX")
trap 'rm -rf "$work"' EXIT
target=$work/target
export RESTIC_CACHE_DIR=$work/restic KBAGENT_CACHE_DIR=$work/kbagent
kbagent=$build/kbagent
url=${KBAGENT_TEST_S3#s3:}/bare

row() { printf '%s\t%s\t%s\n' "$@"; }
time_into() {
    local name=$1 TIMEFORMAT='%3R'
    shift
    { time "$@" >"$work/output" 2>&1; } 2>>"$work/$name" || { cat "$work/output" >&2; exit 1; }
}
median() { sort -g "$work/$1" | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
# signed HASH ARGUMENT...: curl with the signature for a body that has the hash. The key is on standard input.
signed() {
    local hash=$1
    shift
    printf 'user = "%s:%s"\n' "$AWS_ACCESS_KEY_ID" "$AWS_SECRET_ACCESS_KEY" |
        curl -sSfZ --parallel-immediate --parallel-max 5 -K - --aws-sigv4 aws:amz:us-east-1:s3 \
            -H "x-amz-content-sha256: $hash" "$@"
}
put_bare() { signed "$pack_hash" -T "$work/pack" "$url/[1-$packs]"; }
get_bare() { signed "$(sha256sum </dev/null | cut -d ' ' -f 1)" "$url/[1-$packs]" -o "$work/received#1"; }

for turn in $(seq "$turns"); do
    export KBAGENT_REPOSITORY=$KBAGENT_TEST_S3/kbagent$turn RESTIC_REPOSITORY=$KBAGENT_TEST_S3/restic$turn
    "$kbagent" -q init
    restic -q init
    for what in backup unchanged; do
        time_into "$what.kbagent" "$kbagent" backup -q "${sources[@]}"
        time_into "$what.restic" restic -q backup "${sources[@]}"
    done
    for program in "$kbagent" restic; do
        time_into "restore.$(basename "$program")" "$program" -q restore latest --target "$target"
        rm -rf "$target"
    done
done
bytes=$(restic stats --mode raw-data --json | sed 's/.*"total_size":\([0-9]*\).*/\1/')
packs=$((bytes / (16 << 20) + 1))
head -c $((bytes / packs)) /dev/urandom >"$work/pack"
pack_hash=$(sha256sum <"$work/pack" | cut -d ' ' -f 1)
for _ in $(seq "$turns"); do
    time_into backup.bare put_bare
    time_into restore.bare get_bare
done
echo 0 >"$work/unchanged.bare"
for bounded in backup=0.5 unchanged=0.4 restore=0.6; do
    what=${bounded%=*}
    for name in kbagent restic bare; do
        row "remote.$what.$name" "$(median "$what.$name")" s
    done
    awk -v name="remote.$what.beside_restic" -v a="$(median "$what.kbagent")" -v b="$(median "$what.restic")" \
        -v bare="$(median "$what.bare")" -v bound="${bounded#*=}" 'BEGIN {
            if (a < bare || b <= bare) {
                printf "%s\t-\tx\t<= %s\tnot measurable\n", name, bound
                exit
            }
            value = (a - bare) / (b - bare)
            printf "%s\t%.4g\tx\t<= %s\t%s\n", name, value, bound, value <= bound ? "met" : "missed"
        }'
done
