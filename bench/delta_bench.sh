#!/usr/bin/env bash
# The delta library (through `zel diff`) against Debian's rdiff, block size
# 2048 for both, on one random base file:
#   signature   zel diff signature      vs rdiff signature
#   patch 1%    zel diff patch          vs rdiff delta   (1% of the bytes
#               rewritten in 1 KiB runs at random offsets)
#   patch +64M  the same with 64 MiB of new bytes inserted in the middle
#   match       zel diff match (unrelated file of the same size, --ratio
#               ZEL_BENCH_RATIO) vs rdiff delta on it (rdiff has no match)
#   apply       zel diff apply (1% patch) vs rdiff patch
#   apply sync  (ZEL_BENCH_SYNC=1) zel diff apply --sync, which flushes the
#               result before it renames it, vs rdiff patch followed by sync
#   text        patch sizes for a compressible (text) base with 1% edits
# Each figure is the median of ZEL_BENCH_RUNS runs with min and max; the
# two tools alternate run by run. Peak RSS is the largest seen.
#
# usage: bench/delta_bench.sh [build-dir]
#   ZEL_BENCH_MIB=1024    base size in MiB (the text base is a quarter)
#   ZEL_BENCH_RUNS=7      runs per tool and operation
#   ZEL_BENCH_RATIO=0.5   ratio handed to zel diff match
#   ZEL_BENCH_SETTLE=2    seconds to wait after sync before each run
#   ZEL_BENCH_RSS_ONLY=1  one run of zel only (memory check at large sizes)
#   ZEL_BENCH_SYNC=1      also the durable apply (row "as")
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
zel=$build/bin/zel
size_mib=${ZEL_BENCH_MIB:-1024}
runs=${ZEL_BENCH_RUNS:-7}
ratio=${ZEL_BENCH_RATIO:-0.5}
settle=${ZEL_BENCH_SETTLE:-2}
rss_only=${ZEL_BENCH_RSS_ONLY:-0}
durable=${ZEL_BENCH_SYNC:-0}
[ -x "$zel" ] || { echo "no zel in $build/bin" >&2; exit 2; }
[ "$rss_only" = 1 ] && runs=1
if [ "$rss_only" != 1 ]; then command -v rdiff >/dev/null || { echo "rdiff is needed" >&2; exit 2; }; fi

work=$(mktemp -d "${TMPDIR:-/tmp}/zel-delta-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
size=$((size_mib * 1048576))

# Rewrites 1% of FILE's bytes in 1 KiB runs at seeded random offsets.
edit_one_percent() {
  python3 - "$1" <<'PY'
import os, random, sys
path = sys.argv[1]
size = os.path.getsize(path)
rng = random.Random(14)
with open(path, "r+b") as f:
    for _ in range(max(1, size // 100 // 1024)):
        f.seek(rng.randrange(max(1, size - 1024)))
        f.write(rng.randbytes(1024))
PY
}

echo "preparing files (${size_mib} MiB base)..."
head -c "$size" /dev/urandom > "$work/base"
cp "$work/base" "$work/edit"
edit_one_percent "$work/edit"
half=$((size / 2))
{ head -c "$half" "$work/base"; head -c $((64 * 1048576)) /dev/urandom; tail -c +$((half + 1)) "$work/base"; } > "$work/ins"
head -c "$size" /dev/urandom > "$work/unrelated"
if [ "$rss_only" != 1 ]; then
  seq -f "%.0f: GET /objects/photos/2024 200 bytes=4096 agent=zel-c-sdk/2.7.3" 1 $((size / 4 / 64)) > "$work/text"
  cp "$work/text" "$work/text.edit"
  edit_one_percent "$work/text.edit"
fi
base_sha=$(sha1sum "$work/base" | cut -d' ' -f1)

# run NAME OUTPUT CMD...: one timed run; appends "seconds rss_kib" to NAME.
run() {
  local name=$1 out=$2
  shift 2
  rm -f "$out"
  sync
  sleep "$settle"
  /usr/bin/time -f "%e %M" -o "$work/t" "$@" > /dev/null
  cat "$work/t" >> "$work/r.$name"
}

# The zel run of each operation, then the rdiff run, per round.
round() {
  run z.sig "$work/z.sig" "$zel" diff signature "$work/base" "$work/z.sig"
  [ "$rss_only" = 1 ] || run r.sig "$work/r.sig" rdiff signature -b 2048 "$work/base" "$work/r.sig"
  run z.p1 "$work/z.p1" "$zel" diff patch "$work/z.sig" "$work/edit" "$work/z.p1"
  [ "$rss_only" = 1 ] || run r.p1 "$work/r.p1" rdiff delta "$work/r.sig" "$work/edit" "$work/r.p1"
  run z.pi "$work/z.pi" "$zel" diff patch "$work/z.sig" "$work/ins" "$work/z.pi"
  [ "$rss_only" = 1 ] || run r.pi "$work/r.pi" rdiff delta "$work/r.sig" "$work/ins" "$work/r.pi"
  run z.m "$work/none" "$zel" diff match "$work/z.sig" "$work/unrelated" --ratio "$ratio"
  [ "$rss_only" = 1 ] || run r.m "$work/r.m" rdiff delta "$work/r.sig" "$work/unrelated" "$work/r.m"
  run z.a "$work/z.out" "$zel" diff apply --base-sha1 "$base_sha" "$work/base" "$work/z.p1" "$work/z.out"
  [ "$rss_only" = 1 ] || run r.a "$work/r.out" rdiff patch "$work/base" "$work/r.p1" "$work/r.out"
  if [ "$durable" = 1 ]; then
    run z.as "$work/z.out" "$zel" diff apply --sync --base-sha1 "$base_sha" "$work/base" "$work/z.p1" "$work/z.out"
    [ "$rss_only" = 1 ] || run r.as "$work/r.out" sh -c 'rdiff patch "$1" "$2" "$3" && sync' sh \
      "$work/base" "$work/r.p1" "$work/r.out"
  fi
}

for i in $(seq "$runs"); do
  echo "round $i of $runs"
  round
done
cmp "$work/z.out" "$work/edit"
[ "$rss_only" = 1 ] || cmp "$work/r.out" "$work/edit"

# summary NAME: "median min max peak_rss_mib" of the runs.
summary() {
  sort -n -k1,1 "$work/r.$1" | awk '{ t[NR] = $1; if ($2 > m) m = $2 }
    END { printf "%.2f %.2f %.2f %.0f", t[int((NR + 1) / 2)], t[1], t[NR], m / 1024 }'
}

bytes() { command stat -c %s "$1"; }

echo
echo "delta benchmark: ${size_mib} MiB, $runs runs per tool, median (min-max) seconds, peak RSS MiB"
printf '%-12s %-26s %-26s %s\n' operation zel rdiff "rdiff/zel time"
ops="sig p1 pi m a"
[ "$durable" = 1 ] && ops="$ops as"
for op in $ops; do
  read -r zm zlo zhi zr <<< "$(summary "z.$op")"
  if [ "$rss_only" = 1 ]; then
    printf '%-12s %-26s\n' "$op" "$zm ($zlo-$zhi) ${zr}M"
    continue
  fi
  read -r rm rlo rhi rr <<< "$(summary "r.$op")"
  printf '%-12s %-26s %-26s %s\n' "$op" "$zm ($zlo-$zhi) ${zr}M" "$rm ($rlo-$rhi) ${rr}M" \
    "$(awk -v a="$rm" -v b="$zm" 'BEGIN { printf "%.2fx", (b > 0 ? a / b : 0) }')"
done
echo "(sig: signature, p1: patch 1% edits, pi: patch 64 MiB insertion, m: match unrelated (zel --ratio $ratio) vs rdiff delta, a: apply, as: apply --sync vs rdiff patch + sync)"
echo "signature size: zel $(bytes "$work/z.sig") bytes$([ "$rss_only" = 1 ] || echo ", rdiff $(bytes "$work/r.sig") bytes")"
echo "patch 1%:       zel $(bytes "$work/z.p1") bytes$([ "$rss_only" = 1 ] || echo ", rdiff $(bytes "$work/r.p1") bytes")"
echo "patch +64 MiB:  zel $(bytes "$work/z.pi") bytes$([ "$rss_only" = 1 ] || echo ", rdiff $(bytes "$work/r.pi") bytes")"
if [ "$rss_only" != 1 ]; then
  "$zel" diff signature "$work/text" "$work/zt.sig"
  "$zel" diff patch "$work/zt.sig" "$work/text.edit" "$work/zt.p"
  rdiff signature -b 2048 "$work/text" "$work/rt.sig"
  rdiff delta "$work/rt.sig" "$work/text.edit" "$work/rt.p"
  echo "text patch 1%:  zel $(bytes "$work/zt.p") bytes, rdiff $(bytes "$work/rt.p") bytes (text base $(bytes "$work/text") bytes)"
fi
