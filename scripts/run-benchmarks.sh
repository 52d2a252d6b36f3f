#!/usr/bin/env bash
# Runs every benchmark binary of a build (BUILD_DIR/bench/*_bench) one after another, then the
# benchmark scripts listed below, and keeps each one's output under BUILD_DIR/bench-results/.
# Extra arguments go to every binary (e.g. --benchmark_filter=Chunk), not to the scripts.
# player_engine_bench plays a 60 s 1080p file twice (ffplay, then the engine) in windows on an
# Xvfb display it starts itself: about two minutes, and the file is kept in the temporary
# directory for the next run.
# Usage: scripts/run-benchmarks.sh BUILD_DIR [ARGS...]
set -euo pipefail

if [ $# -lt 1 ]; then
  echo "usage: $0 BUILD_DIR [benchmark args...]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
shift
results="$build_dir/bench-results"
mkdir -p "$results"

mapfile -t benches < <(find "$build_dir/bench" -maxdepth 1 -type f -name '*_bench' -perm -u+x | sort)
if [ ${#benches[@]} -eq 0 ]; then
  echo "run-benchmarks: no *_bench binaries in $build_dir/bench" >&2
  exit 1
fi

failed=0
for bench in "${benches[@]}"; do
  name=$(basename "$bench")
  echo "=== $name"
  if ! "$bench" "$@" 2>&1 | tee "$results/$name.txt"; then
    echo "run-benchmarks: $name FAILED" >&2
    failed=1
  fi
done

# Scripts that time the built tools against system ones; each takes the build directory.
scripts=(service_storage_bench.sh media_transfer_bench.sh)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
for script in "${scripts[@]}"; do
  name=${script%.sh}
  echo "=== $name"
  if ! "$source_dir/bench/$script" "$build_dir" 2>&1 | tee "$results/$name.txt"; then
    echo "run-benchmarks: $name FAILED" >&2
    failed=1
  fi
done
echo "run-benchmarks: outputs in $results"
exit $failed
