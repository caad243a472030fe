#!/usr/bin/env bash
# Two pnx processes write the same N new keychain names at the same time, as an app and its
# extension would; prints how many of the 2*N writes failed. Every write should succeed.
#
#   scripts/keychain-race.sh [N] [PNX]      (default 120 names, build/debug/pnx)
set -uo pipefail
cd "$(dirname "$0")/.."
N=${1:-120}
PNX=${2:-build/debug/pnx}
device=$(mktemp -d)
failures=$(mktemp)
trap 'rm -rf "$device" "$failures"' EXIT
for writer in a b; do
  (
    for i in $(seq 1 "$N"); do
      "$PNX" --device "$device" --bundle examples/SampleApp keychain set "name-$i" "\"$writer\"" \
        >/dev/null 2>>"$failures"
    done
  ) &
done
wait
echo "failed writes: $(grep -c . "$failures") of $((2 * N))"
grep -m 1 . "$failures"
exit 0
