#!/usr/bin/env bash
# Storage POST of one 1 GiB file to a local `nembra serve`, beside `cp` of the same file to the
# same disk. Both end with `sync`, so both count the bytes reaching the disk. Figures: the wall
# time of each (median of RUNS, default 3) and the service's peak RSS while it receives the file.
# Targets: wall <= 1.5x cp's; service peak RSS under 64 MB.
# Usage: bench/service_storage_bench.sh [BUILD_DIR]   (default: build; RUNS=n in the environment)
set -euo pipefail

BUILD=${1:-build}
RUNS=${RUNS:-3}
NEMBRA=$(realpath "$BUILD/nembra")
WORK=$(mktemp -d /tmp/nembra-storage-bench-XXXXXX)
trap 'kill $SERVE_PID 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$WORK"' EXIT
APP=bench

"$NEMBRA" serve --port 0 --port-file "$WORK/port" --data "$WORK/data" --rtmp-port 0 \
  --max-upload $((2 << 30)) >"$WORK/serve.log" 2>&1 &
SERVE_PID=$!
for _ in $(seq 100); do [ -s "$WORK/port" ] && break; sleep 0.1; done
SERVER="http://127.0.0.1:$(cat "$WORK/port")"
export NEMBRA_HOME="$WORK/home"

# A fresh upload URL of the service, as the SDK asks for it; prints curl's -F arguments.
curl_form() {
  "$NEMBRA" --server "$SERVER" --token "$APP" --json request POST \
    "/v1/applications/$APP/videos/videos-upload-url?create_stream=true" |
    jq -r '.body.url_data as $d | ($d.fields | to_entries[] | "-F\n\(.key)=\(.value)"), "URL=\($d.url)"'
}

# Seconds of wall time of "$@".
wall() {
  local start end
  start=$(date +%s.%N)
  "$@"
  end=$(date +%s.%N)
  echo "$end - $start" | bc
}

# kB of the service's memory: VmRSS (now) or VmHWM (peak since the last reset).
service_kb() { awk -v key="$1:" '$1 == key {print $2}' "/proc/$SERVE_PID/status"; }

copy() {
  cp "$WORK/big.mp4" "$WORK/copy.mp4"
  sync
}

post() {
  local status
  status=$(curl -s -o "$WORK/post.out" -w '%{http_code}' "${FORM[@]}" \
    -F "file=@$WORK/big.mp4;type=video/mp4" "$URL")
  sync
  if [ "$status" != 204 ]; then
    echo "storage POST answered $status: $(cat "$WORK/post.out")" >&2
    return 1
  fi
}

median() { sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

head -c $((1 << 30)) /dev/urandom >"$WORK/big.mp4"
sync
idle_kb=$(service_kb VmRSS)
cp_walls=() post_walls=() peak_kb=0
for run in $(seq "$RUNS"); do
  rm -f "$WORK/copy.mp4"
  sync
  cp_walls+=("$(wall copy)")

  mapfile -t FORM < <(curl_form)
  URL=${FORM[-1]#URL=}
  unset 'FORM[-1]'
  sync
  echo 5 >"/proc/$SERVE_PID/clear_refs" # VmHWM from here on: this upload's peak alone
  post_walls+=("$(wall post)")
  hwm=$(service_kb VmHWM)
  ((hwm > peak_kb)) && peak_kb=$hwm
  printf "run %d: cp %.2f s, storage POST %.2f s, service peak RSS %d MB\n" "$run" \
    "${cp_walls[-1]}" "${post_walls[-1]}" $((hwm / 1024))
done

cp_wall=$(printf '%s\n' "${cp_walls[@]}" | median)
post_wall=$(printf '%s\n' "${post_walls[@]}" | median)
ratio=$(echo "$post_wall / $cp_wall" | bc -l)
verdict() { if [ "$1" = 1 ]; then echo met; else echo MISSED; fi; }
echo "== storage POST of 1 GiB (median of $RUNS runs, sync included in both)"
printf "%-22s %8s  %s\n" "" "figure" "target"
printf "%-22s %6.2f s\n" "cp + sync" "$cp_wall"
printf "%-22s %6.2f s  %.2fx cp (<= 1.5x: %s)\n" "curl -F + sync" "$post_wall" "$ratio" \
  "$(verdict "$(echo "$ratio <= 1.5" | bc)")"
printf "%-22s %6d MB  idle %d MB (< 64 MB: %s)\n" "service peak RSS" $((peak_kb / 1024)) \
  $((idle_kb / 1024)) "$(verdict $((peak_kb < 64 * 1024)))"
