#!/usr/bin/env bash
# Uploads and downloads one random file through the library (bench/zel_transfer)
# against zel-server, moves the same bytes with curl and aria2c against the
# same server, and prints MB/s, CPU seconds (user+sys), peak RSS and the
# ratios zel/peer.
#
# usage: bench/transfer_bench.sh [build-dir]
#   build-dir holds bin/zel-server and bin/zel_transfer (default: build).
#   ZEL_BENCH_MIB=1024   size of the file in MiB
#   ZEL_BENCH_PEERS=0    measure the library alone (for the memory check at
#                        larger sizes)
#   ZEL_BENCH_SETTLE=5   seconds to wait after sync before each run that
#                        writes a file
#   ZEL_BENCH_RUNS=3     runs per tool; the run with the median rate counts
#   ZEL_BENCH_WAYS=both  up or down: measure only uploads or only downloads
#   ZEL_BENCH_BASELINE=  another zel_transfer (an older build) whose uploads
#                        and downloads take turns with this one's, as
#                        "zel put base" and "zel get base"
#   ZEL_BENCH_RSS=1      memory mode instead: a ZEL_BENCH_MIB file (default
#                        4096 here) goes up and down through the library with
#                        64 KiB and with 5 MiB chunks, and the peak RSS of each
#                        run is printed (/usr/bin/time -v); the files live
#                        only for the run. ZEL_BENCH_PUT_CHUNKS and
#                        ZEL_BENCH_GET_CHUNKS list the chunk sizes (default
#                        "65536 5242880"); the downloads read the last upload
#
# Before every run that writes a file (the server's object for uploads, the
# local output for downloads) the target is deleted, the page cache is
# written back with sync and the machine is left alone for a few seconds:
# freshly written memory is expensive here, and without this the order of
# the runs would decide the ratios.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/bootstrap" bench
build=${1:-$here/build}
server=$build/bin/zel-server
client=$build/bin/zel_transfer
size_mib=${ZEL_BENCH_MIB:-1024}
peers=${ZEL_BENCH_PEERS:-1}
settle=${ZEL_BENCH_SETTLE:-5}
runs=${ZEL_BENCH_RUNS:-3}
ways=${ZEL_BENCH_WAYS:-both}
baseline=${ZEL_BENCH_BASELINE:-}
rss_mode=${ZEL_BENCH_RSS:-0}
if [ "$rss_mode" = 1 ]; then
  size_mib=${ZEL_BENCH_MIB:-4096}
  peers=0
fi
piece=$((5 * 1048576))
[ -x "$server" ] || { echo "no zel-server in $build/bin" >&2; exit 2; }
[ -x "$client" ] || { echo "no zel_transfer in $build/bin (build target zel_transfer)" >&2; exit 2; }
if [ "$peers" = 1 ]; then
  command -v curl >/dev/null && command -v aria2c >/dev/null || { echo "curl and aria2c are needed" >&2; exit 2; }
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-transfer-bench.XXXXXX")
zpid=
cleanup() {
  [ -n "$zpid" ] && kill "$zpid" 2>/dev/null && wait "$zpid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

size=$((size_mib * 1048576))
auth="Authorization: Bearer local-dev-token"
echo "preparing a ${size_mib} MiB random file and its 5 MiB pieces..."
head -c "$size" /dev/urandom > "$work/source.bin"
mkdir "$work/pieces" "$work/out"
[ "$peers" = 1 ] && split -b "$piece" -d -a 5 "$work/source.bin" "$work/pieces/p."
source_sha=$(sha1sum "$work/source.bin" | cut -d' ' -f1)

"$server" --port 0 --data "$work/zel-data" > "$work/zel.out" 2> "$work/zel.err" &
zpid=$!
for _ in $(seq 100); do grep -q listening "$work/zel.out" 2>/dev/null && break; sleep 0.1; done
base=$(sed -n 's/^listening on //p' "$work/zel.out")
[ -n "$base" ] || { echo "zel-server did not start" >&2; cat "$work/zel.err" >&2; exit 1; }
api=$base/zel/v2
curl -sf -o /dev/null -X POST -H "$auth" -d '{"bucketKey":"bench","policyKey":"transient","allow":[]}' "$api/buckets"
objects=$api/buckets/bench/objects

# Config files for curl -Z: one request per 5 MiB piece. Each upload run
# gets a session id of its own: a finished session cannot take new chunks.
pieces=$(( (size + piece - 1) / piece ))
write_configs() {
  local session=curl-chunks-$RANDOM$RANDOM i first last name
  : > "$work/up.cfg"
  : > "$work/down.cfg"
  for ((i = 0; i < pieces; i++)); do
    first=$((i * piece))
    last=$(( first + piece - 1 < size - 1 ? first + piece - 1 : size - 1 ))
    name=$(printf 'p.%05d' "$i")
    # "next" starts the request's own set of options (its headers included).
    [ "$i" -gt 0 ] && echo next >> "$work/up.cfg" && echo next >> "$work/down.cfg"
    printf 'url = "%s/curl-chunks/resumable"\nupload-file = "%s"\noutput = "/dev/null"\nfail\nheader = "%s"\nheader = "Content-Range: bytes %d-%d/%d"\nheader = "Session-Id: %s"\nheader = "Expect:"\n' \
      "$objects" "$work/pieces/$name" "$auth" "$first" "$last" "$size" "$session" >> "$work/up.cfg"
    printf 'url = "%s/zel-up"\nrange = "%d-%d"\noutput = "%s/out/%s"\nfail\nheader = "%s"\n' \
      "$objects" "$first" "$last" "$work" "$name" "$auth" >> "$work/down.cfg"
  done
}


# Runs a command once under /usr/bin/time after `prepare` (which deletes the
# command's target) and records "seconds cpu rss_kib" for the tool. The tools
# of a phase take turns, round after round, so that a change in the
# machine's background load touches every tool alike; the median run counts.
mkdir "$work/runs"
order=()
run_once() {
  local name=$1 prepare=$2 bytes=$3 elapsed user sys rss file
  shift 3
  file=$work/runs/$(echo "$name" | tr ' ' '_')
  [ -e "$file" ] || order+=("$name")
  $prepare
  sync
  sleep "$settle"
  /usr/bin/time -f '%e %U %S %M' -o "$work/time" "$@" > "$work/stdout" 2> "$work/stderr" || {
    echo "$name failed:" >&2
    cat "$work/stderr" >&2
    exit 1
  }
  read -r elapsed user sys rss < "$work/time"
  echo "$bytes $elapsed $(echo "$user + $sys" | bc) $rss" >> "$file"
  printf '  %-12s %8.1f MB/s\n' "$name" "$(echo "$bytes / $elapsed / 1000000" | bc -l)"
  $prepare
}

delete_object() { curl -s -o /dev/null -X DELETE -H "$auth" "$objects/$1" || true; }
no_zel_up() { delete_object zel-up; }
no_curl_single() { delete_object curl-single; }
no_curl_chunks() {
  delete_object curl-chunks
  write_configs
}
no_zel_file() { rm -f "$work/zel.bin"; }
no_curl_file() { rm -f "$work/curl.bin"; }
no_parts() {
  rm -f "$work/out"/*
  write_configs
}
no_aria_file() { rm -f "$work/aria.bin" "$work/aria.bin.aria2"; }

# Memory mode: peak RSS of the library's process for each chunk size, one
# upload and one download each, the bytes checked after the download.
if [ "$rss_mode" = 1 ]; then
  rss_run() {
    local op=$1 chunk=$2 target=$3 rss user sys secs
    sync
    sleep "$settle"
    /usr/bin/time -v -o "$work/time" "$client" "$op" "$base" bench zel-up "$target" "$chunk" > "$work/stdout"
    rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/time")
    user=$(sed -n 's/.*User time (seconds): //p' "$work/time")
    sys=$(sed -n 's/.*System time (seconds): //p' "$work/time")
    secs=$(cut -d' ' -f1 "$work/stdout")
    printf '%-8s %-10s %10.1f %10.2f %12.1f\n' "$op" "$chunk" "$(echo "$size / $secs / 1000000" | bc -l)" \
      "$(echo "$user + $sys" | bc)" "$(echo "$rss / 1024" | bc -l)"
  }
  printf '%-8s %-10s %10s %10s %12s\n' op chunk MB/s CPU-s peak-RSS-MiB
  for chunk in ${ZEL_BENCH_PUT_CHUNKS:-65536 5242880}; do
    no_zel_up
    rss_run put "$chunk" "$work/source.bin"
  done
  for chunk in ${ZEL_BENCH_GET_CHUNKS:-65536 5242880}; do
    no_zel_file
    rss_run get "$chunk" "$work/zel.bin"
    got_sha=$(sha1sum "$work/zel.bin" | cut -d' ' -f1)
    [ "$got_sha" = "$source_sha" ] || { echo "zel: SHA-1 $got_sha differs from the source's $source_sha" >&2; exit 1; }
  done
  no_zel_file
  echo "size ${size_mib} MiB; $(nproc) cores"
  exit 0
fi

# The downloads read the object the library uploaded, after checking it.
[ "$ways" = down ] || echo "uploads:"
for ((r = 0; r < runs; r++)); do
  [ "$ways" = down ] && break
  run_once "zel put" no_zel_up "$size" "$client" put "$base" bench zel-up "$work/source.bin"
  [ -n "$baseline" ] && run_once "zel put base" no_zel_up "$size" "$baseline" put "$base" bench zel-up "$work/source.bin"
  if [ "$peers" = 1 ]; then
    run_once "curl -T" no_curl_single "$size" curl -sf -o /dev/null -H "$auth" -H "Expect:" \
      -H "Content-Range: bytes 0-$((size - 1))/$size" -T "$work/source.bin" "$objects/curl-single"
    run_once "curl -Z put" no_curl_chunks "$size" curl -s -Z --parallel-max 8 -K "$work/up.cfg"
  fi
done

"$client" put "$base" bench zel-up "$work/source.bin" > /dev/null 2>&1
"$client" get "$base" bench zel-up "$work/zel.bin" > /dev/null 2>&1
got_sha=$(sha1sum "$work/zel.bin" | cut -d' ' -f1)
[ "$got_sha" = "$source_sha" ] || { echo "zel: SHA-1 $got_sha differs from the source's $source_sha" >&2; exit 1; }
no_zel_file

[ "$ways" = up ] || echo "downloads:"
for ((r = 0; r < runs; r++)); do
  [ "$ways" = up ] && break
  run_once "zel get" no_zel_file "$size" "$client" get "$base" bench zel-up "$work/zel.bin"
  [ -n "$baseline" ] && run_once "zel get base" no_zel_file "$size" "$baseline" get "$base" bench zel-up "$work/zel.bin"
  if [ "$peers" = 1 ]; then
    run_once "curl -o" no_curl_file "$size" curl -sf -H "$auth" -o "$work/curl.bin" "$objects/zel-up"
    run_once "curl -Z get" no_parts "$size" curl -s -Z --parallel-max 8 -K "$work/down.cfg"
    run_once "aria2c" no_aria_file "$size" aria2c -q -x8 -s8 -k5M --file-allocation=falloc --header="$auth" \
      --allow-overwrite=true --auto-file-renaming=false -d "$work" -o aria.bin "$objects/zel-up"
  fi
done

# One line per tool, "name bytes seconds cpu rss_kib", from its median run.
results=$work/results
for name in "${order[@]}"; do
  echo "$name $(sort -k2,2n "$work/runs/$(echo "$name" | tr ' ' '_')" | sed -n "$(( (runs + 1) / 2 ))p" |
    awk '{ print $1, $2, $3, $4 }')" >> "$results"
done
echo
echo "size ${size_mib} MiB; $(nproc) cores"
printf '%-16s %10s %10s %10s %10s %10s\n' tool MB/s min max CPU-s RSS-MiB
for name in "${order[@]}"; do
  runs_file=$work/runs/$(echo "$name" | tr ' ' '_')
  read -r lo hi < <(awk '{ r = $1 / $2 / 1e6; if (NR == 1 || r < lo) lo = r; if (NR == 1 || r > hi) hi = r }
                         END { printf "%.1f %.1f\n", lo, hi }' "$runs_file")
  awk -v n="$name" -v lo="$lo" -v hi="$hi" '{ name=$1; for (i = 2; i <= NF - 4; i++) name = name " " $i;
       if (name == n) printf "%-16s %10.1f %10.1f %10.1f %10.2f %10.1f%s\n", name, $(NF-3) / $(NF-2) / 1e6, lo, hi,
                             $(NF-1), $NF / 1024, (hi > 1.5 * lo ? "  (wide spread)" : "") }' "$results"
done
rate() { awk -v n="$1" '{ name=$1; for (i = 2; i <= NF - 4; i++) name = name " " $i; if (name == n) printf "%.3f\n", $(NF-3) / $(NF-2) }' "$results"; }
pairs=()
[ "$peers" = 1 ] && pairs+=("zel put:curl -T" "zel put:curl -Z put" "zel get:curl -o" "zel get:curl -Z get" "zel get:aria2c")
[ -n "$baseline" ] && pairs+=("zel put:zel put base" "zel get:zel get base")
if [ "${#pairs[@]}" -gt 0 ]; then
  echo
  for pair in "${pairs[@]}"; do
    [ -n "$(rate "${pair%%:*}")" ] && [ -n "$(rate "${pair##*:}")" ] || continue
    printf '%-28s %6.2fx\n' "${pair%%:*} / ${pair##*:}" "$(echo "$(rate "${pair%%:*}") / $(rate "${pair##*:}")" | bc -l)"
  done
fi
