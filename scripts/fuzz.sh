#!/usr/bin/env bash
# Builds the libFuzzer targets (the "fuzz" preset: clang-14, ASan + UBSan)
# and runs each of them for a while.
#
#   scripts/fuzz.sh              60 s per target
#   scripts/fuzz.sh 600          600 s per target
#   scripts/fuzz.sh 600 rule_file import_json    only these targets
#
# Environment:
#   KX_FUZZ_BUILD   build directory (default build/fuzz, the preset's)
#   KX_FUZZ_OUT     where corpora, logs and findings go (default
#                   <build>/fuzz-runs); each target's corpus grows there
#                   across runs, the committed seeds in tests/fuzz/corpus/
#                   are only read
#   KX_FUZZ_NICE    nice level of the fuzzers (default 10)
#
# Prints one line per target: runs, coverage, features, corpus size, time.
# Exits non-zero when a target found a crash, a leak, a sanitizer report or
# a violated property (the input is kept in <out>/<target>/findings/).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
build="${KX_FUZZ_BUILD:-build/fuzz}"
out="${KX_FUZZ_OUT:-$build/fuzz-runs}"
nice_level="${KX_FUZZ_NICE:-10}"
all_targets=(request_xml request_structured rule_file whitelist_file
             exceptions_file policies_xml import_json whitelist_server
             document_depth)
targets=("${@:-${all_targets[@]}}")
if [ $# -eq 0 ]; then targets=("${all_targets[@]}"); fi

if [ "$build" = build/fuzz ]; then
  cmake --preset fuzz >/dev/null
else
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER=clang++-14 -DKX_SANITIZE=ON -DKX_BUILD_FUZZERS=ON \
    -DKX_BUILD_BENCH=OFF >/dev/null
fi
ninja -C "$build" $(printf 'fuzz_%s ' "${targets[@]}")

# Smaller allocation stacks and quarantine than the defaults: the same
# checks, fewer cycles per allocation of the Boost trees.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:malloc_context_size=10:quarantine_size_mb=64}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

status=0
total_runs=0
for target in "${targets[@]}"; do
  dir="$out/$target"
  mkdir -p "$dir/corpus" "$dir/findings"
  log="$dir/last.log"
  started=$(date +%s)
  set +e
  nice -n "$nice_level" "$build/tests/fuzz/fuzz_$target" \
    -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$dir/findings/" \
    "$dir/corpus" "tests/fuzz/corpus/$target" >"$log" 2>&1
  code=$?
  set -e
  elapsed=$(( $(date +%s) - started ))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  line=$(grep -E '^#[0-9]+[[:space:]]+(DONE|pulse|NEW|REDUCE|INITED)' "$log" | tail -1 || true)
  cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$line")
  ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$line")
  corp=$(sed -n 's/.* corp: \([0-9]*\/[0-9A-Za-z]*\).*/\1/p' <<<"$line")
  printf '%-20s runs %-10s cov %-6s ft %-6s corpus %-12s %5ss exit %s\n' \
    "$target" "${runs:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "$elapsed" "$code"
  total_runs=$(( total_runs + ${runs:-0} ))
  if [ "$code" -ne 0 ]; then
    status=1
    echo "  finding: see $log and $dir/findings/" >&2
  fi
done
echo "total runs: $total_runs"
exit "$status"
