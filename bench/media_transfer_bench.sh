#!/usr/bin/env bash
# Upload benchmarks of `nembra upload` against a local `nembra serve`, each beside curl posting
# the same storage form:
#   1. one 1 GiB file: wall time of both, peak RSS of nembra (/usr/bin/time -v);
#   2. 100 files of 64 KiB at once: total wall time of both.
# Usage: bench/media_transfer_bench.sh [BUILD_DIR]   (default: build)
set -euo pipefail

BUILD=${1:-build}
source "$(dirname "$0")/bench_service.sh"
start_service "$BUILD" transfer

echo "== 1 GiB upload"
head -c $((1 << 30)) /dev/urandom >"$WORK/big.mp4"
sync
mapfile -t FORM < <(curl_form)
URL=${FORM[-1]#URL=}
unset 'FORM[-1]'
curl_wall=$(wall curl -s -o /dev/null "${FORM[@]}" -F "file=@$WORK/big.mp4;type=video/mp4" "$URL")
# Random bytes are not playable: the service stores them, then turns the confirm down, which
# costs it one probe. The transfer is what is measured.
/usr/bin/time -v -o "$WORK/time.txt" "$NEMBRA" --server "$SERVER" --token "$APP" upload \
  "$WORK/big.mp4" >"$WORK/upload.out" 2>"$WORK/upload.err" || true
if ! grep -q "answered HTTP 422" "$WORK/upload.err" && ! [ -s "$WORK/upload.out" ]; then
  cat "$WORK/upload.err" >&2
  exit 1
fi
nembra_wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n=split($2,t,":"); s=0; for(i=1;i<=n;i++) s=s*60+t[i]; print s}' "$WORK/time.txt")
rss_kb=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$WORK/time.txt")
printf "curl:   %.2f s\nnembra: %.2f s (%.2fx curl), peak RSS %d MB\n" "$curl_wall" "$nembra_wall" \
  "$(echo "$nembra_wall / $curl_wall" | bc -l)" $((rss_kb / 1024))
rm -f "$WORK/big.mp4"

echo "== 100 parallel uploads of 64 KiB"
mkdir -p "$WORK/small"
for i in $(seq 100); do head -c 65536 /dev/urandom >"$WORK/small/$i.mp4"; done
# curl gets its 100 forms beforehand: it times the storage posts alone.
for i in $(seq 100); do curl_form >"$WORK/small/$i.form"; done
curl_many() {
  for i in $(seq 100); do
    mapfile -t F <"$WORK/small/$i.form"
    u=${F[-1]#URL=}
    unset 'F[-1]'
    curl -s -o /dev/null "${F[@]}" -F "file=@$WORK/small/$i.mp4;type=video/mp4" "$u" &
  done
  wait
}
curl_wall=$(wall curl_many)
nembra_many() { cli upload --parallel 100 "$WORK"/small/*.mp4 >"$WORK/many.out" 2>&1 || true; }
nembra_wall=$(wall nembra_many)
printf "curl (storage posts only): %.2f s\nnembra (upload URL, storage post, confirm): %.2f s\n" \
  "$curl_wall" "$nembra_wall"

echo "== trimCacheWithType over 100,000 files"
"$BUILD/bench/media_transfer_bench" --benchmark_filter=100000 2>/dev/null | grep -E "^BM_"
