#!/usr/bin/env bash
# tests/packaging/run.sh KBAGENT SOURCE: the manual page names every command and option that the program's --help has,
# and no other; the completion offers them.
set -euo pipefail

kbagent=$1 source=$2 failed=0
page=$source/packaging/kbagent.1
fail() { echo "$*" >&2; failed=1; }

options_of() {
    "$kbagent" "$@" --help | grep -oE '^ +-[^ ]+' | grep -oE -- '--[a-z]+' | grep -vx -- --help | sort -u || true
}
commands_of() { "$kbagent" "$@" --help | awk '/^Subcommands:/ { f = 1; next } /^[^ ]/ { f = 0 } f && NF { print $1 }'; }
# The options in the page's section that begins with these words.
page_options() {
    awk -v head="$1" '/^\.S/ { f = index($0, head) == 1; next } f { gsub(/\\/, ""); print }' "$page" |
        grep -oE -- '^\.B[IR]* --[a-z]+' | grep -oE -- '--[a-z]+' | sort -u || true
}
same() { [ "$2" = "$3" ] || fail "$1: the program has ${2//$'\n'/ }; the page has ${3//$'\n'/ }"; }

commands=$(commands_of)
[ "$(wc -w <<<"$commands")" -ge 9 ] || fail "--help lists no commands: $commands"
same "commands" "$(sort <<<"$commands")" "$(sed -n 's/^\.SS \([a-z]*\).*/\1/p' "$page" | sort)"
same "kbagent" "$(options_of)" "$({ page_options '.SH OPTIONS'; page_options '.SH REPOSITORY OPTIONS'; } |
    grep -vx -- --help | sort -u)"
for command in $commands; do
    found=$(options_of "$command"; for part in $(commands_of "$command"); do options_of "$command" "$part"; done)
    expected=$(page_options ".SS $command")
    # Options that several commands share are described once.
    ! grep -qx -- --repo <<<"$found" || expected+=$'\n'$(page_options '.SH REPOSITORY OPTIONS')
    ! grep -qx -- --path <<<"$found" || expected+=$'\n'$(page_options '.SH SNAPSHOT OPTIONS')
    # Commands that write do not have --no-lock, and those that do not lock have no --retry-lock.
    for option in --no --retry; do
        grep -qx -- "$option" <<<"$found" || expected=$(grep -vx -- "$option" <<<"$expected")
    done
    same "$command" "$(sort -u <<<"$found")" "$(sort -u <<<"$expected" | grep .)"
done
for part in $(commands_of service); do
    grep -q "^\.SS service .*\b$part\b" "$page" || fail "service $part is not in the page"
done
if command -v man >/dev/null; then
    warnings=$(LC_ALL=C MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null) || true
    [ -z "$warnings" ] || fail "$warnings"
fi

# shellcheck disable=SC1091
source "$source/packaging/kbagent.bash"
completes() {
    local expected=$1
    shift
    COMP_WORDS=("$kbagent" "$@") COMP_CWORD=$#
    COMPREPLY=()
    _kbagent
    [ "${COMPREPLY[*]}" = "$expected" ] || fail "completing '$*': ${COMPREPLY[*]}"
}
completes "trust" tr
completes "--skip-if-unchanged" backup --sk
completes "--sort" --log /tmp/x ls --repo /tmp/y --so
completes "start stop status" service st
completes "snapshots" -r /tmp/x --retry-lock 1m snap
completes "list" key li
completes "--read-all-packs" repair index --read
completes "--remove-unreadable" repair packs --rem
completes "--silent" job add --si
completes "--remove-all" unlock --rem
completes "--read-data --read-data-subset" check --read
completes "--timeout" service start nightly --t
completes "" service install nightly -- --t
exit $failed
