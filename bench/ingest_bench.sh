#!/usr/bin/env bash
# Uploads one random file into zel-server and into nginx (its WebDAV module
# taking PUT) and prints each server's ingest rate with the median, min and
# max of the runs, and the ratios zel-server/nginx.
#
# Two ways of sending the same bytes:
#   whole   one `curl -T` PUT of the whole file
#   chunks  `curl -Z --parallel-max 8` PUTs of its pieces (5 MiB unless
#           ZEL_BENCH_PIECE_KIB says otherwise): into one resumable session
#           on zel-server, into one file each on nginx (nginx's PUT cannot
#           write part of a file); also printed as chunks per second
#
# zel-server syncs an object's bytes (fsync of file and directory) before it
# answers; nginx does not sync at all, so its answer comes while its bytes
# may still be only in the page cache. With ZEL_BENCH_NGINX_SYNC=1 a third
# row, "nginx+sync", times nginx's whole PUT followed by `sync`, the nearest
# like-for-like figure (it also writes back anything else that is dirty).
#
# usage: bench/ingest_bench.sh [path/to/zel-server]
#   The binary defaults to $ZEL_SERVER, then build/bin/zel-server.
#   ZEL_BENCH_MIB=1024     size of the file in MiB
#   ZEL_BENCH_RUNS=7       runs per server and way; they alternate
#   ZEL_BENCH_SETTLE=3     seconds left idle after `sync` before each run
#   ZEL_BENCH_MODES="whole chunks"
#   ZEL_BENCH_NGINX_SYNC=0
#   ZEL_BENCH_PIECE_KIB=5120  piece size of the chunks way (64: the per-chunk
#                          cost of syncing and committing dominates)
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/bootstrap" bench
server=${1:-${ZEL_SERVER:-$here/build/bin/zel-server}}
size_mib=${ZEL_BENCH_MIB:-1024}
runs=${ZEL_BENCH_RUNS:-7}
settle=${ZEL_BENCH_SETTLE:-3}
modes=${ZEL_BENCH_MODES:-whole chunks}
nginx_sync=${ZEL_BENCH_NGINX_SYNC:-0}
piece=$((${ZEL_BENCH_PIECE_KIB:-5120} * 1024))
[ -x "$server" ] || { echo "no zel-server at $server (pass its path)" >&2; exit 2; }
command -v nginx >/dev/null || { echo "nginx is not installed" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-ingest-bench.XXXXXX")
chmod 755 "$work"
zpid= npid=
cleanup() {
  [ -n "$zpid" ] && kill "$zpid" 2>/dev/null && wait "$zpid" 2>/dev/null || true
  [ -n "$npid" ] && kill "$npid" 2>/dev/null && wait "$npid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

size=$((size_mib * 1048576))
pieces=$(( (size + piece - 1) / piece ))
echo "preparing a ${size_mib} MiB random file and its $pieces pieces..."
head -c "$size" /dev/urandom > "$work/source.bin"
mkdir "$work/pieces"
split -b "$piece" -d -a 5 "$work/source.bin" "$work/pieces/p."
source_sha=$(sha1sum "$work/source.bin" | cut -d' ' -f1)

"$server" --port 0 --data "$work/zel-data" > "$work/zel.out" 2> "$work/zel.err" &
zpid=$!
for _ in $(seq 100); do grep -q listening "$work/zel.out" 2>/dev/null && break; sleep 0.1; done
zurl=$(sed -n 's/^listening on //p' "$work/zel.out")
[ -n "$zurl" ] || { echo "zel-server did not start" >&2; cat "$work/zel.err" >&2; exit 1; }
auth="Authorization: Bearer local-dev-token"
curl -sf -o /dev/null -X POST -H "$auth" -d '{"bucketKey":"bench","policyKey":"transient","allow":[]}' \
  "$zurl/zel/v2/buckets"
zobjects=$zurl/zel/v2/buckets/bench/objects

# nginx writes a PUT body to its temporary directory and renames it into
# place: both on the same file system as zel-server's data.
nport=$(free_port)
mkdir -p "$work/nginx/logs" "$work/nginx/www" "$work/nginx/body"
cat > "$work/nginx/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$nport;
    root $work/nginx/www;
    client_max_body_size 0;
    dav_methods PUT DELETE;
    create_full_put_path on;
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" 2> "$work/nginx/logs/stderr" &
npid=$!
nurl=http://127.0.0.1:$nport
for _ in $(seq 100); do curl -s -o /dev/null "$nurl/" && break; sleep 0.1; done

# curl -Z configs: one PUT per piece. Each zel-server run gets a session id
# of its own, since a finished session takes no more chunks.
write_configs() {
  local session=bench-$RANDOM$RANDOM i first last name
  : > "$work/zel.cfg"
  : > "$work/nginx.cfg"
  for ((i = 0; i < pieces; i++)); do
    first=$((i * piece))
    last=$(( first + piece - 1 < size - 1 ? first + piece - 1 : size - 1 ))
    name=$(printf 'p.%05d' "$i")
    # "next" starts the request's own set of options (its headers included).
    [ "$i" -gt 0 ] && echo next >> "$work/zel.cfg" && echo next >> "$work/nginx.cfg"
    printf 'url = "%s/chunks/resumable"\nupload-file = "%s"\noutput = "/dev/null"\nfail\nheader = "%s"\nheader = "Content-Range: bytes %d-%d/%d"\nheader = "Session-Id: %s"\nheader = "Expect:"\n' \
      "$zobjects" "$work/pieces/$name" "$auth" "$first" "$last" "$size" "$session" >> "$work/zel.cfg"
    printf 'url = "%s/chunks/%s"\nupload-file = "%s"\noutput = "/dev/null"\nfail\nheader = "Expect:"\n' \
      "$nurl" "$name" "$work/pieces/$name" >> "$work/nginx.cfg"
  done
}

# Clears every target, writes the page cache back and leaves the machine
# idle, so that no run pays for the previous one's dirty pages.
reset() {
  curl -s -o /dev/null -X DELETE -H "$auth" "$zobjects/whole" || true
  curl -s -o /dev/null -X DELETE -H "$auth" "$zobjects/chunks" || true
  rm -rf "$work/nginx/www/"*
  write_configs
  sync
  sleep "$settle"
}

zel_whole() {
  curl -sf -o /dev/null -H "$auth" -H "Expect:" -H "Content-Range: bytes 0-$((size - 1))/$size" \
    -T "$work/source.bin" "$zobjects/whole"
}
nginx_whole() { curl -sf -o /dev/null -H "Expect:" -T "$work/source.bin" "$nurl/whole.bin"; }
nginx_whole_sync() { nginx_whole && sync; }
# -Z draws its progress meter even with -s; failures still set the status.
zel_chunks() { curl -s -Z --parallel-max 8 -K "$work/zel.cfg" 2>/dev/null; }
nginx_chunks() { curl -s -Z --parallel-max 8 -K "$work/nginx.cfg" 2>/dev/null; }

mkdir "$work/runs"
# Runs one upload after reset() and appends its seconds to the row's file.
timed() {
  local row=$1 t0 t1
  shift
  reset
  t0=$(date +%s%N)
  "$@" || { echo "$row failed" >&2; exit 1; }
  t1=$(date +%s%N)
  echo "$(( t1 - t0 ))" >> "$work/runs/$row"
}

rows=()
for mode in $modes; do
  case $mode in
    whole) rows+=("zel-server:whole" "nginx:whole") ;;
    chunks) rows+=("zel-server:chunks" "nginx:chunks") ;;
    *) echo "unknown mode $mode (whole, chunks)" >&2; exit 2 ;;
  esac
done
[ "$nginx_sync" = 1 ] && [[ " $modes " == *" whole "* ]] && rows+=("nginx+sync:whole")

for ((r = 1; r <= runs; r++)); do
  echo "round $r of $runs"
  for row in "${rows[@]}"; do
    case $row in
      zel-server:whole) timed "$row" zel_whole ;;
      nginx:whole) timed "$row" nginx_whole ;;
      nginx+sync:whole) timed "$row" nginx_whole_sync ;;
      zel-server:chunks) timed "$row" zel_chunks ;;
      nginx:chunks) timed "$row" nginx_chunks ;;
    esac
  done
done

# The bytes each server kept must be the file's.
check_zel() {
  local got
  got=$(curl -sf -H "$auth" "$zobjects/$1" | sha1sum | cut -d' ' -f1)
  [ "$got" = "$source_sha" ] || { echo "zel-server's $1 has SHA-1 $got, not $source_sha" >&2; exit 1; }
}
for mode in $modes; do
  "zel_$mode" && check_zel "$mode"
done

# "median min max" in MiB/s from a row's durations (the fastest run is the
# highest rate).
stats() {
  sort -n "$work/runs/$1" | awk -v b="$size" '{ t[NR] = $1 / 1e9 }
    END { printf "%.1f %.1f %.1f\n", b / t[int((NR + 1) / 2)] / 1048576, b / t[NR] / 1048576, b / t[1] / 1048576 }'
}
echo
echo "object: ${size_mib} MiB; ${runs} alternating runs per row; $(nproc) cores; curl over loopback"
printf '%-20s %10s %10s %10s\n' "server:way" "median" "min" "max"
for row in "${rows[@]}"; do
  read -r med lo hi <<<"$(stats "$row")"
  printf '%-20s %10s %10s %10s MiB/s' "$row" "$med" "$lo" "$hi"
  [[ $row == *:chunks ]] && printf '  (%.0f chunks/s at the median)' "$(echo "$med * 1048576 / $piece" | bc -l)"
  echo
  echo "$row $med" >> "$work/medians"
done
echo
median_of() { awk -v r="$1" '$1 == r { print $2 }' "$work/medians"; }
for mode in $modes; do
  printf 'ratio zel-server/nginx, %-6s %6.2fx\n' "$mode" \
    "$(echo "$(median_of "zel-server:$mode") / $(median_of "nginx:$mode")" | bc -l)"
done
if grep -q '^nginx+sync:whole ' "$work/medians"; then
  printf 'ratio zel-server/nginx+sync, whole %6.2fx\n' \
    "$(echo "$(median_of zel-server:whole) / $(median_of nginx+sync:whole)" | bc -l)"
fi
echo "nginx does not sync what it receives; zel-server syncs before it answers."
