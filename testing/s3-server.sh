#!/usr/bin/env bash
# testing/s3-server.sh COMMAND [ARGUMENT...]: starts Ceph's object store (a monitor, an OSD on a sparse file, and the
# gateway that speaks S3) on the loopback interface, with data in a temporary directory. Runs the command with the
# variables below, takes the store down and removes its data. Ends with the exit code of the command, or with 77 and a
# line that says why if the store can't start.
#
#   KBAGENT_TEST_S3                            the location of a bucket, which does not exist yet; its host may also be
#                                              that of the bucket, BUCKET.localhost
#   AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY   of a user who may create it
#   AWS_DEFAULT_REGION                         its region
#   S3_HOST_KEY_ID, S3_HOST_SECRET             of a second user, "host", who may not use the buckets of others
#
# Packages of Debian 12: ceph-mon, ceph-osd and radosgw. S3_PORT and the 9 ports after it are used, by default 21480.
set -euo pipefail
umask 077

[ $# -gt 0 ] || { sed -n '2,/^set /{/^set /d;s/^# \{0,1\}//;p}' "$0" >&2; exit 2; }
port=${S3_PORT:-21480}
work=$(mktemp -d "${TMPDIR:-/tmp}/kbagent-s3-XXXXXX")
conf=$work/ceph.conf
processes=()
unset CEPH_ARGS CEPH_CONF CEPH_KEYRING

unavailable() {
    echo "s3-server: $*" >&2
    tail -qn 3 "$work"/*.log >&2 2>/dev/null || true
    exit 77
}
# The gateway ends first, and the monitor last.
take_down() {
    local i
    for ((i = ${#processes[@]} - 1; i >= 0; --i)); do
        kill "${processes[i]}" 2>/dev/null && wait "${processes[i]}" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap take_down EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# daemon NAME COMMAND...: runs it in the background, with its output in a log.
daemon() {
    local name=$1
    shift
    "$@" -f -c "$conf" </dev/null >"$work/$name.log" 2>&1 &
    processes+=($!)
}
answers() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
# Waits up to a minute for the port of the process that was started last.
wait_for() {
    local i
    for ((i = 0; i < 300; ++i)); do
        if answers "$1"; then return; fi
        kill -0 "${processes[-1]}" 2>/dev/null || break
        sleep 0.2
    done
    unavailable "no process answers on port $1"
}

for program in ceph-mon ceph-osd radosgw radosgw-admin ceph ceph-authtool monmaptool; do
    command -v "$program" >/dev/null || unavailable "$program is not installed"
done
for ((i = 0; i < 10; ++i)); do
    if answers $((port + i)); then unavailable "port $((port + i)) is in use"; fi
done

fsid=$(cat /proc/sys/kernel/random/uuid)
osd=$(cat /proc/sys/kernel/random/uuid)
monitor="[v2:127.0.0.1:$((port + 1))/0]"
export AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY AWS_DEFAULT_REGION=us-east-1
AWS_ACCESS_KEY_ID=$(od -An -N10 -tx1 /dev/urandom | tr -d ' \n')
AWS_SECRET_ACCESS_KEY=$(od -An -N20 -tx1 /dev/urandom | tr -d ' \n')
export S3_HOST_KEY_ID=host$AWS_ACCESS_KEY_ID S3_HOST_SECRET
S3_HOST_SECRET=$(od -An -N20 -tx1 /dev/urandom | tr -d ' \n')
mkdir "$work/mon" "$work/osd" "$work/run"
cat >"$conf" <<END
[global]
fsid = $fsid
keyring = $work/keyring
run_dir = $work/run
admin_socket = $work/run/\$name.asok
log_to_stderr = true
err_to_stderr = true
mon_host = $monitor
public_addr = 127.0.0.1
cluster_addr = 127.0.0.1
ms_bind_msgr1 = false
ms_bind_ipv6 = false
ms_bind_port_min = $((port + 2))
ms_bind_port_max = $((port + 9))
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 4
osd_pool_default_pgp_num = 4
osd_pool_default_pg_autoscale_mode = off
osd_crush_chooseleaf_type = 0
[mon]
mon_data = $work/mon
mon_cluster_log_to_file = false
mon_allow_pool_size_one = true
mon_data_avail_crit = 1
[osd]
osd_data = $work/osd
osd_objectstore = bluestore
bluestore_block_size = 10737418240
bluestore_cache_autotune = false
bluestore_cache_size = 134217728
[client.gateway]
rgw_frontends = beast endpoint=127.0.0.1:$port
rgw_dns_name = localhost
rgw_run_sync_thread = false
END

{
    ceph-authtool "$work/keyring" --create-keyring --gen-key -n mon. --cap mon 'allow *'
    ceph-authtool "$work/keyring" --gen-key -n client.admin --cap mon 'allow *' --cap osd 'allow *'
    ceph-authtool "$work/keyring" --gen-key -n client.gateway --cap mon 'allow rw' --cap osd 'allow rwx'
    ceph-authtool "$work/keyring" --gen-key -n osd.0 --cap mon 'allow profile osd' --cap osd 'allow *'
    monmaptool --create --fsid "$fsid" --addv a "$monitor" "$work/monmap"
    ceph-mon --mkfs -i a -c "$conf" --monmap "$work/monmap" --keyring "$work/keyring"
    ceph-osd --mkfs -i 0 -c "$conf" --osd-uuid "$osd" --no-mon-config
} >"$work/setup.log" 2>&1 || unavailable "the store can't be created"

daemon mon ceph-mon -i a
wait_for $((port + 1))
ceph -c "$conf" --connect-timeout 60 osd new "$osd" >"$work/setup.log" 2>&1 || unavailable "the monitor does not respond"
daemon osd ceph-osd -i 0
daemon gateway radosgw -n client.gateway
wait_for "$port"
# create_user NAME ACCESS-KEY SECRET-KEY
create_user() {
    radosgw-admin -c "$conf" -n client.gateway user create --uid="$1" --display-name="$1" --access-key="$2" \
        --secret-key="$3" >"$work/setup.log" 2>&1 || unavailable "no user can be created"
}
create_user test "$AWS_ACCESS_KEY_ID" "$AWS_SECRET_ACCESS_KEY"
create_user host "$S3_HOST_KEY_ID" "$S3_HOST_SECRET"

KBAGENT_TEST_S3=s3:http://127.0.0.1:$port/test "$@"
