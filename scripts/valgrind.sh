#!/usr/bin/env bash
# Runs every test executable, and kxhost over the fuzzers' seed requests and
# policy documents, under valgrind memcheck.
#
#   scripts/valgrind.sh                 the debug preset's build (build/debug)
#   scripts/valgrind.sh BUILD_DIR       another build without sanitizers
#   KX_VALGRIND_ONLY="rules journal"    only these test areas (and no kxhost
#                                       runs unless "kxhost" is named)
#
# Each executable runs with --error-exitcode=1 --leak-check=full: any invalid
# read or write, use of an uninitialised value, bad free or definite or
# indirect leak fails it. Possibly-lost and still-reachable blocks are not
# errors: they are memory a process still points at when it exits (the
# host's leaked-on-purpose singletons, Boost.Log's core, gtest's registry),
# not leaks. Suppressions are only for third-party noise, each justified in
# scripts/valgrind.supp.
#
# The test processes' own children are traced too (the whitelist suite
# re-executes itself under nss_wrapper), except the programs the tests start
# as black boxes: kxhost, the fake and reference agent tools, the shell and
# system programs. kxhost is checked on its own below.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/debug}"
only="${KX_VALGRIND_ONLY:-}"

if [ "$build" = build/debug ]; then
  cmake --preset debug >/dev/null
  cmake --build --preset debug
fi

supp="$PWD/scripts/valgrind.supp"
memcheck=(valgrind --tool=memcheck --error-exitcode=1 --leak-check=full
          --show-leak-kinds=definite,indirect
          --errors-for-leak-kinds=definite,indirect
          --track-origins=yes --num-callers=40 --suppressions="$supp"
          --trace-children=yes --child-silent-after-fork=yes
          "--trace-children-skip=*/kxhost,*/kxfake,*/kxaecctl,*/kxaide,*/kxfuzz_tool,/bin/*,/usr/*,/sbin/*")
logs="$build/valgrind"
mkdir -p "$logs"

wanted() {
  [ -z "$only" ] && return 0
  for item in $only; do [ "$item" = "$1" ] && return 0; done
  return 1
}

failed=()
started_all=$(date +%s)
for exe in $(find "$build/tests" -maxdepth 2 -type f -name '*_tests' -perm -u+x | sort); do
  area=$(basename "$exe" _tests)
  wanted "$area" || continue
  started=$(date +%s)
  set +e
  # The suites find the build through these, as under ctest.
  KX_BUILD_DIR="$PWD/$build" KX_SOURCE_DIR="$PWD" \
    "${memcheck[@]}" --log-file="$logs/$area.%p.log" "$exe" >"$logs/$area.out" 2>&1
  code=$?
  set -e
  printf '%-14s exit %-3s %5ss\n' "$area" "$code" "$(( $(date +%s) - started ))"
  [ "$code" -eq 0 ] || failed+=("$area")
done

# kxhost itself, over every request and policy document of the fuzzers'
# seed corpora, in a scratch root with fake tools.
if wanted kxhost; then
  root=$(mktemp -d /tmp/kxvalgrind-XXXXXX)
  trap 'rm -rf "$root"' EXIT
  mkdir -p "$root/bin"
  cp "$build/tests/kxfake" "$root/bin/kxaecctl"
  cp "$build/tests/kxfake" "$root/bin/kxaide"
  kxhost="$build/host/kxhost"
  plugin="$build/services/src/plugins/libaec.so"
  started=$(date +%s)
  count=0
  code=0
  for kind in request_xml:exec policies_xml:set-policies import_json:import-policies; do
    corpus="tests/fuzz/corpus/${kind%%:*}"
    step="${kind##*:}"
    for input in "$corpus"/*; do
      count=$((count + 1))
      set +e
      "${memcheck[@]}" --log-file="$logs/kxhost.$count.log" \
        "$kxhost" --root "$root" --plugin "$plugin" "$step" "$input" \
        >"$logs/kxhost.$count.out" 2>&1
      status=$?
      set -e
      # kxhost's own exit codes (1-3) are answers, not memory errors; the
      # log says whether memcheck found something.
      if grep -q 'ERROR SUMMARY: [1-9]' "$logs/kxhost.$count.log"; then
        echo "  memcheck errors: $input (see $logs/kxhost.$count.log)" >&2
        code=1
      fi
      [ "$status" -lt 128 ] || { echo "  crashed: $input" >&2; code=1; }
    done
  done
  printf '%-14s exit %-3s %5ss (%d runs)\n' kxhost "$code" "$(( $(date +%s) - started ))" "$count"
  [ "$code" -eq 0 ] || failed+=(kxhost)
fi

echo "total: $(( $(date +%s) - started_all ))s"
if [ ${#failed[@]} -ne 0 ]; then
  echo "valgrind found errors in: ${failed[*]} (logs in $logs)" >&2
  exit 1
fi
echo "valgrind: no errors"
