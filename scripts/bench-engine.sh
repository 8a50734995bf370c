#!/usr/bin/env bash
# Builds the engine's benchmarks with the release preset and runs them; the
# figures belong in docs/performance.md.
#   scripts/bench-engine.sh [journal|decision|fanotify]...   (default: all)
# The fanotify benchmark needs root; it marks only a tmpfs it mounts in its
# own private mount namespace. Flags for one benchmark go through the
# environment: KX_JOURNAL_FLAGS, KX_DECISION_FLAGS, KX_FANOTIFY_FLAGS
# (e.g. KX_JOURNAL_FLAGS="--seconds=10 --rows=1000000").
set -euo pipefail
cd "$(dirname "$0")/.."

which=("$@")
[ ${#which[@]} -eq 0 ] && which=(journal decision fanotify)
targets=()
for name in "${which[@]}"; do
  case "$name" in
    journal) targets+=(journal_writer_bench) ;;
    decision) targets+=(engine_decision_bench) ;;
    fanotify) targets+=(engine_fanotify_bench) ;;
    *) echo "bench-engine: unknown benchmark '$name' (journal, decision, fanotify)" >&2; exit 2 ;;
  esac
done

cmake --preset release >/dev/null
cmake --build --preset release --target "${targets[@]}"
for name in "${which[@]}"; do
  echo "== $name =="
  case "$name" in
    # shellcheck disable=SC2086
    journal) build/release/bench/journal_writer_bench ${KX_JOURNAL_FLAGS:-} ;;
    # shellcheck disable=SC2086
    decision) build/release/bench/engine_decision_bench ${KX_DECISION_FLAGS:-} ;;
    # shellcheck disable=SC2086
    fanotify) build/release/bench/engine_fanotify_bench ${KX_FANOTIFY_FLAGS:-} ;;
  esac
done
