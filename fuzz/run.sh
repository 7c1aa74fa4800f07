#!/usr/bin/env bash
# fuzz/run.sh [SECONDS] [TARGET...]: builds the fuzz targets with the preset asan (build/asan) and runs each, or the named
# ones, for SECONDS (60), one on each processor, starting from fuzz/corpus/TARGET and with the words of
# fuzz/dictionaries/TARGET.dict. No input may cause an allocation of 64 MiB. Inputs that reach new code
# stay in build/fuzz/corpus/TARGET for the next run. Ends non-zero after a finding, whose input is then in
# build/fuzz/findings/TARGET; once it is fixed, the input belongs in fuzz/corpus/TARGET, where each test run replays it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=60
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for source in fuzz/*Fuzz.cpp; do targets+=("$(basename "$source" Fuzz.cpp)"); done
fi

packaging/install-packages.sh build test ci
mkdir -p build
cmake --preset asan >build/fuzz.log || { cat build/fuzz.log; exit 1; }
cmake --build build/asan --target "${targets[@]/%/Fuzz}" -- -j "$(nproc)" >build/fuzz.log ||
    { cat build/fuzz.log; exit 1; }

export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
# Prints a line about the target, or the end of its log.
run() {
    local seconds=$1 target=$2
    local kept=build/fuzz/corpus/$target findings=build/fuzz/findings/$target log=build/fuzz/$target.log words=()
    mkdir -p "$kept" "$findings"
    [ ! -f "fuzz/dictionaries/$target.dict" ] || words=("-dict=fuzz/dictionaries/$target.dict")
    if "build/asan/fuzz/${target}Fuzz" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=1024 \
        -malloc_limit_mb=64 -print_final_stats=1 "${words[@]}" -artifact_prefix="$findings/" \
        "$kept" "fuzz/corpus/$target" >"$log" 2>&1; then
        awk -v target="$target" '/number_of_executed_units/ { runs = $2 } /average_exec_per_sec/ { rate = $2 }
            END { print target ": " runs " runs, " rate " a second, no finding" }' "$log"
    else
        tail -n 60 "$log"
        echo "finding: $target" >&2
        return 1
    fi
}
export -f run
printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -euo pipefail -c 'run "$@"' run "$seconds" {}
