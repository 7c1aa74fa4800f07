#!/usr/bin/env bash
# tests/packaging/symbols.sh [--update] LISTS LIBRARY...: each shared library exports the names of its list, LISTS/libX.symbols,
# and no others. Instances of templates and inline functions are left out: they are weak, and each user has its own.
# The lists are those of the release build by GCC; --update adds names that are new on purpose.
set -euo pipefail

update=
[ "$1" != --update ] || { update=1; shift; }
if [ -z "$update" ] && [ "${BUILD_TYPE:-}/${COMPILER:-}/${SANITIZE:-}" != RelWithDebInfo/GNU/ ]; then
    echo "Skipped: the lists are those of the release build by GCC"
    exit 77
fi
lists=$1 failed=0
shift
for library in "$@"; do
    name=$(basename "${library%%.so*}")
    if [[ $library != *.so* ]]; then
        echo "Skipped: $name is static"
        exit 77
    fi
    # A class's tables and its inline virtual functions are weak, too, if it has no virtual function in a source.
    # ReportHeapResize is weak so that a program may replace it.
    found=$(nm -DC --defined-only "$library" | awk '$2 !~ /[WVu]/ || /::ReportHeapResize\(/ { sub(/^[^ ]+ . /, ""); print }' | LC_ALL=C sort -u)
    if [ -n "$update" ]; then
        echo "$found" >"$lists/$name.symbols"
    elif ! diff -u "$lists/$name.symbols" - <<<"$found"; then
        failed=1
    fi
done
[ $failed -eq 0 ] || echo "If this is intended, run $0 --update $lists $*, and describe it in CHANGELOG.md" >&2
exit $failed
