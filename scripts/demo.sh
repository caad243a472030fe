#!/usr/bin/env bash
# Builds pnx (release preset) and runs it on the sample bundle in examples/SampleApp with a
# fresh simulated device in build/demo-device. Each step's heading goes to stderr, pnx's
# JSON to stdout. Steps whose command this build does not have yet are skipped.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
{
  cmake --preset release
  cmake --build --preset release --target pnx --parallel "${PNX_JOBS:-2}"
} >&2

PNX=build/release/pnx
BUNDLE=examples/SampleApp
DEVICE=build/demo-device
rm -rf "$DEVICE"
mkdir -p "$DEVICE"

# Whether this pnx has the command: its --help succeeds only when it does.
has_command() {
  "$PNX" "$1" --help >/dev/null 2>&1
}

# step HEADING PNX-ARGUMENTS...: runs pnx on the sample bundle and the demo device.
step() {
  local heading="$1"
  shift
  if [[ "$1" != -* ]] && ! has_command "$1"; then
    printf '\n== %s: skipped, no "pnx %s" yet\n' "$heading" "$1" >&2
    return 0
  fi
  printf '\n== %s: pnx %s\n' "$heading" "$*" >&2
  "$PNX" --bundle "$BUNDLE" --device "$DEVICE" "$@"
}

# The demo, in order. Add a line here for each new command worth showing.
step "Library version" --version
step "Configuration, as the extension loads it" config
step "Provisioning profile" profile
step "The app side stores its identifiers" identity --user-id sample-user --channel-id sample-channel
step "Read back from the shared keychain" keychain get userId

# Delivery reporting against `pnx serve` on the port the sample configuration names.
SERVE_URL=http://127.0.0.1:8765
serve_demo() {
  "$PNX" --device "$DEVICE/serve" serve --port 8765 >"$DEVICE/serve.out" 2>&1 &
  SERVE_PID=$!
  trap 'kill "$SERVE_PID" 2>/dev/null || true' EXIT
  for _ in $(seq 200); do
    grep -q listening "$DEVICE/serve.out" 2>/dev/null && return 0
    sleep 0.05
  done
  echo "pnx serve did not start on port 8765" >&2
  return 1
}
if has_command serve && has_command _report && serve_demo; then
  step "A push is reported and accepted by pnx serve" _report --prefix demo --first 1 --count 1
  printf '\n== What pnx serve accepted: GET %s/_pnx/reports\n' "$SERVE_URL" >&2
  curl -s "$SERVE_URL/_pnx/reports"
  echo
  printf '\n== The server fails the next request (503)\n' >&2
  curl -s -X POST "$SERVE_URL/_pnx/faults" -d '["status=503,times=1"]'
  echo
  step "Another push: the report fails and stays queued" _report --prefix demo --first 2 --count 1
  step "The queue holds it" queue
  step "Resend, as the app would: the queue clears" resend
  step "The queue is empty" queue
fi

printf '\n== Demo finished; the simulated device is in %s\n' "$DEVICE" >&2
