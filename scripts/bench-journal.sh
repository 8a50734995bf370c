#!/usr/bin/env bash
# Builds the journal benchmark with the release preset and runs it: "log" and
# "loglist" on generated journals of 100,000 and 1,000,000 rows against the
# sqlite3 shell, with the ratios and peak memory printed at the end.
#   scripts/bench-journal.sh [benchmark flags...]
#     e.g. --journal_rows=100000 --benchmark_repetitions=3
# KX_BUILD_DIR=DIR builds in DIR (release settings) instead of the preset's
# build/release.
set -euo pipefail
cd "$(dirname "$0")/.."

command -v sqlite3 >/dev/null || { echo "bench-journal: sqlite3 (the shell) is missing; run scripts/install-deps.sh" >&2; exit 2; }

if [ -n "${KX_BUILD_DIR:-}" ]; then
  cmake -S . -B "$KX_BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$KX_BUILD_DIR" --target audit_journal_bench
  bench="$KX_BUILD_DIR/bench/audit_journal_bench"
else
  cmake --preset release >/dev/null
  cmake --build --preset release --target audit_journal_bench
  bench="build/release/bench/audit_journal_bench"
fi
exec "$bench" "$@"
