#!/usr/bin/env bash
# Soak test of delivery reporting: no delivery record may be lost, whatever the server does
# and however the sending processes die.
#
#   bash scripts/soak-delivery.sh [--short] [--mode faults|kill|both] [--pnx PATH]
#
# faults: PUSHES pushes (1,000; --short: 48), each with a unique attribution, from 4
#   concurrent processes against `pnx serve` while its faults change at random (500, 429
#   with a short Retry-After, dropped connections, delays); then resends until the queue is
#   empty.
# kill: KILLS processes (200; --short: 20), 4 at a time, each pushing 5 records, killed
#   with SIGKILL at a random moment; then resends until the queue is empty, and SQLite's
#   integrity check of keychain.db.
#
# Each mode prints one line of JSON: pushed (records whose push had stored them in the
# keychain), accepted (distinct records the server accepted), lost (pushed but never
# accepted: must be 0), duplicated (records the server accepted more than once; at-least-
# once delivery allows it), and the seconds it took. Exit 1 when a record was lost, the
# queue did not empty, or the integrity check failed.
#
# Pushes go through `pnx _report`, a hidden driver that calls
# PNXPushDeliveryMananger::sendPushDelivery for each push and waits for its outcome.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=both
short=0
PNX=""
while (($#)); do
  case "$1" in
    --short) short=1 ;;
    --mode) mode="$2"; shift ;;
    --pnx) PNX="$2"; shift ;;
    *) echo "usage: $0 [--short] [--mode faults|kill|both] [--pnx PATH]" >&2; exit 2 ;;
  esac
  shift
done

if [[ -z "$PNX" ]]; then
  PNX=build/release/pnx
  if [[ ! -x "$PNX" ]]; then
    { cmake --preset release && cmake --build --preset release --target pnx --parallel "${PNX_JOBS:-2}"; } >&2
  fi
fi

if ((short)); then PUSHES=48; KILLS=20; else PUSHES=1000; KILLS=200; fi
LANES=4

WORK="$(mktemp -d "${TMPDIR:-/tmp}/pnx-soak-XXXXXX")"
SERVE_PID=""
cleanup() {
  local status=$?
  [[ -n "$SERVE_PID" ]] && kill "$SERVE_PID" 2>/dev/null && wait "$SERVE_PID" 2>/dev/null
  if ((status == 0)); then rm -rf "$WORK"; else echo "soak: kept $WORK for inspection" >&2; fi
}
trap cleanup EXIT

# A fresh device, the sample bundle pointed at a fresh `pnx serve`.
start() {
  local name="$1"
  ROOT="$WORK/$name"
  mkdir -p "$ROOT"
  cp -R examples/SampleApp "$ROOT/bundle"
  "$PNX" --device "$ROOT/serve-device" serve --port 0 >"$ROOT/serve.out" 2>"$ROOT/serve.err" &
  SERVE_PID=$!
  local url=""
  for _ in $(seq 500); do
    url="$(head -n 1 "$ROOT/serve.out" | sed -n 's/.*"listening": *"\([^"]*\)".*/\1/p')"
    [[ -n "$url" ]] && break
    sleep 0.01
  done
  [[ -n "$url" ]] || { echo "soak: pnx serve did not start" >&2; return 1; }
  URL="$url"
  sed -i "s#http://127.0.0.1:[0-9]*#$URL#" "$ROOT/bundle/PnxConfig.json"
  export PNX_DEVICE="$ROOT/device" PNX_BUNDLE="$ROOT/bundle"
  "$PNX" identity --user-id soak-user --channel-id soak-channel >/dev/null
}

stop_serve() {
  kill "$SERVE_PID" 2>/dev/null || true
  wait "$SERVE_PID" 2>/dev/null || true
  SERVE_PID=""
}

set_faults() {
  curl -s -o /dev/null -X POST "$URL/_pnx/faults" -H 'Content-Type: application/json' -d "$1"
}

# Changes the server's faults at random until the file $1 exists.
chaos() {
  local faults=(
    '[]' '[]'
    '["status=500,times=3"]'
    '["status=503,delay=0.2,times=2"]'
    '["status=429,retry-after=1,times=1"]'
    '["drop,times=2"]'
    '["delay=0.3,times=3"]'
  )
  while [[ ! -e "$1" ]]; do
    set_faults "${faults[RANDOM % ${#faults[@]}]}"
    sleep "0.$((RANDOM % 4 + 1))"
  done
}

# Resends until both the queue and the in-flight records are empty, waiting out back-off.
drain() {
  set_faults '[]'
  local queue
  for _ in $(seq 60); do
    queue="$("$PNX" queue)"
    if [[ "$queue" == *'"inFlight":[]'* && "$queue" == *'"pushQueue":[]'* ]]; then return 0; fi
    "$PNX" resend >/dev/null 2>&1 || true
    queue="$("$PNX" queue)"
    [[ "$queue" == *'"retryAfter":null'* ]] || sleep 0.5
  done
  echo "soak: the queue did not empty: $queue" >&2
  return 1
}

# Prints the tally line; fails when a record was lost.
tally() {
  local mode="$1" seconds="$2" integrity="${3:-}"
  curl -s "$URL/_pnx/reports" >"$ROOT/reports.json"
  cat "$ROOT"/lane-*.out 2>/dev/null | grep -h '"stored"' >"$ROOT/stored.txt" || true
  python3 - "$mode" "$seconds" "$integrity" "$ROOT/stored.txt" "$ROOT/reports.json" <<'EOF'
import collections, json, sys
mode, seconds, integrity, stored_path, reports_path = sys.argv[1:]
pushed = {json.loads(line)["stored"] for line in open(stored_path) if line.strip()}
counts = collections.Counter()
for report in json.load(open(reports_path)):
    for record in report["records"]:
        counts[record.get("attribution")] += 1
accepted = set(counts)
lost = sorted(pushed - accepted)
result = {"mode": mode, "pushed": len(pushed), "accepted": len(accepted), "lost": len(lost),
          "duplicated": sum(1 for n in counts.values() if n > 1), "seconds": int(seconds)}
if integrity:
    result["integrity"] = integrity
print(json.dumps(result))
if lost:
    print("soak: lost " + ", ".join(lost[:20]), file=sys.stderr)
sys.exit(1 if lost or (integrity and integrity != "ok") else 0)
EOF
}

soak_faults() {
  start faults
  local began=$SECONDS per=$((PUSHES / LANES)) lane pids=()
  chaos "$ROOT/done" &
  local chaos_pid=$!
  for lane in $(seq 0 $((LANES - 1))); do
    "$PNX" _report --prefix "f$lane" --count "$per" >"$ROOT/lane-$lane.out" 2>>"$ROOT/lanes.err" &
    pids+=($!)
  done
  local failed=0
  for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
  touch "$ROOT/done"
  wait "$chaos_pid"
  ((failed == 0)) || { echo "soak: a pushing process failed" >&2; return 1; }
  drain
  tally faults $((SECONDS - began))
  stop_serve
}

# One lane of the kill mode: $2 processes, each killed at a random moment.
kill_lane() {
  local lane="$1" rounds="$2" round pid
  for round in $(seq 0 $((rounds - 1))); do
    "$PNX" _report --prefix "k$lane-$round" --count 5 >>"$ROOT/lane-$lane.out" 2>/dev/null &
    pid=$!
    sleep "0.$(printf '%03d' $((RANDOM % 150)))"
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
}

soak_kill() {
  start kill
  local began=$SECONDS lane pids=()
  chaos "$ROOT/done" &
  local chaos_pid=$!
  for lane in $(seq 0 $((LANES - 1))); do
    kill_lane "$lane" $((KILLS / LANES)) &
    pids+=($!)
  done
  for pid in "${pids[@]}"; do wait "$pid"; done
  touch "$ROOT/done"
  wait "$chaos_pid"
  drain
  local integrity
  integrity="$(sqlite3 "$ROOT/device/keychain.db" 'PRAGMA integrity_check;')"
  tally kill $((SECONDS - began)) "$integrity"
  stop_serve
}

case "$mode" in
  faults) soak_faults ;;
  kill) soak_kill ;;
  both) soak_faults && soak_kill ;;
  *) echo "soak: unknown mode $mode" >&2; exit 2 ;;
esac
