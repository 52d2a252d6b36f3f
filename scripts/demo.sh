#!/usr/bin/env bash
# Starts `nembra serve` on free ports with a temporary data directory and runs `nembra demo`
# against it. Everything it starts is stopped on exit.
set -euo pipefail
build_dir=${1:-build}
nembra="$build_dir/nembra"
[ -x "$nembra" ] || { echo "demo: $nembra is missing; run 'make build' first" >&2; exit 1; }

work=$(mktemp -d -t nembra-demo.XXXXXX)
server_pid=""
xvfb_pid=""
cleanup() {
  if [ -n "$xvfb_pid" ]; then
    kill -TERM "$xvfb_pid" 2>/dev/null || true
    wait "$xvfb_pid" 2>/dev/null || true
  fi
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill -TERM "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

rtmp_port=0
if [ -e /usr/lib/nginx/modules/ngx_rtmp_module.so ] && command -v nginx >/dev/null; then
  rtmp_port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
fi

echo "== starting nembra serve (data in $work/service)"
"$nembra" serve --port 0 --port-file "$work/port" --data "$work/service" \
  --rtmp-port "$rtmp_port" >"$work/serve.log" 2>&1 &
server_pid=$!
for _ in $(seq 1 100); do
  [ -s "$work/port" ] && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/serve.log" >&2; exit 1; }
  sleep 0.1
done
[ -s "$work/port" ] || { echo "demo: nembra serve did not start" >&2; cat "$work/serve.log" >&2; exit 1; }
port=$(cat "$work/port")
sed 's/^/   serve| /' "$work/serve.log"

# With no display the windows go to a virtual one, so every screen still runs and is read back.
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ] && command -v Xvfb >/dev/null; then
  for number in $(seq 90 139); do
    [ -e "/tmp/.X11-unix/X$number" ] || [ -e "/tmp/.X$number-lock" ] && continue
    Xvfb ":$number" -screen 0 1280x720x24 -nolisten tcp >/dev/null 2>&1 &
    xvfb_pid=$!
    for _ in $(seq 1 50); do
      [ -e "/tmp/.X11-unix/X$number" ] && break
      kill -0 "$xvfb_pid" 2>/dev/null || break
      sleep 0.1
    done
    if [ -e "/tmp/.X11-unix/X$number" ]; then
      export DISPLAY=":$number"
      echo "== no display set: the windows open on a virtual display (Xvfb $DISPLAY)"
      break
    fi
    xvfb_pid=""
  done
fi

export NEMBRA_HOME="$work/client"
server="http://127.0.0.1:$port"
rtmp_args=()
[ "$rtmp_port" != 0 ] && rtmp_args=(--rtmp-url "rtmp://127.0.0.1:$rtmp_port/record/_definst_")
echo "== nembra --server $server --token demo-app demo"
"$nembra" --server "$server" "${rtmp_args[@]}" --token demo-app demo
