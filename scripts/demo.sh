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

# The whole road of a push: pnx serve plays the backend (delivery reports and media), a copy
# of the sample bundle points the kit at it, and pnx deliver runs the extension on a payload
# with action buttons and an image.
if has_command serve && has_command deliver; then
  SERVE_OUT="$DEVICE/serve.out"
  "$PNX" --device "$DEVICE/serve-device" serve --port 0 --media examples/media >"$SERVE_OUT" 2>/dev/null &
  SERVE_PID=$!
  trap 'kill "$SERVE_PID" 2>/dev/null || true' EXIT
  for _ in $(seq 100); do grep -q listening "$SERVE_OUT" 2>/dev/null && break; sleep 0.05; done
  SERVER="$(head -n 1 "$SERVE_OUT" | sed -E 's/.*"(http[^"]*)".*/\1/')"
  printf '\n== pnx serve listens on %s\n' "$SERVER" >&2
  DEMO_BUNDLE="$DEVICE/SampleApp"
  cp -R "$BUNDLE" "$DEMO_BUNDLE"
  sed -i -E "s#http://127\.0\.0\.1:[0-9]+#$SERVER#" "$DEMO_BUNDLE/PnxConfig.json"
  sed -E "s#http://127\.0\.0\.1:[0-9]+#$SERVER#" examples/payloads/image.json >"$DEVICE/image.json"
  BUNDLE="$DEMO_BUNDLE"
  step "A push with actions and an image, the whole road (delivery reporting on)" \
    deliver "$DEVICE/image.json" --id demo-1
  step "The category it registered" categories
  step "The delivery queue: empty, the report was accepted" queue
  printf '\n== What pnx serve saw\n' >&2
  tail -n +2 "$SERVE_OUT"
  printf '\n== The server fails the next delivery report (503): POST %s/_pnx/faults\n' "$SERVER" >&2
  curl -s -X POST "$SERVER/_pnx/faults" -d '["status=503,times=1"]'
  echo
  sed -E "s#http://127\.0\.0\.1:[0-9]+#$SERVER#" examples/payloads/plain.json >"$DEVICE/plain.json" 2>/dev/null ||
    cp "$DEVICE/image.json" "$DEVICE/plain.json"
  step "Another push: its report fails and stays queued" deliver "$DEVICE/plain.json" --id demo-2
  step "The queue holds it" queue
  step "Resend, as the app would: the queue clears" resend
  step "The queue is empty" queue
fi

printf '\n== Demo finished; the simulated device is in %s\n' "$DEVICE" >&2
