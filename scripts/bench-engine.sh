#!/usr/bin/env bash
# Builds the engine's benchmarks with the release preset and runs them; the
# figures belong in docs/performance.md.
#   scripts/bench-engine.sh [journal|decision|fanotify|reload]...   (default: all)
# The fanotify and reload benchmarks need root; it marks only a tmpfs it mounts in its
# own private mount namespace. Flags for one benchmark go through the
# environment: KX_JOURNAL_FLAGS, KX_DECISION_FLAGS, KX_FANOTIFY_FLAGS,
# KX_RELOAD_FLAGS
# (e.g. KX_JOURNAL_FLAGS="--seconds=10 --rows=1000000").
set -euo pipefail
cd "$(dirname "$0")/.."

which=("$@")
[ ${#which[@]} -eq 0 ] && which=(journal decision fanotify reload)
targets=()
for name in "${which[@]}"; do
  case "$name" in
    journal) targets+=(journal_writer_bench) ;;
    decision) targets+=(engine_decision_bench) ;;
    fanotify) targets+=(engine_fanotify_bench) ;;
    reload) targets+=(engine_reload_bench) ;;
    *) echo "bench-engine: unknown benchmark '$name' (journal, decision, fanotify, reload)" >&2; exit 2 ;;
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
    # shellcheck disable=SC2086
    reload) build/release/bench/engine_reload_bench ${KX_RELOAD_FLAGS:-} ;;
  esac
done
