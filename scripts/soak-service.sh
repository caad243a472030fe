#!/usr/bin/env bash
# Soak test of the notification service the way a device sees it: `pnx deliver` started at a
# steady rate (default 10 a second for 60 seconds), each push with an image, a sound or a
# movie and delivery reporting on, against one `pnx serve` that serves the media and takes
# the reports. Every media file has its own name, so notifications in flight at the same
# time never meet in the temporary directory.
#
# It fails unless every notification was handed back within its time budget with its
# attachment, every displayed attachment was moved out of the temporary directory into the
# device's notification store (and the temporary directory is empty at the end), every
# report reached the server, and memory stayed flat: the peak memory of the last tenth of
# the deliveries is within 10% (+1 MB) of the first tenth, and the server's memory at the end is
# within as much of what it had after the first tenth (its start-up and warm-up excluded).
#
#   scripts/soak-service.sh [--seconds N] [--rate R] [--budget S] [--pnx PATH]
#
# CI runs it for a few seconds (--seconds 3). Builds the release pnx when --pnx is not given.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_TO_RUN=60
RATE=10
BUDGET=10
PNX=""
while (($#)); do
  case "$1" in
    --seconds) SECONDS_TO_RUN="$2"; shift 2 ;;
    --rate) RATE="$2"; shift 2 ;;
    --budget) BUDGET="$2"; shift 2 ;;
    --pnx) PNX="$2"; shift 2 ;;
    *) echo "usage: $0 [--seconds N] [--rate R] [--budget S] [--pnx PATH]" >&2; exit 2 ;;
  esac
done
if [[ -z "$PNX" ]]; then
  export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
  {
    cmake --preset release
    cmake --build --preset release --target pnx --parallel "${PNX_JOBS:-2}"
  } >&2
  PNX=build/release/pnx
fi
PNX="$(realpath "$PNX")"

WORK="$(mktemp -d "${TMPDIR:-/tmp}/pnx-soak.XXXXXX")"
# The server the driver started, should the driver end early.
cleanup() {
  if [[ -s "$WORK/serve.pid" ]]; then kill "$(cat "$WORK/serve.pid")" 2>/dev/null || true; fi
  rm -rf "$WORK"
}
trap cleanup EXIT

python3 - "$PNX" "$WORK" "$SECONDS_TO_RUN" "$RATE" "$BUDGET" "$PWD" <<'PYTHON'
import json, os, re, shutil, subprocess, sys, time

pnx, work, seconds, rate, budget, source = sys.argv[1:7]
seconds, rate, budget = float(seconds), float(rate), float(budget)
count = max(1, int(seconds * rate))

def rss_kb(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0

# Media: one file per notification, from the sample files.
media = os.path.join(work, "media")
os.makedirs(media)
kinds = [("png", "public.png"), ("mp3", "public.mp3"), ("mp4", "public.mpeg-4")]
for i in range(count):
    extension = kinds[i % len(kinds)][0]
    shutil.copy(os.path.join(source, "examples/media/sample." + extension),
                os.path.join(media, f"soak-{i:05d}.{extension}"))

serve_out = open(os.path.join(work, "serve.out"), "w+")
serve = subprocess.Popen([pnx, "--device", os.path.join(work, "serve-device"), "serve",
                          "--port", "0", "--media", media], stdout=serve_out,
                         stderr=subprocess.DEVNULL)
with open(os.path.join(work, "serve.pid"), "w") as pid_file:
    pid_file.write(str(serve.pid))
url = None
for _ in range(500):
    serve_out.seek(0)
    match = re.search(r"http://127\.0\.0\.1:\d+", serve_out.read())
    if match:
        url = match.group(0)
        break
    time.sleep(0.01)
if not url:
    sys.exit("soak: pnx serve did not start")

bundle = os.path.join(work, "bundle")
shutil.copytree(os.path.join(source, "examples/SampleApp"), bundle)
config_path = os.path.join(bundle, "PnxConfig.json")
with open(config_path) as f:
    config = re.sub(r"http://127\.0\.0\.1:\d+", url, f.read())
with open(config_path, "w") as f:
    f.write(config)
device = os.path.join(work, "device")
base = [pnx, "--device", device, "--bundle", bundle]
subprocess.run(base + ["identity", "--user-id", "soak-user", "--channel-id", "soak-channel"],
               check=True, stdout=subprocess.DEVNULL)
serve_rss_start = rss_kb(serve.pid)

def payload(i):
    extension = kinds[i % len(kinds)][0]
    return json.dumps({
        "aps": {"alert": {"title": f"Soak {i}", "body": "with media"}, "mutable-content": 1},
        "category-name": "soak",
        "category-actions": [{"name": "Open", "type": "openApp"}, {"name": "Later"}],
        "media-attachment": f"{url}/media/soak-{i:05d}.{extension}",
        "pnx": {"attribution": f"soak-{i}", "mailingId": i},
    })

running = {}
results = []
start = time.monotonic()

def reap(block):
    while running:
        pid, status, usage = os.wait4(-1, 0 if block else os.WNOHANG)
        if pid == 0:
            return
        i, begun, process = running.pop(pid)
        out = process.stdout.read()
        process.stdout.close()
        results.append((i, time.monotonic() - begun, os.waitstatus_to_exitcode(status),
                        usage.ru_maxrss, out))
        if not block:
            continue
        return

serve_rss_warm = serve_rss_start
for i in range(count):
    if i == count // 10:
        # The server's threads and buffers are warm by now; growth after this is a leak
        # (or the reports it keeps for /_pnx/reports, about 150 bytes each).
        serve_rss_warm = rss_kb(serve.pid)
    due = start + i / rate
    while time.monotonic() < due:
        reap(False)
        time.sleep(min(0.005, max(0, due - time.monotonic())))
    process = subprocess.Popen(base + ["deliver", "-", "--id", f"soak-{i}",
                                       "--time-budget", str(budget)],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL)
    process.stdin.write(payload(i).encode())
    process.stdin.close()
    running[process.pid] = (i, time.monotonic(), process)
while running:
    reap(True)
elapsed = time.monotonic() - start

failures = []
store = os.path.join(device, "notifications", "com.example.sampleapp", "attachments")
slowest = 0
for i, wall, code, peak, out in sorted(results):
    slowest = max(slowest, wall)
    if code != 0:
        failures.append(f"notification {i}: exit {code}")
        continue
    result = json.loads(out)
    hand_backs = result["handBacks"]
    expected_type = kinds[i % len(kinds)][1]
    if result["expired"] or not hand_backs:
        failures.append(f"notification {i}: not handed back within {budget}s")
    elif [a["type"] for a in hand_backs[0]["attachments"]] != [expected_type]:
        failures.append(f"notification {i}: first hand-back without its {expected_type}")
    shown = result["displayed"]["attachments"]
    if len(shown) != 1 or not shown[0]["url"].startswith("file://" + store + "/"):
        failures.append(f"notification {i}: attachment not moved into the store: {shown}")
    elif not os.path.exists(shown[0]["url"][len("file://"):].replace("%20", " ")):
        failures.append(f"notification {i}: stored attachment missing")
    if wall > budget:
        failures.append(f"notification {i}: took {wall:.2f}s, budget {budget}s")

tmp = os.path.join(device, "containers", "com.example.sampleapp", "tmp")
left = os.listdir(tmp) if os.path.isdir(tmp) else []
if left:
    failures.append(f"temporary directory not empty: {sorted(left)[:5]}")

queue = json.loads(subprocess.run(base + ["queue"], check=True, capture_output=True).stdout)
if queue["pushQueue"] or queue["inFlight"]:
    failures.append(f"delivery queue not empty: {len(queue['pushQueue'])} queued, "
                    f"{len(queue['inFlight'])} in flight")
import urllib.request
with urllib.request.urlopen(url + "/_pnx/reports") as answer:
    reports = json.loads(answer.read())
reported = set()
for report in reports:
    for record in report.get("records", []):
        reported.add(record.get("attribution"))
missing = [i for i in range(count) if f"soak-{i}" not in reported]
if missing:
    failures.append(f"{len(missing)} delivery reports never reached the server, e.g. {missing[:5]}")

peaks = [peak for _, _, _, peak, _ in sorted(results)]
tenth = max(1, len(peaks) // 10)
first, last = sum(peaks[:tenth]) / tenth, sum(peaks[-tenth:]) / tenth
if last > first * 1.1 + 1024:
    failures.append(f"deliver memory grew: {first / 1024:.1f} MB -> {last / 1024:.1f} MB")
serve_rss_end = rss_kb(serve.pid)
# Only judged on runs long enough for growth to show over the server's start-up.
if count >= 100 and serve_rss_end > serve_rss_warm * 1.1 + 1024:
    failures.append(f"server memory grew after warm-up: {serve_rss_warm / 1024:.1f} MB -> "
                    f"{serve_rss_end / 1024:.1f} MB")

walls = sorted(wall for _, wall, _, _, _ in results)
print(f"soak: {count} notifications in {elapsed:.1f}s ({count / elapsed:.1f}/s), budget {budget}s")
print(f"soak: deliver wall time median {walls[len(walls) // 2] * 1000:.0f} ms, "
      f"slowest {slowest * 1000:.0f} ms")
print(f"soak: deliver peak memory first tenth {first / 1024:.1f} MB, last tenth "
      f"{last / 1024:.1f} MB, max {max(peaks) / 1024:.1f} MB")
print(f"soak: server memory {serve_rss_start / 1024:.1f} MB at start, "
      f"{serve_rss_warm / 1024:.1f} MB after the first tenth, {serve_rss_end / 1024:.1f} MB at the end")
print(f"soak: reports received for {count - len(missing)} of {count}; "
      f"{len(os.listdir(store)) if os.path.isdir(store) else 0} attachments in the store")
serve.terminate()
serve.wait()
if failures:
    for failure in failures[:20]:
        print("soak: FAIL " + failure, file=sys.stderr)
    sys.exit(1)
print("soak: passed")
PYTHON
