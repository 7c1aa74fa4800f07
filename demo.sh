#!/usr/bin/env bash
# ./demo.sh [DIRECTORY]: backs a real directory tree (/usr/include if none is named) up into a new repository, lists
# the snapshot, restores it into a fresh directory, and compares the two trees, contents and metadata, with tools that
# are not ours. Then kbagent, and restic where it is installed, verify the repository. Exits non-zero on any difference.
# Everything but the program, which is then at build/release/kbagent, is removed at the end.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

case "${1:-}" in
-h | --help)
    sed -n '2,5s/^# //p' "$0"
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
PATH=$PWD/build/release:$PATH

# Of mode 0700, and the password's file of mode 0600.
work=$(mktemp -d "${TMPDIR:-/tmp}/kbagent-demo-XXXXXX")
trap 'chmod -R u+rwx "$work" 2>/dev/null; rm -rf "$work"' EXIT
(umask 077 && head -c 32 /dev/urandom | base64 >"$work/password")
unset KBAGENT_REPOSITORY_FILE KBAGENT_PASSWORD_COMMAND
export KBAGENT_REPOSITORY=$work/repository KBAGENT_PASSWORD_FILE=$work/password
target=$work/restored
restored=$target$source

run() {
    echo "== $*"
    "$@"
}
# One line an entry, ended by NUL: what must come back. Sizes of directories and the order of entries belong to the
# file system. Owners come back only for root.
describe() {
    local owner='%U:%G'
    [ "$(id -u)" -eq 0 ] || owner=-
    (cd "$1" && find . -printf "%y %m $owner %n %T@ %s %p -> %l\\0") |
        sed -z -E 's/^(d \S+ \S+) \S+ (\S+) \S+/\1 - \2 -/' | LC_ALL=C sort -z
}
attributes() {
    (cd "$1" && getfattr --absolute-names -R -P -h -d -m - . 2>/dev/null) | LC_ALL=C sort
}

echo "== export KBAGENT_REPOSITORY=$KBAGENT_REPOSITORY KBAGENT_PASSWORD_FILE=$KBAGENT_PASSWORD_FILE"
run kbagent init
run kbagent backup "$source"
run kbagent snapshots
run kbagent ls --long latest >"$work/list"
head -n 6 "$work/list"
[ "$(wc -l <"$work/list")" -le 6 ] || echo "[...]"
run kbagent restore latest --target "$target"

echo "== comparing $source with $restored"
failed=0
diff -r --no-dereference "$source" "$restored" >"$work/diff" 2>&1 || failed=1
describe "$source" >"$work/a"
describe "$restored" >"$work/b"
cmp -s "$work/a" "$work/b" || { failed=1; diff <(tr '\0' '\n' <"$work/a") <(tr '\0' '\n' <"$work/b") >>"$work/diff" || true; }
attributes "$source" >"$work/a"
attributes "$restored" >"$work/b"
diff "$work/a" "$work/b" >>"$work/diff" || failed=1
if [ "$failed" -ne 0 ]; then
    echo "DIFFERENT:"
    head -n 40 "$work/diff"
    exit 1
fi
echo "identical: $(find "$source" | wc -l) entries with contents, modes, owners, times, hard links and extended attributes"
printf '%s on disk, %s in the repository\n' "$(du -sh "$source" 2>/dev/null | cut -f1)" \
    "$(du -sh "$KBAGENT_REPOSITORY" | cut -f1)"

run kbagent check --read-data
if command -v restic >/dev/null; then
    run restic --repo "$KBAGENT_REPOSITORY" --password-file "$KBAGENT_PASSWORD_FILE" --no-cache check
fi
