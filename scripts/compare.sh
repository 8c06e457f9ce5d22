#!/usr/bin/env bash
# Speed and quality of our replay command beside ffmpeg's vid.stab (two passes) and deshake on
# the synthetic recording at 1280x720 and 1920x1080 and on the real phone recording; rewrites
# the table in docs/performance.md. Extra arguments go to tools/compare/compare.py (--help).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target qlmr_replay_cli qlmr_phone_convert
# python3-opencv installs into the system interpreter, not into any other python3 on the PATH.
exec /usr/bin/python3 "$root/tools/compare/compare.py" "$@"
