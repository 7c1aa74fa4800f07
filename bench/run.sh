#!/usr/bin/env bash
# bench/run.sh [--quick] [PART...]: measures the library and its peers and prints a line for each row of bench/bounds:
# its name, the figure, the bound, and whether it is met; then the rows without a figure, and what failed. build/bench/rows
# contains all figures. --quick uses small inputs, so its figures are not comparable with the bounds. The parts:
#   queries   queries of rules compared with those of the crate "ignore"
#   library   the other programs of bench/
#   capture   bench/capture-peers.sh
#   program   bench/program-peers.sh, whose comment lists the memory and the time that it takes
#   table     no measurement: only the table, of the figures in build/bench/rows
# Without a PART, all are measured. With some, the figures of earlier runs are kept, and the last of a name counts.
# The exit code is 1 if a program failed, or if a row has no figure; --quick lacks those of the largest inputs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quick=()
parts=()
for argument in "$@"; do
    case $argument in
    --quick) quick=(--quick) ;;
    queries | library | capture | program | table) parts+=("$argument") ;;
    *)
        echo "run.sh: there is no part $argument" >&2
        exit 2
        ;;
    esac
done
turns=5
rows=build/bench/rows
programs=build/bench/bench
failed=()

median() { sort -g | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
row() { printf '%s\t%s\t%s\n' "$@"; }
# NAME COMMAND...: keeps the rows that the command prints; if it fails, the others are still measured.
measure() {
    local name=$1
    shift
    set +e # a condition would disable -e in the command
    (set -e; "$@") | tee -a "$rows"
    [ "${PIPESTATUS[0]}" -eq 0 ] || failed+=("$name")
    set -e
}
build_all() {
    packaging/install-packages.sh build bench
    mkdir -p build/bench
    cmake --preset bench >build/bench.log || { cat build/bench.log; exit 1; }
    cmake --build build/bench -- -j "$(nproc)" >build/bench.log || { cat build/bench.log; exit 1; }
}

# Queries compared with those of the crate "ignore" on the same rules and paths: KIND RULES
against_ignore() {
    local kind=$1 count=$2 paths=200000 inputs=build/bench/inputs
    [ ${#quick[@]} -eq 0 ] || paths=5000
    rm -rf "$inputs" && mkdir -p "$inputs"
    "$programs/SelectionBench" inputs "$inputs" "$kind" "$count" "$paths"
    local ours=() theirs=() name=selection.query.$kind.$count
    for _ in $(seq $turns); do
        ours+=("$("$programs/SelectionBench" query "$kind" "$count" "$paths")")
        theirs+=("$(build/bench/ignore/release/ignore-peer "$inputs/rules" "$inputs/paths")")
    done
    local mine peer
    mine=$(printf '%s\n' "${ours[@]}" | median)
    peer=$(printf '%s\n' "${theirs[@]}" | median)
    row "$name.ours" "$mine" ns
    row "$name.ignore" "$peer" ns
    row "$name" "$(awk -v a="$mine" -v b="$peer" 'BEGIN { printf "%.4g", a / b }')" x
}

measure_queries() {
    local count
    (cd bench/peers/ignore && CARGO_TARGET_DIR=../../../build/bench/ignore cargo build --release --offline --quiet)
    for count in 10 100 1000 10000; do
        against_ignore mixed $count
    done
    against_ignore literal 100000
}
# A path's operations, for each of some texts, in nanoseconds: path.Parent/0
measure_paths() {
    "$programs/PathBench" --benchmark_format=csv ${quick[@]+--benchmark_min_time=0.01} 2>/dev/null |
        awk -F, '/^"/ { gsub(/"/, "", $1); printf "path.%s\t%.4g\tns\n", $1, $4 }'
}
measure_part() { # PART
    local program
    case $1 in
    queries) measure queries measure_queries ;;
    library)
        for program in SelectionBench RuleBench StringBench LockBench RecordBench RecordPeers MountBench LogBench; do
            measure $program "$programs/$program" ${quick[@]+"${quick[@]}"}
        done
        measure PathBench measure_paths
        ;;
    capture | program) measure "$1-peers.sh" "bench/$1-peers.sh" ${quick[@]+"${quick[@]}"} ;;
    esac
}

if [ "${parts[*]:-}" != table ]; then
    build_all
    if [ ${#parts[@]} -eq 0 ]; then
        : >"$rows"
        parts=(queries library capture program)
    fi
    echo "== measuring"
    for part in "${parts[@]}"; do
        measure_part "$part"
    done
fi

echo "== bounds ($rows has all figures)"
[ ${#quick[@]} -eq 0 ] || echo "   on small inputs, hundredths and tenths of those that a line names"
awk -F '\t' '
    FILENAME == ARGV[1] { figure[$1] = $2; unit[$1] = $3; next }
    /^#/ || NF < 5 { next }
    {
        known = $2 in figure
        if (!known) lacking[++count] = $2
        met = !known ? "no figure" : $3 == "-" ? "no bound yet" : "missed"
        if (known && ($3 == "<=" && figure[$2] <= $4 + 0 || $3 == ">=" && figure[$2] >= $4 + 0)) met = "met"
        if (known && ($3 == "<=" && figure[$2] <= $5 + 0 || $3 == ">=" && figure[$2] >= $5 + 0))
            met = "met, and the goal " $5
        printf "%-62s %10s %-8s %s %-8s %s\n", $1, known ? figure[$2] : "none", unit[$2], $3, $4, met
        if (met ~ /^met/) ++reached; else if (met == "missed") ++missed
    }
    END {
        printf "== %d met, %d missed, %d without a figure\n", reached, missed, count
        for (i = 1; i <= count; ++i) print "   no figure of " lacking[i]
        exit count > 0
    }' "$rows" bench/bounds || [ ${#quick[@]} -ne 0 ] || failed+=("rows without a figure")
[ ${#failed[@]} -eq 0 ] || { printf 'run.sh: failed: %s\n' "${failed[@]}" >&2; exit 1; }
