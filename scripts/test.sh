#!/usr/bin/env bash
# Installs what is missing, builds and runs every test suite.
#   scripts/test.sh            the debug build
#   scripts/test.sh asan       the ASan + UBSan build
#   scripts/test.sh fuzz       the clang build, running the fuzz targets
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-debug}"

bash scripts/install-deps.sh
# install-deps.sh installed the browser: its tests must run, not skip.
export KX_REQUIRE_BROWSER="${KX_REQUIRE_BROWSER:-1}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" --output-on-failure --timeout 900
