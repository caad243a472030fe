#!/usr/bin/env bash
# Builds the HTML reference of the public API into build/docs/html with Doxygen, from the
# headers exactly as `cmake --install` installs them (the component "headers" of the
# debug preset's tree). Fails on any Doxygen warning.
set -euo pipefail
cd "$(dirname "$0")/.."

command -v doxygen >/dev/null || {
  echo "docs: doxygen is missing; scripts/install-deps.sh installs it" >&2
  exit 1
}

out=build/docs
rm -rf "$out"
mkdir -p "$out"
cmake --preset debug >/dev/null
cmake --install build/debug --component headers --prefix "$out/prefix" >/dev/null

version="$(sed -n 's/^project([A-Za-z]* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)"
PNX_DOCS_VERSION="$version" \
  PNX_DOCS_OUTPUT="$out" \
  PNX_DOCS_INPUT="$PWD/$out/prefix/include/QuorvexMobilePushNotification" \
  PNX_DOCS_INCLUDE="$PWD/$out/prefix/include" \
  PNX_DOCS_FILTER="$PWD/scripts/doxygen-filter.awk" \
  doxygen docs/Doxyfile
echo "docs: $out/html/index.html" >&2
