#!/usr/bin/env bash
# Builds and runs every test. Usage: scripts/test.sh [default|asan|tsan]...
# With no argument the default (optimised) preset runs; name presets to run the sanitizer builds.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"

presets=("$@")
((${#presets[@]})) || presets=(default)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "== preset $preset" >&2
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
