#!/usr/bin/env bash
# testing/coverage.sh: builds the libraries and their tests with counters (build/coverage), runs these tests, and prints
# which share of lines and branches of libkrt and Backup they reach. Ends non-zero if one of the named modules falls
# below its bounds. The command that it prints last writes pages that show each line.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

lines=95 branches=85
build=build/coverage
counts=$build/counts.json

packaging/install-packages.sh build test ci
mkdir -p build
cmake --preset coverage >build/coverage.log || { cat build/coverage.log; exit 1; }
cmake --build "$build" --target krt_tests backup_tests -- -j "$(nproc)" >build/coverage.log || { cat build/coverage.log; exit 1; }
find "$build" -name '*.gcda' -delete
# Left out: tests that need the program. Code of a child process that runs as an ordinary user is not counted, since
# that user can't write here.
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" -L '^(krt|backup)_tests$' \
    -E LibraryErrorNamesSourceModulesAndExports >build/coverage.log || { cat build/coverage.log; exit 1; }
tail -n 4 build/coverage.log

gcovr --root . -j "$(nproc)" --filter libkrt/ --filter Backup/ --exclude '.*/Mac/' \
    --exclude-throw-branches --exclude-unreachable-branches \
    --json "$counts" "$build/libkrt" "$build/Backup" "$build/tests"

failed=0
# share NAME FILTER [OPTION...]; gcovr replaces the file that it writes, so that root would lose /dev/null
share() {
    local name=$1 filter=$2
    shift 2
    gcovr --root . -a "$counts" --filter "$filter" --print-summary -o "$build/share" "$@" 2>/dev/null >build/coverage.log ||
        failed=1
    awk -v name="$name" '{ sub(/^[a-z]+: /, ""); share[NR] = $0 }
        END { printf "%-16s lines %-26s branches %s\n", name, share[1], share[3] }' build/coverage.log
}
bounded() { share "$@" --fail-under-line "$lines" --fail-under-branch "$branches"; }

share libkrt libkrt/
share Backup Backup/
bounded JSON 'libkrt/Krt/JSON/'
bounded "legacy headers" '(Backup/File/Y(Unix|Win)FileMetadata|libkrt/Krt/Util/YVariableStructureParser)'
bounded selection 'Backup/File/YSelection'
bounded YFile '(Backup|libkrt/Krt)/File/Unix/YFile'
bounded trust 'Backup/Core/OpenSSL'
echo "mkdir -p $build/pages && gcovr --root . -a $counts --html-details $build/pages/index.html"
[ "$failed" -eq 0 ] || { echo "below $lines % of lines or $branches % of branches" >&2; exit 1; }
