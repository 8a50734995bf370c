#!/usr/bin/env bash
# Builds the release preset's programs and libraries and packs them into the
# Debian package korvex-aec (docs/package.md). Prints the .deb's path last.
#   scripts/package.sh
# KX_BUILD_DIR=DIR builds in DIR (release settings) instead of the preset's
# build/release. The package lands in <build dir>/package/; standard output
# holds nothing but its path.
set -euo pipefail
cd "$(dirname "$0")/.."

for tool in cpack dpkg-deb; do
  command -v "$tool" >/dev/null || { echo "package: $tool is missing; run scripts/install-deps.sh" >&2; exit 2; }
done

# cpack packs what is built and compiles nothing itself: build everything
# the package installs (the catalogue template only exists with xgettext).
targets=(aec kxhost kxhost_program kxaide kxaecctl kxserv kxctl)
command -v xgettext >/dev/null && targets+=(pot)

if [ -n "${KX_BUILD_DIR:-}" ]; then
  build="$KX_BUILD_DIR"
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target "${targets[@]}" >&2
else
  build=build/release
  cmake --preset release >/dev/null
  cmake --build --preset release --target "${targets[@]}" >&2
fi
build=$(cd "$build" && pwd)

out="$build/package"
rm -f "$out"/*.deb
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$out" >&2
deb=$(ls "$out"/*.deb)
dpkg-deb --info "$deb" >&2
echo "$deb"
