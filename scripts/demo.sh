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

printf '\n== Demo finished; the simulated device is in %s\n' "$DEVICE" >&2
