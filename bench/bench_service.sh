# Sourced by the benchmark scripts: starts `nembra serve` from BUILD_DIR on free ports with a
# scratch data directory (stopped and removed on exit) and gives them the helpers they share.
# Sets NEMBRA, WORK, SERVER, APP and NEMBRA_HOME. Usage: start_service BUILD_DIR NAME

start_service() {
  NEMBRA=$(realpath "$1/nembra")
  WORK=$(mktemp -d "/tmp/nembra-$2-bench-XXXXXX")
  trap 'kill $SERVE_PID 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$WORK"' EXIT
  APP=bench
  "$NEMBRA" serve --port 0 --port-file "$WORK/port" --data "$WORK/data" --rtmp-port 0 \
    --max-upload $((2 << 30)) >"$WORK/serve.log" 2>&1 &
  SERVE_PID=$!
  for _ in $(seq 100); do [ -s "$WORK/port" ] && break; sleep 0.1; done
  if ! [ -s "$WORK/port" ]; then
    cat "$WORK/serve.log" >&2
    exit 1
  fi
  SERVER="http://127.0.0.1:$(cat "$WORK/port")"
  export NEMBRA_HOME="$WORK/home"
}

cli() { "$NEMBRA" --server "$SERVER" --token "$APP" "$@"; }

# A fresh upload URL of the service, as the SDK asks for it; prints curl's -F arguments, then
# "URL=" and the storage URL.
curl_form() {
  cli --json request POST "/v1/applications/$APP/videos/videos-upload-url?create_stream=true" |
    jq -r '.body.url_data as $d | ($d.fields | to_entries[] | "-F\n\(.key)=\(.value)"), "URL=\($d.url)"'
}

# Seconds of wall time of "$@".
wall() {
  local start end
  start=$(date +%s.%N)
  "$@"
  end=$(date +%s.%N)
  awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f", b - a}'
}
