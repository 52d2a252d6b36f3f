#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for SECONDS each, on a copy of its seed corpus, and
# reports executions, coverage and corpus growth. Crashes are kept under BUILD_DIR/fuzz-work/ and
# make the script fail. Usage: scripts/run-fuzzers.sh BUILD_DIR SECONDS
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
seconds=$2
source_dir=$(cd "$(dirname "$0")/.." && pwd)
work_dir="$build_dir/fuzz-work"

mapfile -t targets < <(find "$build_dir/fuzz" -maxdepth 1 -type f -name '*_fuzzer' -perm -u+x | sort)
if [ ${#targets[@]} -eq 0 ]; then
  echo "run-fuzzers: no *_fuzzer binaries in $build_dir/fuzz (configure with -DNEMBRA_FUZZ=ON)" >&2
  exit 1
fi

# Field |name| (e.g. cov, ft, corp) from a libFuzzer status line.
field() { grep -o "$1: [0-9]*" <<<"$2" | head -1 | awk '{print $2}'; }

failed=0
summary=()
for target in "${targets[@]}"; do
  name=$(basename "$target")
  corpus="$work_dir/$name/corpus"
  artifacts="$work_dir/$name/artifacts"
  log="$work_dir/$name/fuzz.log"
  rm -rf "$work_dir/$name"
  mkdir -p "$corpus" "$artifacts"
  seeds=0
  if [ -d "$source_dir/fuzz/corpus/$name" ]; then
    cp -r "$source_dir/fuzz/corpus/$name/." "$corpus/"
    seeds=$(find "$corpus" -type f | wc -l)
  fi

  echo "run-fuzzers: $name for ${seconds}s from $seeds seeds"
  status=0
  "$target" "$corpus" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 \
    -rss_limit_mb=2048 -artifact_prefix="$artifacts/" >"$log" 2>&1 || status=$?

  inited=$(grep -m1 'INITED' "$log" || true)
  last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  execs=$(awk '/stat::number_of_executed_units/ {print $2; exit}' "$log")
  per_second=$(awk '/stat::average_exec_per_sec/ {print $2; exit}' "$log")
  crashes=$(find "$artifacts" -type f | wc -l)
  files=$(find "$corpus" -type f | wc -l)
  line=$(printf '%-26s execs %-10s (%s/s)  cov %s -> %s  features %s -> %s  corpus %s -> %s files  crashes %s' \
    "$name" "${execs:-?}" "${per_second:-?}" \
    "$(field cov "$inited")" "$(field cov "$last")" \
    "$(field ft "$inited")" "$(field ft "$last")" \
    "$seeds" "$files" "$crashes")
  summary+=("$line")
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    failed=1
    echo "run-fuzzers: $name FAILED (exit $status); log: $log; artifacts: $artifacts" >&2
    grep -m5 -E 'ERROR|SUMMARY|deadly' "$log" >&2 || true
  fi
done

echo
echo "run-fuzzers: summary (${seconds}s per target)"
printf '  %s\n' "${summary[@]}"
exit $failed
