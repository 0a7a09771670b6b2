#!/bin/bash
# Shows the main job on one machine: a web server reached through the link, large transfers both ways and twenty at once, over two paths, every byte
# compared. Needs no root. Usage: demo.sh BIN_DIR; exits 0 only when everything matched.
# Needs the packages curl and nginx-light.
set -euo pipefail

bin=${1:?usage: demo.sh BIN_DIR (where the program tandem is)}
bulk_mib=${DEMO_MIB:-512}
small_mib=16
small_count=20
attempts=20

say() { printf '%s\n' "$*"; }
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

for tool in "$bin/tandem" curl sha256sum; do
    command -v "$tool" >/dev/null || fail "$tool is missing; run ./dev deps and ./dev build"
done
nginx=$(PATH=$PATH:/usr/sbin command -v nginx) || fail "nginx is missing; run ./dev deps"

work=$(mktemp -d "${TMPDIR:-/tmp}/tandem-demo.XXXXXX")
pids=()
cleanup() {
    local status=$?
    trap - EXIT
    if ((${#pids[@]})); then
        kill "${pids[@]}" 2>/dev/null || true
        wait "${pids[@]}" 2>/dev/null || true
    fi
    if ((status != 0)); then
        for log in server.err client.err server.log client.log nginx.err; do
            [[ -s $work/$log ]] && { printf -- '--- %s\n' "$log"; tail -n 15 "$work/$log"; } >&2
        done
    fi
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

free_mib=$(df -Pm "$work" | awk 'NR == 2 { print $4 }')
((free_mib > 2 * bulk_mib + 2 * small_mib * small_count + 64)) || fail "$work has $free_mib MiB free, too little; set TMPDIR to a larger place"

random_port() { echo $((20000 + (RANDOM * 32768 + RANDOM) % 40000)); }

# wait_line FILE PATTERN PID: the first line that matches, within 20 seconds and while the process lives.
wait_line() {
    local line
    for ((i = 0; i < 400; ++i)); do
        if line=$(grep -m 1 -E -- "$2" "$1" 2>/dev/null); then
            printf '%s\n' "$line"
            return 0
        fi
        kill -0 "$3" 2>/dev/null || return 1
        sleep 0.05
    done
    return 1
}

start_web() {
    mkdir -p "$work/www/up" "$work/tmp"
    local user=""
    ((EUID == 0)) && user="user root;"
    for ((try = 0; try < attempts; ++try)); do
        web_port=$(random_port)
        cat >"$work/nginx.conf" <<CONF
$user
daemon off;
worker_processes 2;
pid $work/nginx.pid;
error_log stderr notice;
events { worker_connections 256; }
http {
    access_log off;
    client_max_body_size 0;
    client_body_temp_path $work/tmp/body;
    proxy_temp_path $work/tmp/proxy;
    fastcgi_temp_path $work/tmp/fastcgi;
    uwsgi_temp_path $work/tmp/uwsgi;
    scgi_temp_path $work/tmp/scgi;
    server {
        listen 127.0.0.1:$web_port;
        root $work/www;
        location /up/ { dav_methods PUT; }
    }
}
CONF
        "$nginx" -p "$work" -e stderr -c "$work/nginx.conf" >"$work/nginx.out" 2>"$work/nginx.err" &
        local pid=$!
        if wait_line "$work/nginx.err" 'start worker process ' "$pid" >/dev/null; then
            pids+=("$pid")
            return 0
        fi
        wait "$pid" 2>/dev/null || true
        grep -q 'Address already in use' "$work/nginx.err" || fail "the web server did not start"
    done
    fail "no free port for the web server"
}

start_server() {
    for ((try = 0; try < attempts; ++try)); do
        link_port=$(random_port)
        : >"$work/server.out"
        "$bin/tandem" server --cert "$work/cert/cert.pem" --key "$work/cert/key.pem" --secret "$work/secret" --allow "* tcp 127.0.0.1 $web_port" \
            --listen "$link_port" --log "$work/server.log" >"$work/server.out" 2>"$work/server.err" &
        local pid=$!
        if wait_line "$work/server.out" '^listening on UDP port' "$pid"; then
            pids+=("$pid")
            return 0
        fi
        wait "$pid" 2>/dev/null || true
        grep -q 'Address already in use' "$work/server.err" || fail "tandem server did not start"
    done
    fail "no free port for tandem server"
}

start_client() {
    "$bin/tandem" client "127.0.0.1:$link_port" --secret "$work/secret" --trust "$pin" \
        --path 127.0.0.2 --path 127.0.0.3 --tcp "127.0.0.1:0=127.0.0.1:$web_port" \
        --log "$work/client.log" >"$work/client.out" 2>"$work/client.err" &
    local pid=$!
    pids+=("$pid")
    local line
    line=$(wait_line "$work/client.out" '^forwarding tcp ' "$pid") || fail "tandem client did not connect"
    say "$line"
    forward=$(sed -E 's/^forwarding tcp ([^ ]+) -> .*/\1/' <<<"$line")
}

# Ends client and server, which were started last; both have to end cleanly.
stop_link() {
    local pid
    for pid in "${pids[-1]}" "${pids[-2]}"; do
        kill -TERM "$pid"
        wait "$pid" || fail "an end of the link did not end cleanly"
    done
    unset 'pids[-1]' 'pids[-1]'
    say "client and server have ended"
}

hash_of() { sha256sum "$1" | cut -d' ' -f1; }

# fetch NAME FILE: downloads, prints the seconds.
fetch() { curl -sS --fail --noproxy '*' --max-time 600 -o "$2" -w '%{time_total}' "http://$forward/$1"; }
# send FILE NAME: uploads, prints the seconds.
send() { curl -sS --fail --noproxy '*' --max-time 600 -o /dev/null -H 'Expect:' -T "$1" -w '%{time_total}' "http://$forward/up/$2"; }

goodput() { awk -v mib="$1" -v s="$2" 'BEGIN { printf "%d MiB in %.2f s, %.1f MiB/s (%.0f Mbit/s)", mib, s, mib / s, mib * 8.388608 / s }'; }

same() { [[ $1 == "$2" ]] || fail "$3 does not match: $1 was sent, $2 arrived"; }

bulk() {
    say "fetching $bulk_mib MiB through the forward"
    local seconds
    seconds=$(fetch bulk "$work/got")
    same "$bulk_hash" "$(hash_of "$work/got")" "the fetched file"
    rm "$work/got"
    say "  SHA-256 matches: $(goodput "$bulk_mib" "$seconds")"

    say "sending $bulk_mib MiB the other way"
    seconds=$(send "$work/www/bulk" bulk)
    same "$bulk_hash" "$(hash_of "$work/www/up/bulk")" "the sent file"
    rm "$work/www/up/bulk"
    say "  SHA-256 matches: $(goodput "$bulk_mib" "$seconds")"
}

many() {
    local i jobs=() start end
    for ((i = 0; i < small_count; ++i)); do head -c $((small_mib << 20)) /dev/urandom >"$work/www/small$i"; done
    say "$small_count transfers of $small_mib MiB at once, half of them each way"
    start=$(date +%s.%N)
    for ((i = 0; i < small_count; ++i)); do
        if ((i % 2)); then send "$work/www/small$i" "small$i" >/dev/null & else fetch "small$i" "$work/www/up/small$i" >/dev/null & fi
        jobs+=($!)
    done
    for i in "${!jobs[@]}"; do wait "${jobs[$i]}" || fail "transfer $i of $small_count failed"; done
    end=$(date +%s.%N)
    for ((i = 0; i < small_count; ++i)); do
        same "$(hash_of "$work/www/small$i")" "$(hash_of "$work/www/up/small$i")" "transfer $i"
    done
    say "  all $small_count SHA-256 match: $(goodput $((small_mib * small_count)) "$(awk -v a="$start" -v b="$end" 'BEGIN { print b - a }')")"
}

say "making a secret, a key and a certificate"
(umask 077 && head -c 24 /dev/urandom | base64 >"$work/secret")
"$bin/tandem" cert --out "$work/cert" --name localhost >"$work/cert.out"
pin=$(grep -o -m 1 'pin:[0-9a-f]*' "$work/cert.out")
say "  $pin"

say "making $bulk_mib MiB of random bytes"
start_web
head -c $((bulk_mib << 20)) /dev/urandom >"$work/www/bulk"
bulk_hash=$(hash_of "$work/www/bulk")
say "a web server is on 127.0.0.1:$web_port"

start_server
start_client
bulk
many
stop_link
say "everything matched"
