#!/usr/bin/env bash
# Long runs (minutes to an hour, so not part of scripts/test.sh): the engine's lifecycle
# cycles and long recordings (ctest label "long"), and a replay of 50,000 frames through the
# engine and the stabilization library with the replay tool's resident memory sampled every
# 10 s. Figures go to stdout and to $out; docs/reliability.md lists the last ones.
# Usage: scripts/long_runs.sh [OUT_DIR]   (default: long-runs/)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
out=${1:-long-runs}
mkdir -p "$out"

cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target engine_long_tests qlmr_replay

echo "== engine lifecycle and long recording (ctest -L long)" >&2
nice -n 19 ctest --test-dir build/default -L long --output-on-failure -V |
  grep -E '\[long-run\]|tests passed|Failed|Passed' | tee "$out/engine_long_tests.txt"

echo "== replay of 50,400 frames (160x96, 90 fps for 560 s, offline pacing)" >&2
# The tool's measures after the session (pixel motion of every frame) take far longer than the
# session at this length, so the run ends once the engine session is over (its threads gone)
# and the figures come from the video written and the engine's log.
nice -n 19 build/default/bin/qlmr_replay --size 160x96 --fps 90 --readout-ms 8 --seconds 560 \
  --scene procedural --no-mp4 -q --pairs 1 --out "$out/replay" &
pid=$!
echo "elapsed_s,rss_kib,threads,fds" >"$out/replay_rss.csv"
start=$(date +%s)
session=0
while kill -0 "$pid" 2>/dev/null; do
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null || true)
  threads=$(ls "/proc/$pid/task" 2>/dev/null | wc -l)
  fds=$(ls "/proc/$pid/fd" 2>/dev/null | wc -l)
  [[ -n "$rss" ]] && echo "$(($(date +%s) - start)),$rss,$threads,$fds" >>"$out/replay_rss.csv"
  if ((threads > 8)); then
    session=1
  elif ((session)); then
    kill "$pid"
    break
  fi
  sleep 5
done
wait "$pid" 2>/dev/null || true
python3 - "$out" <<'PY'
import csv, os, sys
out = sys.argv[1]
video = f"{out}/replay/stabilized.y4m"
with open(video, "rb") as f:
    header = len(f.readline())
frames_out = (os.path.getsize(video) - header) / (160 * 96 * 3 // 2 + len(b"FRAME\n"))
log = open(f"{out}/replay/engine.log", errors="replace").read()
print(f"frames out: {frames_out:.0f} of 50400; dropped at a full queue: "
      f"{log.count('Dropping new frame, internal buffer queue is full')}; "
      f"rendered unstabilized: {log.count('use uniform_vrtxArr to Render')}; "
      f"exceptions: {log.count('[Exception]')}")
for row in csv.DictReader(open(f"{out}/replay_rss.csv")):
    print(f"  t={row['elapsed_s']:>5} s  rss={int(row['rss_kib']) / 1024:7.1f} MiB  "
          f"threads={row['threads']}  fds={row['fds']}")
PY
