#!/usr/bin/env bash
# Builds the project with one CMake preset and runs its tests.
#   bash scripts/test.sh [debug|asan|tsan|fuzz|release]   (default: debug)
# The release preset has no tests: it is only built. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-debug}"
jobs="${PNX_JOBS:-2}"

bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$jobs"
if [[ "$preset" != release ]]; then
  ctest --preset "$preset"
fi
