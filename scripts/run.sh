#!/usr/bin/env bash
# The main job: builds the project and runs the engine's host program.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target qlmr_banner
exec "$root/build/default/bin/qlmr_banner" "$@"
