#!/usr/bin/env bash
# Builds and runs the tests. Usage: scripts/test.sh [default|asan|tsan|armhf]...
# With no argument: default, asan and tsan, each the whole suite (what CI runs). Presets:
#   default  the whole suite, optimised build
#   asan     the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     the whole suite under ThreadSanitizer
#   armhf    the parts without GL, cross-built for 32-bit ARM and run under qemu-arm
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
  cmake -S cross/armhf -B build/armhf -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/armhf-toolchain.cmake" >/dev/null
  cmake --build build/armhf -j "$jobs"
  (cd build/armhf && ctest -j "$jobs" --output-on-failure --no-tests=error)
}

presets=("$@")
((${#presets[@]})) || presets=(default asan tsan)
for preset in "${presets[@]}"; do
  case "$preset" in
    armhf) run_armhf ;;
    *) run_preset "$preset" ;;
  esac
done
