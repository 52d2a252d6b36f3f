#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build on a copy of its seed corpus until it has executed
# RUNS inputs (10^6 by default) or SECONDS have passed, whichever comes first, and ends on a table
# of executions, speed, coverage and corpus growth per target. Crashes are kept under
# BUILD_DIR/fuzz-work/ and make the script fail. A target that stopped on time short of RUNS is
# marked, so a slow one shows. Usage: scripts/run-fuzzers.sh BUILD_DIR SECONDS [RUNS]
set -euo pipefail

if [ $# -lt 2 ] || [ $# -gt 3 ]; then
  echo "usage: $0 BUILD_DIR SECONDS [RUNS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
seconds=$2
runs=${3:-1000000}
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

  echo "run-fuzzers: $name for $runs runs or ${seconds}s from $seeds seeds"
  status=0
  started=$(date +%s)
  "$target" "$corpus" -runs="$runs" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 \
    -rss_limit_mb=2048 -artifact_prefix="$artifacts/" >"$log" 2>&1 || status=$?

  inited=$(grep -m1 'INITED' "$log" || true)
  elapsed=$(($(date +%s) - started))
  last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  execs=$(awk '/stat::number_of_executed_units/ {print $2; exit}' "$log")
  per_second=$(awk '/stat::average_exec_per_sec/ {print $2; exit}' "$log")
  crashes=$(find "$artifacts" -type f | wc -l)
  files=$(find "$corpus" -type f | wc -l)
  reached=yes
  if [ -z "$execs" ] || [ "$execs" -lt "$runs" ]; then reached=no; fi
  line=$(printf '%-32s %12s %9s %6ss %5s %6s %6s %6s %6s %7s %7s' \
    "$name" "${execs:-?}" "${per_second:-?}" "$elapsed" "$reached" \
    "$(field cov "$inited")" "$(field cov "$last")" \
    "$(field ft "$inited")" "$(field ft "$last")" \
    "$seeds->$files" "$crashes")
  summary+=("$line")
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    failed=1
    echo "run-fuzzers: $name FAILED (exit $status); log: $log; artifacts: $artifacts" >&2
    grep -m5 -E 'ERROR|SUMMARY|deadly' "$log" >&2 || true
  fi
done

echo
echo "run-fuzzers: summary (each target up to $runs runs or ${seconds}s)"
printf '  %-32s %12s %9s %7s %5s %6s %6s %6s %6s %7s %7s\n' target executions exec/s time runs \
  cov0 cov ft0 ft corpus crashes
printf '  %s\n' "${summary[@]}"
exit $failed
