#!/usr/bin/env bash
# ./demo.sh [DIRECTORY]: backs a real directory tree up (/usr/include if none is named), lists the snapshot,
# restores it into a fresh directory and compares the two trees, contents and metadata, with tools that are
# not ours. Exits non-zero on any difference. The program is then at build/release/kbagent.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

case "${1:-}" in
-h | --help)
    sed -n '2,4s/^# //p' "$0"
    exit 0
    ;;
esac
source=$(realpath -e -- "${1:-/usr/include}")
[ -d "$source" ] || { echo "demo.sh: $source is not a directory" >&2; exit 2; }

packaging/install-packages.sh build test
echo "== building (build/release)"
mkdir -p build
cmake --preset release >build/configure.log 2>&1 || { cat build/configure.log >&2; exit 1; }
cmake --build build/release --target kbagent -- -j "$(nproc)"
kbagent=$PWD/build/release/kbagent

work=$(mktemp -d "${TMPDIR:-/tmp}/kbagent-demo-XXXXXX")
trap 'chmod -R u+rwx "$work" 2>/dev/null; rm -rf "$work"' EXIT
store=$work/store
target=$work/restored
restored=$target$source
mkdir "$target"

# One line an entry, ended by NUL: what must come back. Times are whole seconds, sizes of directories and the
# order of entries belong to the file system. Owners come back only for root.
describe() {
    local owner='%U:%G'
    [ "$(id -u)" -eq 0 ] || owner=-
    (cd "$1" && find . -printf "%y %m $owner %n %T@ %s %p -> %l\\0") |
        sed -z -E 's/^(\S+ \S+ \S+ \S+ [0-9-]+)\.[0-9]+/\1/; s/^(d \S+ \S+) \S+ (\S+) \S+/\1 - \2 -/' | LC_ALL=C sort -z
}
attributes() {
    (cd "$1" && getfattr --absolute-names -R -P -h -d -m - . 2>/dev/null) | LC_ALL=C sort
}
seconds() { date +%s.%N; }
timed() {
    local start
    start=$(seconds)
    "$@"
    awk -v a="$start" -v b="$(seconds)" 'BEGIN { printf "   took %.2f s\n", b - a }'
}

echo "== kbagent backup $source"
timed "$kbagent" backup --store "$store" "$source"
echo "== kbagent list"
"$kbagent" list --store "$store"
"$kbagent" list --store "$store" --snapshot latest >"$work/list"
echo "   the snapshot lists $(wc -l <"$work/list") entries, the first of them:"
head -n 3 "$work/list" | sed 's/^/   /'
echo "== kbagent restore"
timed "$kbagent" restore --store "$store" --to "$target"

echo "== comparing $source with $restored"
failed=0
diff -r --no-dereference "$source" "$restored" >"$work/diff" 2>&1 || failed=1
describe "$source" >"$work/a"
describe "$restored" >"$work/b"
cmp -s "$work/a" "$work/b" || { failed=1; diff <(tr '\0' '\n' <"$work/a") <(tr '\0' '\n' <"$work/b") >>"$work/diff" || true; }
attributes "$source" >"$work/a"
attributes "$restored" >"$work/b"
diff "$work/a" "$work/b" >>"$work/diff" || failed=1

printf '   %s entries, %s on disk; store %s\n' "$(find "$source" | wc -l)" \
    "$(du -sh "$source" 2>/dev/null | cut -f1)" "$(du -sh "$store" | cut -f1)"
if [ "$failed" -ne 0 ]; then
    echo "   DIFFERENT:"
    head -n 40 "$work/diff"
    exit 1
fi
echo "   identical"
