#!/usr/bin/env bash
# ./test.sh [CTEST-ARGUMENT...]: installs missing packages, builds everything, runs the tests. Prints at its end how many
# tests were skipped for which reasons, and the count of ctest. The program is then build/release/kbagent.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

packaging/install-packages.sh build test
echo "== building (build/release)"
mkdir -p build
cmake --preset release >build/configure.log 2>&1 || { cat build/configure.log >&2; exit 1; }
cmake --build build/release -- -j "$(nproc)"
echo "== testing"
failed=0
ctest --test-dir build/release --output-on-failure -j "$(($(nproc) + 1))" "$@" | tee build/test.log || failed=$?
awk '
    function skip(reason) { if (!isCounted) { tests[reason]++; sum++; isCounted = 1 } }
    / Testing: / { isCounted = 0 }
    isReason { skip($0); isReason = 0 }
    /: Skipped$/ { isReason = 1 }
    sub(/^Skipped: /, "") { skip($0) }
    END {
        printf "%d tests skipped\n", sum
        fflush()
        for (reason in tests) printf "%5d  %s\n", tests[reason], reason | "sort -k1,1nr -k2"
    }' build/release/Testing/Temporary/LastTest.log
grep 'tests passed' build/test.log || true
exit "$failed"
