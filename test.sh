#!/usr/bin/env bash
# ./test.sh [CTEST-ARGUMENT...]: installs what is missing, builds everything, runs the tests.
# The program then stands at build/release/kbagent.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

packaging/install-packages.sh build test
echo "== building (build/release)"
mkdir -p build
cmake --preset release >build/configure.log 2>&1 || { cat build/configure.log >&2; exit 1; }
cmake --build build/release -- -j "$(nproc)"
echo "== testing"
ctest --test-dir build/release --output-on-failure -j "$(nproc)" "$@"
