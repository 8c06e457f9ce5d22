#!/usr/bin/env bash
# Fuzzes the stabilization library's configuration parser and call sequences with libFuzzer
# (clang-14, AddressSanitizer + UndefinedBehaviorSanitizer).
# Usage: scripts/fuzz_stabilizer.sh [seconds, default 60] [extra libFuzzer flags...]
# New inputs go to build/fuzz/corpus (seeded from fuzz/stabilizer/corpus); a crash leaves its
# input in build/fuzz/ -- minimise it (-minimize_crash=1), fix the fault and copy the input into
# fuzz/stabilizer/corpus so that the ctest replay keeps it checked.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
shift || true
build=$root/build/fuzz
CC=clang-14 CXX=clang++-14 cmake -S "$root/fuzz/stabilizer" -B "$build" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target vstab_fuzz -j 2
mkdir -p "$build/corpus"
cp -n "$root"/fuzz/stabilizer/corpus/* "$build/corpus/" 2>/dev/null || true
cd "$build"
exec ./vstab_fuzz -max_total_time="$seconds" -max_len=65536 -timeout=10 -rss_limit_mb=2048 \
  -dict="$root/fuzz/stabilizer/vstab.dict" \
  -print_final_stats=1 "$@" corpus
