#!/usr/bin/env bash
# Builds the libFuzzer programs (the fuzz preset: clang, AddressSanitizer + UBSan) and runs each
# for SECONDS. Usage: scripts/fuzz.sh SECONDS [target...]   (default: every target)
# FUZZ_JOBS=N runs N targets at once (default 1); each fuzzer is one process under nice.
#
# Each target starts from its seed corpus, fuzz/<target>/corpus, and keeps what it finds new in
# build/fuzz/corpus/<target>; its log is build/fuzz/logs/<target>.log. A fault leaves the input
# in build/fuzz/findings/<target>/ and makes the script fail: minimise it
# (build/fuzz/bin/<target>_fuzz -minimize_crash=1 -runs=10000 FILE), fix the fault and copy the
# input into fuzz/<target>/corpus, whose ctest replay (fuzz.<target>) keeps it checked.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${1:?usage: scripts/fuzz.sh SECONDS [target...]}
shift
all=(stabilizer recording y4m phone camera_parameters engine_config frame_intake)
targets=("$@")
((${#targets[@]})) || targets=("${all[@]}")
jobs=${FUZZ_JOBS:-1}

"$root/scripts/setup.sh"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target "${targets[@]/%/_fuzz}"

build=$root/build/fuzz
mkdir -p "$build/logs"
run_one() {
  local t=$1
  local corpus=$build/corpus/$t findings=$build/findings/$t
  mkdir -p "$corpus" "$findings"
  local dict=()
  [[ -f fuzz/$t/$t.dict ]] && dict=(-dict="fuzz/$t/$t.dict")
  # -rss_limit_mb: the engine's target holds a GL context and its frame buffers. -timeout is
  # generous: on a loaded shared machine a 2 s input took 27 s (not a hang).
  rm -f "$build/logs/$t.rc"
  nice -n 19 "$build/bin/${t}_fuzz" -max_total_time="$seconds" -timeout=120 -rss_limit_mb=3072 \
    -max_len=65536 -print_final_stats=1 -artifact_prefix="$findings/" "${dict[@]}" \
    "$corpus" "fuzz/$t/corpus" >"$build/logs/$t.log" 2>&1
  echo $? >"$build/logs/$t.rc"
}

running=0
for t in "${targets[@]}"; do
  echo "fuzz: $t for ${seconds}s (log build/fuzz/logs/$t.log)" >&2
  (set +e; run_one "$t") &
  running=$((running + 1))
  if ((running >= jobs)); then
    wait -n || true
    running=$((running - 1))
  fi
done
wait
failed=()
for t in "${targets[@]}"; do
  stats=$(grep -E '^stat::(number_of_executed_units|new_units_added|peak_rss_mb)' \
    "$build/logs/$t.log" | sed 's/^stat:://' | tr -s ' \n' ' ' || true)
  cov=$(grep -Eo 'cov: [0-9]+' "$build/logs/$t.log" | tail -1 || true)
  echo "fuzz: $t: $cov $stats" >&2
  [[ "$(cat "$build/logs/$t.rc" 2>/dev/null)" == 0 ]] || failed+=("$t")
done
if ((${#failed[@]})); then
  echo "fuzz: findings in ${failed[*]} (see build/fuzz/findings/)" >&2
  exit 1
fi
