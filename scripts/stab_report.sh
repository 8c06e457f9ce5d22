#!/usr/bin/env bash
# Regenerates the measured figures in docs/stabilizer.md: the quality harness's table (simulated
# recordings against ground truth) and the benchmark of the stabilization library's calls.
# Usage: scripts/stab_report.sh [harness options, e.g. --seed 2]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target qlmr_stab_harness stabilizer_bench
build/default/bin/qlmr_stab_harness --markdown docs/stabilizer.md "$@"

bench=$(build/default/bin/stabilizer_bench --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true 2>/dev/null | grep -E '^(Benchmark|-+$|BM_)' | grep -v -E '_(mean|stddev|cv)')
cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')
load=$(cut -d' ' -f1-3 /proc/loadavg)
BENCH="$bench" CPU="$cpu" LOAD="$load" python3 - docs/stabilizer.md <<'PY'
import os, sys
path = sys.argv[1]
text = open(path).read()
begin, end = "<!-- stab_bench:begin -->", "<!-- stab_bench:end -->"
b, e = text.index(begin) + len(begin), text.index(end)
body = ("\nMedian of 5 runs on %s (%s cores, load average %s). Warp: the Time column is the "
        "calling thread's CPU time per call; add: read the CPU column (process CPU time), as "
        "wall time counts waiting for a core.\n\n```\n%s\n```\n" % (os.environ["CPU"], os.cpu_count(),
                                                os.environ["LOAD"], os.environ["BENCH"]))
open(path, "w").write(text[:b] + body + text[e:])
PY
echo "docs/stabilizer.md updated"
