#!/usr/bin/env bash
# Patch transfers against whole transfers, through the library's C++ layer
# (bench/zel_delta) against zel-server: a random file, and a copy of it with
# 1% of its bytes changed in scattered places (one edit in every MiB).
#   patch upload   (signature, match, patch and SHA-1 computed locally, the
#                   patch sent, the service builds the new object)
#   vs whole upload of the new file;
#   patch download (the service's patch fetched and applied to the old file)
#   vs whole download of the new object;
# each over a fast link and over a 100 Mbit/s one.
#
# The link is real: zel-server runs in a network namespace of its own, joined
# to this one by a veth pair, and the capped runs put a token bucket
# (`tc qdisc ... tbf rate 100mbit`) on both ends of the pair, so every
# request of both peers, in both directions, shares the rate as on a user's
# link; the client runs with the library's defaults (parallel chunks and
# all). The uncapped runs use the same pair without the token buckets. This
# needs root and iproute2 (ip netns, ip link, tc).
# Prints, per transfer, the median, min and max of wall time, the bytes on
# the wire (body bytes: the whole file or the patch) and peak RSS, then the
# speed-ups and the goals.
#
# usage: bench/delta_sync_bench.sh [build-dir]
#   build-dir holds bin/zel-server, bin/zel_delta and bin/zel (default: build).
#   ZEL_BENCH_MIB=1024        size of the file in MiB
#   ZEL_BENCH_RUNS=7          runs per transfer, uncapped
#   ZEL_BENCH_CAPPED_RUNS=7   runs per transfer on the capped link (0: skip)
#   ZEL_BENCH_RATE=100mbit    the capped link's rate, in tc's notation
#   ZEL_BENCH_SETTLE=3        seconds to wait after sync before each run
#   ZEL_BENCH_WAYS="up down"  which directions to measure
#
# The whole and patch runs of a phase alternate, round after round, so that
# a change in the machine's load touches both alike. Before each run its
# target (the stored object, or the local output) is deleted and the page
# cache written back.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/bootstrap" bench
build=${1:-$here/build}
server=$build/bin/zel-server
client=$build/bin/zel_delta
zel=$build/bin/zel
size_mib=${ZEL_BENCH_MIB:-1024}
runs=${ZEL_BENCH_RUNS:-7}
capped_runs=${ZEL_BENCH_CAPPED_RUNS:-7}
rate=${ZEL_BENCH_RATE:-100mbit}
settle=${ZEL_BENCH_SETTLE:-3}
ways=" ${ZEL_BENCH_WAYS:-up down} "
for tool in "$server" "$client" "$zel"; do
  [ -x "$tool" ] || { echo "no $(basename "$tool") in $build/bin (build zel-server zel_delta zel-cli)" >&2; exit 2; }
done

[ "$(id -u)" = 0 ] && command -v ip > /dev/null && command -v tc > /dev/null ||
  { echo "the bench's link needs root and iproute2 (ip, tc)" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-delta-bench.XXXXXX")
zpid=
netns=zelbench$$
host_if=zb$$h
peer_if=zb$$n
net=10.$((($$ >> 8) % 250 + 1)).$(($$ % 250))
cleanup() {
  [ -n "$zpid" ] && kill "$zpid" 2>/dev/null && wait "$zpid" 2>/dev/null || true
  ip link del "$host_if" 2>/dev/null || true
  ip netns del "$netns" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

ip netns add "$netns"
ip link add "$host_if" type veth peer name "$peer_if"
ip link set "$peer_if" netns "$netns"
ip addr add "$net.1/30" dev "$host_if"
ip link set "$host_if" up
ip -n "$netns" addr add "$net.2/30" dev "$peer_if"
ip -n "$netns" link set "$peer_if" up
ip -n "$netns" link set lo up
# shape RATE|none: the token buckets on both ends of the pair, or none.
shape() {
  if [ "$1" = none ]; then
    tc qdisc del dev "$host_if" root 2>/dev/null || true
    tc -n "$netns" qdisc del dev "$peer_if" root 2>/dev/null || true
    return
  fi
  tc qdisc replace dev "$host_if" root tbf rate "$1" burst 128kb latency 50ms
  tc -n "$netns" qdisc replace dev "$peer_if" root tbf rate "$1" burst 128kb latency 50ms
}

size=$((size_mib * 1048576))
edit=$((1048576 / 100))
echo "preparing a ${size_mib} MiB random file and a copy with one ${edit}-byte edit per MiB..."
head -c "$size" /dev/urandom > "$work/old.bin"
cp "$work/old.bin" "$work/new.bin"
for ((m = 0; m < size_mib; m++)); do
  offset=$((m * 1048576 + (RANDOM * 32768 + RANDOM) % (1048576 - edit)))
  dd if=/dev/urandom of="$work/new.bin" bs="$edit" count=1 seek="$offset" oflag=seek_bytes conv=notrunc \
    status=none
done
new_sha=$(sha1sum "$work/new.bin" | cut -d' ' -f1)
"$zel" diff signature "$work/old.bin" "$work/old.sig"
sig_size=$(stat -c %s "$work/old.sig")
rm -f "$work/old.sig"

ip netns exec "$netns" "$server" --host "$net.2" --port 0 --data "$work/zel-data" > "$work/zel.out" \
  2> "$work/zel.err" &
zpid=$!
for _ in $(seq 100); do grep -q listening "$work/zel.out" 2>/dev/null && break; sleep 0.1; done
base=$(sed -n 's/^listening on //p' "$work/zel.out")
[ -n "$base" ] || { echo "zel-server did not start" >&2; cat "$work/zel.err" >&2; exit 1; }
auth="Authorization: Bearer local-dev-token"
objects=$base/zel/v2/buckets/bench/objects
curl -sf -o /dev/null -X POST -H "$auth" -d '{"bucketKey":"bench","policyKey":"transient","allow":[]}' \
  "$base/zel/v2/buckets"

stored_sha() { curl -sf -H "$auth" "$objects/$1/details" | sed -n 's/.*"sha1" *: *"\([0-9a-f]*\)".*/\1/p'; }
check() {
  [ "$2" = "$new_sha" ] || { echo "$1: SHA-1 $2 is not the new file's $new_sha" >&2; exit 1; }
}

echo "storing the old and the new file, and having the service make the patch..."
"$client" put "$base" bench old "$work/old.bin" > /dev/null
"$client" put "$base" bench new "$work/new.bin" > /dev/null
for attempt in $(seq 600); do
  status=0
  "$client" get-patch "$base" bench new "$work/out.bin" old "$work/old.bin" > /dev/null || status=$?
  [ "$status" = 0 ] && break
  [ "$status" = 3 ] || { echo "get-patch failed (status $status)" >&2; exit 1; }
  sleep 1
done
check "patch download" "$(sha1sum "$work/out.bin" | cut -d' ' -f1)"
"$client" put-patch "$base" bench patched "$work/new.bin" old "$work/old.bin" > /dev/null
check "patch upload" "$(stored_sha patched)"
echo "both patch transfers deliver the new file's SHA-1 $new_sha"

mkdir "$work/runs"
# run NAME TARGET_KIND TARGET -- COMMAND...: deletes the target, settles,
# runs the command and keeps "seconds wire rss_kib".
run() {
  local name=$1 kind=$2 target=$3
  shift 4
  if [ "$kind" = object ]; then
    curl -s -o /dev/null -X DELETE -H "$auth" "$objects/$target" || true
  else
    rm -f "$target"
  fi
  sync
  sleep "$settle"
  "$@" > "$work/stdout" 2> "$work/stderr" || { echo "$name failed:" >&2; cat "$work/stderr" >&2; exit 1; }
  cat "$work/stdout" >> "$work/runs/$name"
  printf '  %-26s %s\n' "$name" "$(cat "$work/stdout")"
}

phase() {
  local label=$1 count=$2 r
  [ "$count" -gt 0 ] || return 0
  echo "$label ($count runs each), $(uptime | sed 's/.*\(load average\)/\1/'):"
  for ((r = 0; r < count; r++)); do
    [[ $ways == *" up "* ]] || break
    run "whole upload $label" object up -- "$client" put "$base" bench up "$work/new.bin"
    run "patch upload $label" object up -- "$client" put-patch "$base" bench up "$work/new.bin" old \
      "$work/old.bin"
  done
  for ((r = 0; r < count; r++)); do
    [[ $ways == *" down "* ]] || break
    run "whole download $label" file "$work/out.bin" -- "$client" get "$base" bench new "$work/out.bin"
    run "patch download $label" file "$work/out.bin" -- "$client" get-patch "$base" bench new "$work/out.bin" \
      old "$work/old.bin"
  done
}
shape none
phase uncapped "$runs"
shape "$rate"
phase capped "$capped_runs"
shape none

# median, min and max of column $2 of file $1
stats() { sort -k"$2,$2"g "$1" | awk -v c="$2" '{ v[NR] = $c } END { printf "%s %s %s\n", v[int((NR + 1) / 2)], v[1], v[NR] }'; }
median() { stats "$1" "$2" | cut -d' ' -f1; }

echo
echo "done, $(uptime | sed 's/.*\(load average\)/\1/')"
echo "size ${size_mib} MiB ($size bytes), one ${edit}-byte edit per MiB; signature $sig_size bytes; capped: a $rate link (tc tbf, both directions); $(nproc) cores"
printf '%-28s %5s %24s %26s %24s\n' transfer runs "seconds med (min-max)" "wire bytes med (min-max)" \
  "peak RSS MiB med (min-max)"
for file in "$work/runs"/*; do
  name=$(basename "$file")
  read -r t tmin tmax < <(stats "$file" 1)
  read -r w wmin wmax < <(stats "$file" 2)
  read -r m mmin mmax < <(stats "$file" 3)
  printf '%-28s %5d %24s %26s %24s\n' "$name" "$(wc -l < "$file")" "$t ($tmin-$tmax)" "$w ($wmin-$wmax)" \
    "$(awk -v a="$m" -v b="$mmin" -v c="$mmax" 'BEGIN { printf "%.1f (%.1f-%.1f)", a / 1024, b / 1024, c / 1024 }')"
done

echo
limit_kib=$(( (64 * 1048576 + sig_size) / 1024 ))
for label in uncapped capped; do
  for way in upload download; do
    whole_file="$work/runs/whole $way $label" patch_file="$work/runs/patch $way $label"
    [ -s "$patch_file" ] || continue
    awk -v w="$(median "$whole_file" 1)" -v p="$(median "$patch_file" 1)" -v b="$(median "$patch_file" 2)" \
      -v s="$size" -v r="$(median "$patch_file" 3)" -v l="$limit_kib" -v n="$way $label" 'BEGIN {
        printf "%-30s %6.2fx faster, %5.2f%% of the file on the wire, peak RSS %s the %.1f MiB limit\n",
          "patch " n ":", w / p, 100 * b / s, (r < l ? "under" : "OVER"), l / 1024 }'
  done
done
