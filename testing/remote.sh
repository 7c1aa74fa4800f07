#!/usr/bin/env bash
# testing/remote.sh BUILD: tests repositories on servers with the programs of a build. testing/s3-server.sh runs it.
# The contract of backends and their faults come first, then kbagent and restic on one repository, eight hosts with
# different clocks at the same time with removals between their backups, a user whom the policy of docs/remote.md lets
# remove nothing but locks, a server that lets nothing else be removed, and one with the certificate of docs/remote.md.
# Ends non-zero if anything is lost.
set -euo pipefail

build=$(realpath "$1")
page=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../docs/remote.md")
work=$(mktemp -d)
servers=()
end() {
    [ ${#servers[@]} -eq 0 ] || kill "${servers[@]}" || true
    rm -rf "$work"
}
trap end EXIT
export KBAGENT_REPOSITORY=$KBAGENT_TEST_S3/shared KBAGENT_CACHE_DIR=$work/cache KBAGENT_PASSWORD=secret
export RESTIC_REPOSITORY=$KBAGENT_REPOSITORY RESTIC_CACHE_DIR=$work/restic RESTIC_PASSWORD=secret
kbagent=$build/kbagent
fail() { echo "$*" >&2; exit 1; }
# quietly COMMAND...: prints the output of a command that fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "failed: $*"; }; }

# Of all faults in all answers. With 13, each answer has one fault; with 3 it takes 16 minutes.
export KBAGENT_FAULT_STRIDE=${KBAGENT_FAULT_STRIDE:-40}
"$build/tests/agent_tests" --gtest_filter='Kinds/Backend.*:S3*:RestBackend.*:RemoteRepository.*' >"$work/tests" ||
    { cat "$work/tests" >&2; fail "a test failed"; }
! grep -A2 SKIPPED "$work/tests" >&2 || fail "a server was not used"
grep PASSED "$work/tests"

echo "-- kbagent and restic on one repository"
mkdir "$work/ours" "$work/theirs"
cp -r /usr/include/openssl "$work/ours"
cp -r /usr/include/c++ "$work/theirs"
quietly "$kbagent" init
quietly "$kbagent" backup "$work/ours"
quietly restic backup "$work/theirs"
# With these options, requests name the bucket in their host.
in_host=(-o s3.bucket-lookup=dns -r "${KBAGENT_REPOSITORY/127.0.0.1/localhost}")
quietly "$kbagent" backup "${in_host[@]}" "$work/theirs" "$work/ours"
quietly "$kbagent" check --read-data
quietly restic check --read-data
quietly restic restore latest --target "$work/by-restic"
quietly "$kbagent" restore "${in_host[@]}" latest --target "$work/by-kbagent"
for folder in ours theirs; do
    for target in by-restic by-kbagent; do
        diff -r "$work/$folder" "$work/$target$work/$folder" || fail "$target: $folder differs"
    done
done

echo "-- errors"
# refused TEXT EXIT-CODE COMMAND...: the command fails at once, with this text and without a secret.
refused() {
    local text=$1 code=$2 result=0
    shift 2
    timeout 20 "$@" >"$work/log" 2>&1 || result=$?
    [ "$result" -eq "$code" ] && grep -q "$text" "$work/log" || { cat "$work/log" >&2; fail "not refused: $text"; }
    ! grep -q "$AWS_SECRET_ACCESS_KEY" "$work/log" || fail "a secret is in an error"
}
refused "the secret key is not that of the access key" 1 env AWS_SECRET_ACCESS_KEY=wrong "$kbagent" snapshots
refused "the server does not know the access key" 1 env AWS_ACCESS_KEY_ID=wrong "$kbagent" snapshots
refused "does not exist" 10 "$kbagent" snapshots -r "${KBAGENT_TEST_S3%/*}/missing-bucket/shared"
refused "missing-bucket.localhost:[0-9]*: the bucket missing-bucket does not exist" 10 \
    "$kbagent" snapshots -o s3.bucket-lookup=dns -r "${in_host[3]%/*/*}/missing-bucket/shared"
refused "InvalidLocationConstraint\|region" 1 "$kbagent" init -r "${KBAGENT_TEST_S3%/*}/other/shared" -o s3.region=wrong

echo "-- eight hosts at the same time, with clocks up to ten minutes apart"
cat >"$work/clock.c" <<'END'
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>

int clock_gettime(clockid_t clock, struct timespec *now)
{
    int (*next)(clockid_t, struct timespec *) = dlsym(RTLD_NEXT, "clock_gettime");
    int result = next(clock, now);
    if (clock == CLOCK_REALTIME)
        now->tv_sec += atol(getenv("CLOCK_SHIFT"));
    return result;
}

time_t time(time_t *now)
{
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    return now ? (*now = precise.tv_sec) : precise.tv_sec;
}
END
cc -shared -fPIC -o "$work/clock.so" "$work/clock.c" -ldl
with_clock=(env "LD_PRELOAD=$work/clock.so") # and CLOCK_SHIFT, in seconds
late=$("${with_clock[@]}" CLOCK_SHIFT=300 date +%s)
[ $((late - $(date +%s))) -ge 299 ] || fail "no clock can be set"
refused "the clocks of this machine and of the server differ" 1 "${with_clock[@]}" CLOCK_SHIFT=3600 "$kbagent" snapshots
has_names=true
unshare --uts true 2>"$work/unshare" || {
    has_names=false
    echo "all hosts have the name of this one: $(cat "$work/unshare")"
}
# as_host NAME COMMAND...: with another host name, if this user may have one.
as_host() {
    local name=$1
    shift
    if "$has_names"; then
        unshare --uts bash -c 'echo "$0" >/proc/sys/kernel/hostname && exec "$@"' "$name" "$@"
    else
        "$@"
    fi
}
back_up_twice() {
    local host=$1 turn
    for turn in 1 2; do
        head -c 3000000 /dev/urandom >"$work/$host/own"
        KBAGENT_CACHE_DIR=$work/cache-$host as_host "$host" \
            "${with_clock[@]}" CLOCK_SHIFT=$(((${host#host} - 1) * 600 / 7 - 300)) \
            "$kbagent" backup --host "$host" --retry-lock 10m "$work/$host" || return
    done
}
pids=()
for host in host{1..8}; do
    mkdir "$work/$host"
    cp -r /usr/include/openssl "$work/$host"
    back_up_twice "$host" >"$work/log-$host" 2>&1 &
    pids+=($!)
done
quietly restic snapshots
quietly "$kbagent" forget --keep-last 1 --prune --max-unused 0 --retry-lock 10m
for host in {1..8}; do
    wait "${pids[host - 1]}" || { cat "$work/log-host$host" >&2; fail "a backup of host$host failed"; }
done
quietly "$kbagent" forget --keep-last 1 --prune --max-unused 0 --retry-lock 10m
[ "$("$kbagent" list snapshots | wc -l)" -eq 11 ] || fail "a snapshot is missing"
quietly restic check --read-data
for host in host{1..8}; do
    quietly "$kbagent" restore --host "$host" latest --target "$work/restored-$host"
    diff -r "$work/$host" "$work/restored-$host$work/$host" || fail "$host differs"
done
[ -z "$("$kbagent" list locks --no-lock)" ] || fail "a lock remains"

echo "-- a user whom the policy of docs/remote.md lets remove nothing but locks"
head -c 3000000 /dev/urandom >"$work/host1/own"
quietly "$kbagent" backup --host gone "$work/host1"
quietly "$kbagent" forget --host gone latest
# It becomes the policy of the bucket, which names the user.
bucket=${KBAGENT_TEST_S3##*/}
sed -n '/^```json$/,/^```$/{/^```/d;p}' "$page" |
    sed "s/:::backup/:::$bucket/g;s|\"Effect\"|\"Principal\": {\"AWS\": \"arn:aws:iam:::user/host\"}, &|" >"$work/policy"
printf 'user = "%s:%s"\n' "$AWS_ACCESS_KEY_ID" "$AWS_SECRET_ACCESS_KEY" |
    curl -sSf -K - --aws-sigv4 "aws:amz:$AWS_DEFAULT_REGION:s3" -T "$work/policy" "${KBAGENT_TEST_S3#s3:}?policy=" \
        -H "x-amz-content-sha256: $(sha256sum <"$work/policy" | cut -d ' ' -f 1)"
(
    export AWS_ACCESS_KEY_ID=$S3_HOST_KEY_ID AWS_SECRET_ACCESS_KEY=$S3_HOST_SECRET
    quietly "$kbagent" backup "$work/ours"
    quietly restic backup "$work/ours"
    refused "may not DELETE this object" 3 "$kbagent" forget latest
    refused "may not DELETE this object" 1 "$kbagent" prune --max-unused 0
    [ -z "$("$kbagent" list locks --no-lock)" ] || fail "a lock remains"
    quietly restic check --read-data
)

# serve PORT OPTION... DIRECTORY: starts rclone on a port of the loopback interface.
serve() {
    local port=$1 i
    RCLONE_CONFIG=/dev/null rclone serve restic --addr "127.0.0.1:$port" "${@:2}" >"$work/rclone-$port" 2>&1 &
    servers+=($!)
    for ((i = 0; i < 100; ++i)); do
        if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>"$work/log"; then return; fi
        sleep 0.1
    done
    cat "$work/rclone-$port" >&2
    fail "rclone does not listen on port $port"
}
port=$((${S3_PORT:-21480} + 10))

echo "-- kbagent and restic on rclone, which lets nothing but locks be removed"
serve "$port" --append-only "$work/served"
export KBAGENT_REPOSITORY=rest:http://127.0.0.1:$port/ RESTIC_REPOSITORY=rest:http://127.0.0.1:$port/
quietly restic init
quietly "$kbagent" backup "$work/ours"
quietly restic backup "$work/theirs"
quietly "$kbagent" check --read-data
quietly restic check --read-data
refused "append-only" 3 "$kbagent" forget latest
quietly restic check

echo "-- rclone with the certificate of docs/remote.md"
# The commands of the page make the certificate and its pin, here for this machine.
sed -n '/^openssl req /,/^```$/{/^```/d;s/backup\.example\.com/localhost/g;p}' "$page" >"$work/make-certificate"
grep '^openssl x509 .*sha256sum$' "$page" >"$work/make-pin"
cd "$work"
quietly bash make-certificate
pin=sha256:$(bash make-pin | cut -d ' ' -f 1)
serve $((port + 1)) --cert server.crt --key server.key "$work/secured"
export KBAGENT_REPOSITORY=rest:https://localhost:$((port + 1))/
export RESTIC_REPOSITORY=$KBAGENT_REPOSITORY
quietly "$kbagent" init --tls-pin "$pin"
quietly "$kbagent" backup --tls-pin "$pin" "$work/ours"
quietly "$kbagent" backup --cacert server.crt "$work/ours"
quietly restic --cacert server.crt check --read-data
refused "the SHA-256 of its key is ${pin#sha256:}" 1 "$kbagent" backup "$work/ours"
refused "is not the pinned" 1 "$kbagent" snapshots --tls-pin "sha256:$(printf '%064d' 0)"
refused "IP address mismatch" 1 "$kbagent" snapshots --tls-pin "$pin" -r "rest:https://127.0.0.1:$((port + 1))/"
echo "-- no difference"
