#!/usr/bin/env bash
# The main job: installs what is missing, builds the replay tool and runs the built-in synthetic
# recording (10 s of a hand-held walk at 1920x1080) through the engine. Outputs go to
# ./replay-out (stabilized video, metrics.json, report.html); extra arguments go to the tool
# (scripts/run.sh --help lists them).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target qlmr_replay_cli qlmr_phone_convert
exec "$root/build/default/bin/qlmr_replay" --progress "$@"
