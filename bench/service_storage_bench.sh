#!/usr/bin/env bash
# Storage POST of one 1 GiB file to a local `nembra serve`, beside `cp` of the same file to the
# same disk. Both end with `sync` of the file written, so both count the bytes reaching the disk
# (and not whatever else the machine has left dirty). Figures: the wall time of each (median of
# RUNS, default 3) and the service's peak RSS while it receives the file.
# Targets: wall <= 1.5x cp's; service peak RSS under 64 MB.
# Usage: bench/service_storage_bench.sh [BUILD_DIR]   (default: build; RUNS=n in the environment)
set -euo pipefail

BUILD=${1:-build}
RUNS=${RUNS:-3}
source "$(dirname "$0")/bench_service.sh"
start_service "$BUILD" storage

# The sum, or the ratio, of two numbers.
add() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", a + b}'; }
divide() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", a / b}'; }

# kB of the service's memory: VmRSS (now) or VmHWM (peak since the last reset).
service_kb() { awk -v key="$1:" '$1 == key {print $2}' "/proc/$SERVE_PID/status"; }

# Leaves the HTTP status in $WORK/status: wall runs it in a subshell.
post() {
  curl -s -o "$WORK/post.out" -w '%{http_code}' "${FORM[@]}" \
    -F "file=@$WORK/big.mp4;type=video/mp4" "$URL" >"$WORK/status" || true
}

# The one file of 1 GiB in the data directory newer than the form: the upload, stored.
sync_upload() { find "$WORK/data" -type f -size +1048575k -newer "$WORK/form" -exec sync {} +; }

median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

head -c $((1 << 30)) /dev/urandom >"$WORK/big.mp4"
sync
idle_kb=$(service_kb VmRSS)
cp_walls=() post_walls=() peak_kb=0
for run in $(seq "$RUNS"); do
  rm -f "$WORK/copy.mp4"
  sync
  cp_copy=$(wall cp "$WORK/big.mp4" "$WORK/copy.mp4")
  cp_sync=$(wall sync "$WORK/copy.mp4")
  cp_walls+=("$(add "$cp_copy" "$cp_sync")")

  curl_form >"$WORK/form"
  mapfile -t FORM <"$WORK/form"
  URL=${FORM[-1]#URL=}
  unset 'FORM[-1]'
  sync
  echo 5 >"/proc/$SERVE_PID/clear_refs" # VmHWM from here on: this upload's peak alone
  post_post=$(wall post)
  hwm=$(service_kb VmHWM)
  if [ "$(cat "$WORK/status")" != 204 ]; then
    echo "the storage POST answered $(cat "$WORK/status"): $(cat "$WORK/post.out")" >&2
    exit 1
  fi
  post_sync=$(wall sync_upload)
  post_walls+=("$(add "$post_post" "$post_sync")")
  if ((hwm > peak_kb)); then peak_kb=$hwm; fi
  printf "run %d: cp %.2f + sync %.2f s, storage POST %.2f + sync %.2f s, service peak RSS %d MB\n" \
    "$run" "$cp_copy" "$cp_sync" "$post_post" "$post_sync" $((hwm / 1024))
done

cp_wall=$(printf '%s\n' "${cp_walls[@]}" | median)
post_wall=$(printf '%s\n' "${post_walls[@]}" | median)
ratio=$(divide "$post_wall" "$cp_wall")
verdict() { if [ "$1" = 1 ]; then echo met; else echo MISSED; fi; }
echo "== storage POST of 1 GiB, median of $RUNS runs, each with the sync of the file it wrote"
printf "%-18s %9s   %s\n" "" "figure" "target"
printf "%-18s %7.2f s\n" "cp" "$cp_wall"
printf "%-18s %7.2f s   <= 1.5x cp: %.2fx, %s\n" "storage POST" "$post_wall" "$ratio" \
  "$(verdict "$(awk -v r="$ratio" 'BEGIN {print (r <= 1.5)}')")"
printf "%-18s %6d MB   < 64 MB: %s (idle: %d MB)\n" "service peak RSS" $((peak_kb / 1024)) \
  "$(verdict $((peak_kb < 64 * 1024)))" $((idle_kb / 1024))
