#!/usr/bin/env bash
# Builds and runs the tests. Usage: scripts/test.sh [default|asan|tsan|armhf]...
# With no argument: default, asan, tsan and armhf, each the whole suite (what CI runs). Presets:
#   default  the whole suite, optimised build
#   asan     the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     the whole suite under ThreadSanitizer
#   armhf    the whole project cross-built for 32-bit ARM against a Debian armhf sysroot
#            (scripts/armhf-sysroot.sh), every suite run under qemu-arm on Mesa's llvmpipe
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
"$root/scripts/setup.sh"

jobs=$(nproc)
run_preset() {
  local preset=$1
  shift
  echo "== preset $preset $*" >&2
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs" "$@"
}

run_armhf() {
  echo "== armhf (qemu-arm)" >&2
  "$root/scripts/armhf-sysroot.sh" >/dev/null
  # The replay comparison (replay.abi_matches_x86_64) runs the default build's qlmr_replay.
  cmake --preset default >/dev/null
  cmake --build --preset default -j "$jobs" --target qlmr_replay_cli
  run_preset armhf
}

presets=("$@")
((${#presets[@]})) || presets=(default asan tsan armhf)
for preset in "${presets[@]}"; do
  case "$preset" in
    armhf) run_armhf ;;
    *) run_preset "$preset" ;;
  esac
done
