#!/usr/bin/env bash
# bench/run.sh [--quick]: measures the library and its peers and prints a line for each row of bench/bounds:
# its name, the figure, the bound, and whether it is met. --quick uses small inputs, so its figures are not
# comparable with the bounds. build/bench/rows contains all figures.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quick=()
[ "${1:-}" != --quick ] || quick=(--quick)
turns=5
rows=build/bench/rows
programs=build/bench/bench

packaging/install-packages.sh build bench
mkdir -p build/bench
cmake --preset bench >build/bench.log || { cat build/bench.log; exit 1; }
cmake --build build/bench -- -j "$(nproc)" >build/bench.log || { cat build/bench.log; exit 1; }
(cd bench/peers/ignore && CARGO_TARGET_DIR=../../../build/bench/ignore cargo build --release --offline --quiet)

median() { sort -g | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
row() { printf '%s\t%s\t%s\n' "$@" | tee -a "$rows"; }

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

: >"$rows"
echo "== measuring"
for count in 10 100 1000 10000; do
    against_ignore mixed $count
done
against_ignore literal 100000
for program in SelectionBench RuleBench StringBench LockBench RecordBench RecordPeers MountBench LogBench; do
    "$programs/$program" ${quick[@]+"${quick[@]}"} | tee -a "$rows"
done
# A path's operations, for each of some texts, in nanoseconds: path.Parent/0
"$programs/PathBench" --benchmark_format=csv ${quick[@]+--benchmark_min_time=0.01} 2>/dev/null |
    awk -F, '/^"/ { gsub(/"/, "", $1); printf "path.%s\t%.4g\tns\n", $1, $4 }' | tee -a "$rows"
for peers in capture program; do
    "bench/$peers-peers.sh" ${quick[@]+"${quick[@]}"} | tee -a "$rows"
done

echo "== bounds (build/bench/rows has all figures)"
[ ${#quick[@]} -eq 0 ] || echo "   on small inputs, hundredths and tenths of those that a line names"
awk -F '\t' '
    FNR == NR { figure[$1] = $2; unit[$1] = $3; next }
    /^#/ || NF < 5 { next }
    {
        met = $3 == "-" ? "no bound yet" : "missed"
        known = $2 in figure
        if (known && ($3 == "<=" && figure[$2] <= $4 + 0 || $3 == ">=" && figure[$2] >= $4 + 0)) met = "met"
        if (known && ($3 == "<=" && figure[$2] <= $5 + 0 || $3 == ">=" && figure[$2] >= $5 + 0))
            met = "met, and the goal " $5
        printf "%-62s %10s %-8s %s %-8s %s\n", $1, known ? figure[$2] : "none", unit[$2], $3, $4, met
    }' "$rows" bench/bounds
