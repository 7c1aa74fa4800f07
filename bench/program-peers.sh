#!/usr/bin/env bash
# bench/program-peers.sh [--quick] [PART...]: compares kbagent with restic, tar and rsync, whole processes in turns.
# Prints medians of five and their ratios, "name TAB value TAB unit"; a figure with a bound in bench/bounds is followed
# by the bound, the goal, and whether they are met. The parts, with their estimated minutes on 2 cores and the memory
# that they take at most on the tmpfs:
#   tree    3    4 GB  /usr/share and /usr/include: backed up, again unchanged, restored, checked; the repository's size
#   large   2    7 GB  4 files of 512 MiB that can't be compressed: backed up, again unchanged, restored
#   prune   2    2 GB  after half of 20 snapshots were forgotten
#   one     2    6 GB  one file of a snapshot of 1,000,000 entries: time, and bytes that are read from packs
#   calls   3    3 GB  system calls of an entry of "tree"
#   memory  2    3 GB  the peak at 100,000 entries, whose files have 0 to 20,000 random bytes, and in "tree"; that of
#                      each further blob of the index
#   plot    8    9 GB  a first backup of 10,000 to 1,000,000 entries: medians of 9 rounds of kbagent for up to 10,000
#                      and of 5 for more; of a peer, 5 for up to 10,000, 3 for up to 100,000, and 1 for more. The
#                      seconds are also written to build/bench/time-by-entries.tsv, which bench/plot.sh draws
#   growth  8    7 GB  once each, and only by name: a million files, a directory of a million, a sparse file of 100 GB,
#                      1,000 snapshots, 10,000,000 blobs. Prints a Markdown table.
# A part that fails, or lacks the memory, does not stop the others; the exit code is 1 then.
#
# Both programs open repositories with a cheap key, since the derivation of a usual one takes as long as a small
# backup. Reads build/bench, or the build folder that BUILD names. All files, those of the programs too, are in a folder
# of $TMPDIR or /dev/shm, which has to be a tmpfs, unless --quick is given; a part removes its files at its end.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export LC_ALL=C RESTIC_PASSWORD=bench

turns=5
sources=(/usr/share /usr/include)
large=512
many=1000000
plotted=(10000 31600 100000 316000 1000000)
measured=100000 # entries for the memory
blobs=1000000
changed=10000000
sparse=100G
snapshots=1000
filled=10000000
isQuick=false
parts=()
for argument in "$@"; do
    case $argument in
    --quick)
        isQuick=true turns=1 sources=(/usr/include/linux) large=16 many=3000 plotted=(1000 3000 10000) measured=3000
        blobs=50000 changed=100000 sparse=1G snapshots=20 filled=100000
        ;;
    tree | large | prune | one | calls | memory | plot | growth) parts+=("$argument") ;;
    *)
        echo "program-peers.sh: there is no part $argument" >&2
        exit 2
        ;;
    esac
done
[ ${#parts[@]} -ne 0 ] || parts=(tree large prune one calls memory plot)

build=$(realpath "${BUILD:-build/bench}")
kbagent=$build/kbagent
maker=$build/bench/RepositoryMaker
for program in "$kbagent" "$maker" "$build/bench/CaptureBench" restic rsync tar zstd strace /usr/bin/time; do
    command -v "$program" >/dev/null || { echo "program-peers.sh: $program is missing" >&2; exit 2; }
done
parent=${TMPDIR:-/dev/shm}
if [ $isQuick = false ] && [ "$(stat -f -c %T "$parent")" != tmpfs ]; then
    echo "program-peers.sh: $parent is not a tmpfs, so a disk would be measured" >&2
    exit 2
fi
folder=$(mktemp -d "$parent/program-peers-XXXXXX")
work=$folder/work # emptied after each part
results=$folder/results
repository=$work/repository target=$work/target
export TMPDIR=$work/tmp RESTIC_CACHE_DIR=$work/cache KBAGENT_PASSWORD_FILE=$folder/password KBAGENT_CACHE_DIR=$work/cache
(umask 077 && echo bench >"$folder/password")
# Programs restore directories that only root may change.
remove() { rm -rf "$@" 2>/dev/null || { chmod -R u+rwX "$@"; rm -rf "$@"; }; }
trap 'remove "$folder"' EXIT
trap 'exit 130' INT TERM HUP

# NAME VALUE UNIT: one line, which bench/bounds completes.
row() {
    awk -F '\t' -v name="$1" -v value="$2" -v unit="$3" '
        function meets(bound) { return how == "<=" ? value + 0 <= bound : value + 0 >= bound }
        $2 == name && $3 != "-" { how = $3; reach = $4 + 0; goal = $5 + 0 }
        END {
            printf "%s\t%s\t%s", name, value, unit
            if (how != "")
                printf "\t%s %s\tgoal %s\t%s", how, reach, goal,
                    value + 0 <= 0 ? "invalid" : meets(goal) ? "goal met" : meets(reach) ? "met" : "missed"
            print ""
        }' bench/bounds | tee -a "$results"
}
# The median of the seconds in the file NAME; with "processor", of processor time.
median() { # NAME [processor]
    awk -v what="${2:-}" '{ print what == "" ? $1 : $2 + $3 }' "$work/$1" | sort -g |
        awk '{ value[NR] = $1 } END { if (!NR) exit 1; print value[int((NR + 1) / 2)] }'
}
quotient() { awk -v a="$1" -v b="$2" -v unit="${3:-1}" 'BEGIN { printf "%.4g", a / b / unit }'; }
# The command's output is printed only if it fails.
quietly() { "$@" >"$work/output" 2>&1 || { head -c 4000 "$work/output" >&2; echo "failed: $*" >&2; exit 1; }; }
# The seconds of the command, those of a user's and of the system's processor time are added to the file NAME.
time_into() {
    local name=$1 TIMEFORMAT='%3R %3U %3S'
    shift
    { time "$@" >"$work/output" 2>&1; } 2>>"$work/$name" ||
        { head -c 4000 "$work/output" >&2; echo "failed: $*" >&2; exit 1; }
}
# The medians of kbagent and of its peers in seconds, and its ratios to them: NAME PEER...
compared() {
    local name=$1 ours theirs peer
    shift
    ours=$(median "kbagent.$name")
    row "program.$name.kbagent" "$ours" s
    for peer in "$@"; do
        theirs=$(median "$peer.$name")
        row "program.$name.$peer" "$theirs" s
        row "program.$name.beside_$peer" "$(quotient "$ours" "$theirs")" x
    done
}

# The programs, in their quiet forms: PROGRAM ARGUMENTS...
run_kbagent() { "$kbagent" -q -r "$repository" "$@"; }
run_restic() { restic -q -r "$repository" "$@"; }
new_repository() {
    remove "$repository" "$work/cache"
    "$maker" create "$repository" bench
}
new_target() { remove "$target" && mkdir "$target"; }
tar_and_zstd() { tar -cf - "$@" | zstd -q -3 -T2 -f -o "$work/tar"; }
# A file is trusted from 2 seconds after its change on.
wait_for_trust() { sleep 3; }

# FROM TO [EACH]: the files FROM to TO - 1 of $work/many, in directories of 1,000. A file's content is its number, but
# of EACH files one is empty.
make_many() {
    mkdir -p "$work/many"
    [ "$1" -eq "$2" ] || seq -f "$work/many/d%.0f" $(($1 / 1000)) $((($2 - 1) / 1000)) | xargs mkdir -p
    (cd "$work/many" && awk -v from="$1" -v to="$2" -v each="${3:-0}" 'BEGIN {
        for (i = from; i < to; ++i) {
            file = "d" int(i / 1000) "/f" i
            if (each && i % each == each - 1) printf "" > file; else print i > file
            close(file)
        }
    }')
}

measure_tree() {
    local program
    find "${sources[@]}" -type f -exec cat {} + >/dev/null 2>&1 || true # into the system's cache
    row program.tree.entries "$(find "${sources[@]}" | wc -l)" entries
    mkdir "$work/copy"
    quietly rsync -aHAX "${sources[@]}" "$work/copy"
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
        time_into rsync.tree.unchanged rsync -aHAX "${sources[@]}" "$work/copy"
    done
    compared tree.first restic tar
    compared tree.unchanged restic rsync
    compared tree.restore restic
    compared tree.check restic
    row program.size.kbagent "$(quotient "$(median kbagent.size)" 1e6)" MB
    row program.size.restic "$(quotient "$(median restic.size)" 1e6)" MB
    row program.size.beside_restic "$(quotient "$(median kbagent.size)" "$(median restic.size)")" x
}

measure_large() {
    local program number
    mkdir "$work/large"
    for number in 1 2 3 4; do
        head -c "${large}M" /dev/urandom >"$work/large/$number"
    done
    wait_for_trust
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            new_repository
            time_into $program.large.first run_$program backup "$work/large"
            time_into $program.large.unchanged run_$program backup "$work/large"
            new_target
            time_into $program.large.restore run_$program restore latest --target "$target"
            remove "$target"
        done
    done
    compared large.first restic
    compared large.unchanged restic
    compared large.restore restic
}

# Each snapshot changes a tenth of the files. The programs prune copies of one repository. restic
# starts with a cache that has all trees, as after the backups of a night; kbagent keeps none of a directory.
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
    [ "$(find "$repository/snapshots" -type f | wc -l)" -eq 10 ]
    remove "$work/cache"
    quietly run_restic prune --dry-run
    mv "$work/cache" "$work/warm"
    mv "$repository" "$work/forgotten"
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            remove "$repository" "$work/cache"
            cp -a "$work/forgotten" "$repository"
            cp -a "$work/warm" "$work/cache"
            time_into $program.prune run_$program prune
            du -sb "$repository" | cut -f 1 >>"$work/$program.size"
        done
    done
    compared prune restic
    # What remains, since a program that keeps more has less to do.
    row program.prune.size.beside_restic "$(quotient "$(median kbagent.size)" "$(median restic.size)")" x
}

measure_one() {
    local program number=$((many / 2)) bytes
    local file=$work/many/d$((number / 1000))/f$number
    make_many 0 "$many"
    new_repository
    quietly run_kbagent backup "$work/many"
    remove "$work/many"
    for _ in $(seq "$turns"); do
        for program in kbagent restic; do
            new_target
            time_into $program.one run_$program restore latest --include "$file" --target "$target"
            [ "$(cat "$target$file")" = "$number" ]
        done
    done
    compared one restic
    new_target
    # A file for each thread, so that no call is split into two lines.
    quietly strace -ff -y -s 0 -e trace=read,readv,pread64,preadv,preadv2 -o "$work/reads" \
        "$kbagent" -q -r "$repository" restore latest --include "$file" --target "$target"
    bytes=$(cat "$work"/reads.* | awk -v data="<$repository/data/" \
        'index($0, data) { bytes += $NF } END { printf "%.0f", bytes }')
    [ "$bytes" -gt 0 ]
    row program.one.read "$(quotient "$bytes" 1048576)" MiB
}

# NAME ENTRIES COMMAND...: the system calls of all threads and processes of a command, for each entry.
count_calls() {
    local name=$1 entries=$2 calls
    shift 2
    quietly strace -c -f -o "$work/calls" "$@"
    calls=$(awk '$NF == "total" { print $4 }' "$work/calls")
    row "program.calls.$name" "$(quotient "$calls" "$entries")" calls
}
measure_calls() {
    local entries
    entries=$(find "${sources[@]}" | wc -l)
    new_repository
    count_calls first "$entries" "$kbagent" -q -r "$repository" backup "${sources[@]}"
    count_calls unchanged "$entries" "$kbagent" -q -r "$repository" backup "${sources[@]}"
    new_repository
    count_calls first.restic "$entries" restic -q -r "$repository" backup "${sources[@]}"
    count_calls first.tar "$entries" tar -cf "$work/tar" "${sources[@]}"
}

# COMMAND...: sets the variables "seconds" and "peak", in bytes.
observe() {
    quietly /usr/bin/time -o "$work/observed" -f '%e %M' "$@"
    read -r seconds peak < <(tail -n 1 "$work/observed")
    peak=$((peak * 1024))
}
# NAME COMMAND...
peak_row() {
    local name=$1
    shift
    observe "$@"
    row "program.memory.$name" "$(quotient "$peak" 1e6)" MB
}
measure_memory() {
    local seconds peak before program
    quietly "$build/bench/CaptureBench" make "$work/captured" "$measured" 20000
    new_repository
    wait_for_trust
    peak_row first "$kbagent" -q -r "$repository" backup "$work/captured"
    peak_row unchanged "$kbagent" -q -r "$repository" backup "$work/captured"
    remove "$work/captured"
    new_target
    peak_row restore "$kbagent" -q -r "$repository" restore latest --target "$target"
    remove "$target"
    peak_row check "$kbagent" -q -r "$repository" check --read-data
    observe "$kbagent" -q -r "$repository" ls latest /
    before=$peak
    "$maker" fill "$repository" bench "$blobs"
    observe "$kbagent" -q -r "$repository" ls latest /
    row program.memory.blob "$(quotient $((peak - before)) "$blobs")" bytes
    for program in "$kbagent" restic; do
        new_repository
        peak_row "tree.$(basename "$program")" "$program" -q -r "$repository" backup "${sources[@]}"
    done
}

# A program's rounds for COUNT entries: the short runs are the noisy ones, and kbagent alone has a bound.
rounds_of() { # PROGRAM COUNT
    if "$isQuick"; then
        echo 1
    elif [ "$1" = kbagent ]; then
        echo $(($2 <= 10000 ? 9 : 5))
    else
        echo $(($2 <= 10000 ? 5 : $2 <= 100000 ? 3 : 1))
    fi
}
back_up_many() { # PROGRAM COUNT
    case $1 in
    kbagent | restic)
        new_repository
        time_into "$1.many.$2" "run_$1" backup "$work/many"
        ;;
    tar) time_into "tar.many.$2" tar_and_zstd "$work/many" ;;
    rsync)
        # One in four files is empty, so that source and target together take 8 GB.
        remove "$repository" "$work/cache"
        new_target
        time_into "rsync.many.$2" rsync -aHAX "$work/many" "$target"
        remove "$target"
        ;;
    esac
}
measure_plot() {
    local programs=(kbagent restic tar rsync) data=$work/data count previous=0 program turn
    for count in 0 "${plotted[@]}"; do
        make_many "$previous" "$count" 4
        previous=$count
        for turn in $(seq "$(rounds_of kbagent "$count")"); do
            for program in "${programs[@]}"; do
                [ "$turn" -gt "$(rounds_of "$program" "$count")" ] || back_up_many "$program" "$count"
            done
        done
    done
    for program in "${programs[@]}"; do
        for count in "${plotted[@]}"; do
            row "program.entries.$program.$count" "$(median "$program.many.$count")" s
        done
    done | tee "$data"
    # The processor time of an entry, without that of a run on an empty directory. A backup waits 200 ms for other locks
    # while it walks, so its seconds would be those of the wait at 10,000 entries.
    per_entry() { # PROGRAM COUNT
        awk -v all="$(median "$1.many.$2" processor)" -v empty="$(median "$1.many.0" processor)" -v n="$2" \
            'BEGIN { printf "%.4g", (all - empty) * 1e6 / n }'
    }
    for program in "${programs[@]}"; do
        for count in "${plotted[@]}"; do
            row "program.growth.$program.$count" "$(per_entry "$program" "$count")" us
        done
    done
    row program.growth "$(quotient "$(per_entry kbagent "${plotted[-1]}")" "$(per_entry kbagent "${plotted[0]}")")" x
    # In seconds, beyond the wait: of the entries after the middle over those before it.
    local first=${plotted[0]} middle=${plotted[${#plotted[@]} / 2]} last=${plotted[-1]}
    for program in "${programs[@]}"; do
        row "program.growth.seconds.$program" "$(awk -v a="$(median "$program.many.$first")" \
            -v b="$(median "$program.many.$middle")" -v c="$(median "$program.many.$last")" \
            -v first="$first" -v middle="$middle" -v last="$last" \
            'BEGIN { printf "%.4g", (c - b) / (last - middle) / ((b - a) / (middle - first)) }')" x
    done
    cp "$data" "$build/time-by-entries.tsv"
}

# Prints one cell of the table: COMMAND...
cell() {
    local seconds peak
    observe "$@"
    printf ' %.2f s, %.0f MB |' "$seconds" "$(quotient "$peak" 1e6)"
}
# The line of the table for the case NAME, whose source is PATH, with the first backup if FIRST is "first". Holes of the
# repository's files are not counted.
growth_line() { # NAME PATH [FIRST]
    printf '| %s |' "$1"
    if [ "${3:-}" = first ]; then cell "$kbagent" -q -r "$repository" backup "$2"; else printf ' |'; fi
    cell "$kbagent" -q -r "$repository" backup "$2"
    cell "$kbagent" -q -r "$repository" ls latest /
    printf ' %.0f MB |\n' "$(quotient "$(find "$repository" -type f -printf '%s %b\n' |
        awk '{ bytes += $1 < $2 * 512 ? $1 : $2 * 512 } END { printf "%.0f", bytes }')" 1e6)"
}
measure_growth() {
    local number
    echo "| | first backup | unchanged | opened (\`ls latest /\`) | repository |"
    echo '|---|---|---|---|---|'
    make_many 0 "$many"
    new_repository
    wait_for_trust
    growth_line "$many files, 1,000 a directory" "$work/many" first

    # The same files in one directory
    mkdir "$work/flat"
    find "$work/many" -type f -print0 | xargs -0 mv -t "$work/flat"
    remove "$work/many"
    new_repository
    wait_for_trust
    growth_line "one directory of $many files" "$work/flat" first
    remove "$work/flat"

    mkdir "$work/sparse"
    truncate -s "$sparse" "$work/sparse/file"
    new_repository
    wait_for_trust
    growth_line "a sparse file of ${sparse}B" "$work/sparse" first
    remove "$work/sparse"

    # Most of a short backup's time is the wait for other locks, so many run at once. Each changes one file of 100.
    mkdir "$work/small"
    for number in $(seq 100); do
        echo "$number" >"$work/small/$number"
    done
    new_repository
    export kbagent repository work
    # shellcheck disable=SC2016 # it is expanded by the inner shell
    quietly xargs -P 16 -I {} bash -c \
        'echo "change {}" >"$work/small/$(({} % 100 + 1))"
        exec "$kbagent" -q -r "$repository" backup "$work/small"' \
        < <(seq "$snapshots")
    [ "$(find "$repository/snapshots" -type f | wc -l)" -eq "$snapshots" ]
    wait_for_trust
    quietly run_kbagent backup "$work/small"
    growth_line "$snapshots snapshots" "$work/small"

    new_repository
    quietly run_kbagent backup "$work/small"
    "$maker" fill "$repository" bench "$filled"
    growth_line "$filled blobs" "$work/small"
}

# The bytes that PART takes at most, of the tmpfs and of memory
need_of() {
    local needs="tree 4 large 7 prune 2 one 6 calls 3 memory 3 plot 9 growth 7"
    [ $isQuick = false ] || needs=${needs//[0-9]/1}
    awk -v part="$1" '{ for (i = 1; i < NF; i += 2) if ($i == part) printf "%.0f\n", $(i + 1) * 1e9 }' <<<"$needs"
}
available() {
    { df --output=avail -B 1 "$folder" | tail -n 1; awk '$1 == "MemAvailable:" { printf "%.0f\n", $2 * 1024 }' /proc/meminfo; } |
        sort -g | head -n 1
}
# The names in bench/bounds that PART prints
bounds_of() {
    local names=$1
    case $1 in
    tree) names='(tree|size)' ;;
    plot) names=growth ;;
    growth) return ;;
    esac
    awk -F '\t' -v form="^program[.]$names([.]|\$)" '$2 ~ form { print $2 }' bench/bounds
}

failed=()
for part in "${parts[@]}"; do
    start=$SECONDS
    if [ "$(available)" -lt "$(need_of "$part")" ]; then
        echo "program-peers.sh: $part needs $(need_of "$part") bytes, and $(available) are available" >&2
        failed+=("$part")
        continue
    fi
    mkdir -p "$TMPDIR"
    : >"$results"
    set +e # a condition would disable -e in the part
    (set -e; "measure_$part")
    status=$?
    set -e
    lacking=$(bounds_of "$part" | grep -vxF -f <(cut -f 1 "$results") || true)
    [ -z "$lacking" ] || echo "program-peers.sh: $part printed no row" "${lacking//$'\n'/ }" >&2
    [ $status -eq 0 ] && [ -z "$lacking" ] || failed+=("$part")
    remove "$work"
    echo "program-peers.sh: $part took $((SECONDS - start)) s" >&2
done
[ ${#failed[@]} -eq 0 ] || { echo "program-peers.sh: failed: ${failed[*]}" >&2; exit 1; }
