#!/usr/bin/env bash
# tests/agent/acceptance.sh: does with kbagent what an administrator does, in the current directory, and checks the facts of
# each output. The variable KBAGENT is the program; KBAGENT_REPOSITORY, which is empty, and KBAGENT_PASSWORD are set.
set -euo pipefail
export LC_ALL=C
home=$PWD/home

# run EXIT_CODE ARGUMENT...: runs the program; its output is in the files output and errors.
run() {
    local expected=$1 code=0
    shift
    "$KBAGENT" "$@" >output 2>errors </dev/null || code=$?
    [ "$code" -eq "$expected" ] && return
    echo "kbagent $* ended with $code, not $expected:"
    cat output errors
    exit 1
}
# has FILE LINE...: each is a whole line of the file, with single blanks.
has() {
    local file=$1 line
    shift
    for line in "$@"; do
        grep -qxF -- "$line" <<<"$(tr -s ' ' <"$file")" && continue
        echo "no line \"$line\" in $file:"
        cat "$file"
        exit 1
    done
}
# fails MESSAGE: ends the test.
fails() { echo "$*"; cat output errors; exit 1; }

mkdir -p home/ann/{docs,photos,cache}
printf 'notes\n' >home/ann/docs/notes.txt
printf 'old\n' >home/ann/docs/old.txt
printf 'draft\n' >home/ann/docs/report.tmp
head -c 300000 /dev/urandom >home/ann/photos/1.raw
head -c 5000 /dev/zero >home/ann/cache/x

echo "== job new, job check"
printf '%s\n' '*.tmp' cache 'docs/*.log' >excludes
run 3 job new nightly.json "$home" --exclude-file excludes
has output "nightly.json: 2 includes, 2 excludes"
grep -qF "excludes:3: no rule means the same as 'docs/*.log'" errors || fails "the line without a rule is not named"
run 0 job check nightly.json
has output "nightly.json: 2 includes and 2 excludes, no mistakes found"

echo "== explain"
run 4 explain --job nightly.json "$home/ann/docs/report.tmp"
has output "$home/ann/docs/report.tmp: not backed up"
line=$(sed -n "s/^  nightly.json:\([0-9]*\): exclude names like '\*.tmp' in \/ and below\$/\1/p" output)
[ "$(sed -n "$((line + 4))p" nightly.json | tr -d ' ,')" = '"pattern":"*.tmp"' ] || fails "line $line is not the rule's"
run 0 job show --json nightly.json
number=$(grep -o "\"number\":[0-9]*,\"line\":$line," output | grep -o '[0-9]*' | head -n 1)
cp nightly.json without.json
run 0 job remove without.json "$number"
run 0 explain --job without.json "$home/ann/docs/report.tmp"
run 0 explain --job nightly.json "$home/ann/docs/notes.txt"
has output "$home/ann/docs/notes.txt: backed up"

echo "== backup -n, backup"
counts=("Files: 3 new, 0 changed, 0 unmodified"
    "Others: 0 links, devices and pipes, 0 sockets not stored, 2 excluded, 0 failed")
run 0 backup --job nightly.json -n
has output "${counts[@]}" "Bytes: 293.0 KiB new, 0 B changed, 0 B unmodified" \
    "Left out by rules: 1 file or other entry, 6 B, and 1 directory with all below it" \
    "Largest: 293.0 KiB $home/ann/photos/1.raw"
run 0 list snapshots
[ ! -s output ] || fails "a dry run has made a snapshot"
run 0 backup --job nightly.json
has output "${counts[@]}"

echo "== a change, backup -n, backup"
printf 'more\n' >>home/ann/docs/notes.txt
printf 'new\n' >home/ann/docs/new.txt
rm home/ann/docs/old.txt
counts=("Files: 1 new, 1 changed, 1 unmodified")
run 0 backup --job nightly.json -n --verbose
has output "${counts[@]}" "new $home/ann/docs/new.txt (4 B added)" "modified $home/ann/docs/notes.txt (11 B added)" \
    "Bytes: 4 B new, 11 B changed, 293.0 KiB unmodified"
run 0 backup --job nightly.json -v -v
has output "${counts[@]}" "unchanged $home/ann/photos/1.raw (0 B added)"
run 0 list snapshots
[ "$(wc -l <output)" -eq 2 ] || fails "there are not two snapshots"

echo "== restore -n, restore, compare"
compare() {
    diff -r --exclude='*.tmp' --exclude=cache home/ann "out$home/ann" >output || fails "the restored tree differs"
}
run 0 restore latest -n --target out
above=$(printf %s "$home" | tr -cd / | wc -c) # directories
has output "Would create $((above + 6)) (292.983 KiB), replace 0 (0 B), keep 0, remove 0, change attributes of 0 directories"
[ ! -e out ] || fails "a dry run has made the target"
run 0 restore latest --target out
compare
printf 'changed\n' >"out$home/ann/docs/new.txt"
printf 'extra\n' >"out$home/ann/extra"
run 0 restore latest -n --delete --target out
has output "deleted $home/ann/extra"
grep -q '^Would create 0 (0 B), replace 1 (4 B), .* remove 1, ' output || fails "the dry run counts otherwise"
[ -e "out$home/ann/extra" ] || fails "a dry run has removed a file"
run 0 restore latest --delete --target out
compare

echo "== check, log"
run 0 --log log check --read-data
has output "no errors were found"
grep -q '^finished in 0:[0-9][0-9]$' output || fails "check does not print its duration"
run 3 --log log --debug General backup "$home/ann/docs" "$home/gone" --json
parts=(' General: Begin: .*kbagent --log log check --read-data$' ' General: no errors were found$' ' General: Duration: '
    ' General: End: exit code 0$' ' General: Begin: .* backup ' " General: Failed: $home/gone: " ' General: Files: '
    ' General: snapshot [0-9a-f]* saved$' ' General: Duration: ' ' General: End: exit code 3$')
at=0
for part in "${parts[@]}"; do
    next=$(tail -n +$((at + 1)) log | grep -n -e "$part") || fails "no \"$part\" in: $(cat log)"
    at=$((at + ${next%%:*}))
done

echo "== progress"
KBAGENT_PROGRESS_FPS=1000000 run 0 restore latest --target again -q --verify
grep -q '^kbagent: \[0:[0-9][0-9]\] .* files/dirs' errors || fails "no progress without a terminal"
grep -q '^kbagent: \[0:[0-9][0-9]\] .* files verified' errors || fails "no progress of a verification"
KBAGENT_PROGRESS_FPS=1000000 run 0 rewrite -n --exclude notes.txt
grep -q '^kbagent: \[0:[0-9][0-9]\] .* 1 / 3 snapshots' errors || fails "no progress of a rewrite"
KBAGENT_PROGRESS_FPS=1000 run 0 check --read-data --json
KBAGENT_PROGRESS_FPS=1000000 run 0 explain --job nightly.json --tree "$home"
grep -q '^kbagent: \[0:[0-9][0-9]\] [0-9]* entries ' errors || fails "no progress of a tree"
if script -qec true /dev/null >/dev/null 2>&1; then
    # What a terminal erases begins with a return. Neither part of a line may contain the other kind of text.
    KBAGENT_PROGRESS_FPS=1000 script -qec "$KBAGENT restore latest -v --target third" terminal >/dev/null
    sed -e '/^Script \(started\|done\)/d' -e 's/\r*$//' terminal | awk '
        { count = split($0, parts, "\r\033[[]K") }
        { for (i = 2; i < count; ++i) if (parts[i] != "") { ++shown; if (parts[i] !~ /^\[[0-9:]+\] /) print "torn: " parts[i] } }
        parts[count] ~ /\[[0-9]+:[0-9][0-9]\] / { print "mixed: " parts[count] }
        END { if (!shown) print "no progress on a terminal" }' >output
    : >errors
    [ ! -s output ] || fails "$(cat -v terminal)"
    NO_COLOR='' TERM=xterm script -qec "$KBAGENT explain --job nightly.json --tree $home" coloured >/dev/null
    grep -q $'\033\\[31mcache/' coloured || fails "what is left out has no colour: $(cat -v coloured)"
fi

echo "== SIGUSR1, SIGTERM"
mkfifo pipe
"$KBAGENT" backup --stdin <pipe >output 2>errors &
program=$!
exec 3>pipe
printf 'x' >&3
until [ -n "$(ls "$KBAGENT_REPOSITORY/locks")" ]; do # it runs
    kill -0 $program || fails "the backup has ended"
    sleep 0.1
done
until grep -q '^kbagent: \[' errors; do
    kill -USR1 $program || fails "the backup has ended"
    sleep 0.1
done
kill -TERM $program
code=0
wait $program || code=$?
[ $code -eq 143 ] || fails "the backup ended with $code"
exec 3>&-
mkfifo full
exec 3<>full
dd if=/dev/zero of=full bs=4096 oflag=nonblock 2>errors || true
code=0 # both streams wait for the reader until the signal comes
timeout --preserve-status -k 5 1 "$KBAGENT" volumes >&3 2>&3 || code=$?
[ $code -eq 143 ] || fails "with a blocked pipe, the program ended with $code"
