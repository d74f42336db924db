#!/usr/bin/env bash
# Serves one 1 GiB object to `curl -o /dev/null` from zel-server and the same
# file from nginx, and prints both rates and their ratio.
#
# usage: bench/serve_bench.sh [path/to/zel-server] [runs]
# The binary defaults to $ZEL_SERVER, then build/bin/zel-server.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/bootstrap" bench
server=${1:-${ZEL_SERVER:-$here/build/bin/zel-server}}
runs=${2:-5}
size_mib=${ZEL_BENCH_MIB:-1024}
[ -x "$server" ] || { echo "no zel-server at $server (pass its path)" >&2; exit 2; }
command -v nginx >/dev/null || { echo "nginx is not installed" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-serve-bench.XXXXXX")
chmod 755 "$work"
zpid= npid=
cleanup() {
  [ -n "$zpid" ] && kill "$zpid" 2>/dev/null && wait "$zpid" 2>/dev/null || true
  [ -n "$npid" ] && kill "$npid" 2>/dev/null && wait "$npid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# One download's rate in bytes per second.
rate_once() {
  local r
  r=$(curl -sf -o /dev/null -w '%{speed_download}' ${2:+-H "$2"} "$1")
  echo "${r%.*}"
}

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

echo "preparing a ${size_mib} MiB object..."
head -c $((size_mib * 1048576)) /dev/urandom > "$work/object.bin"
chmod 644 "$work/object.bin"

"$server" --port 0 --data "$work/zel-data" > "$work/zel.out" 2> "$work/zel.err" &
zpid=$!
for _ in $(seq 100); do grep -q listening "$work/zel.out" 2>/dev/null && break; sleep 0.1; done
zurl=$(sed -n 's/^listening on //p' "$work/zel.out")
[ -n "$zurl" ] || { echo "zel-server did not start" >&2; cat "$work/zel.err" >&2; exit 1; }
auth="Authorization: Bearer local-dev-token"
curl -sf -o /dev/null -X POST -H "$auth" -d '{"bucketKey":"bench","policyKey":"transient","allow":[]}' "$zurl/zel/v2/buckets"
curl -sf -o /dev/null -X PUT -H "$auth" -H "Content-Type: application/octet-stream" \
  -H "Content-Range: bytes 0-$((size_mib * 1048576 - 1))/$((size_mib * 1048576))" \
  -T "$work/object.bin" "$zurl/zel/v2/buckets/bench/objects/object.bin"
sync
sleep 3

nport=$(free_port)
mkdir -p "$work/nginx/logs"
cat > "$work/nginx/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 64; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  default_type application/octet-stream;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$nport;
    root $work;
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" 2> "$work/nginx/logs/stderr" &
npid=$!
for _ in $(seq 100); do curl -sf -o /dev/null -r 0-0 "http://127.0.0.1:$nport/object.bin" && break; sleep 0.1; done

zobj="$zurl/zel/v2/buckets/bench/objects/object.bin"
nobj="http://127.0.0.1:$nport/object.bin"
# One warm-up each, then the two servers take turns, so that whatever else
# the machine does weighs on both alike.
rate_once "$zobj" "$auth" > /dev/null
rate_once "$nobj" "" > /dev/null
zall=() nall=()
for _ in $(seq "$runs"); do
  zall+=("$(rate_once "$zobj" "$auth")")
  nall+=("$(rate_once "$nobj" "")")
done
zrate=$(printf '%s\n' "${zall[@]}" | median)
nrate=$(printf '%s\n' "${nall[@]}" | median)
awk -v z="$zrate" -v n="$nrate" -v runs="$runs" -v mib="$size_mib" 'BEGIN {
  printf "object: %d MiB, median of %d alternating runs each, curl -o /dev/null over loopback\n", mib, runs
  printf "zel-server: %8.1f MiB/s\n", z / 1048576
  printf "nginx:      %8.1f MiB/s\n", n / 1048576
  printf "ratio zel-server/nginx: %.2f\n", z / n
}'
