#!/usr/bin/python3
"""Checks that the commands and figures in README.md and docs/*.md still hold.

Usage: check_docs.py BINARY_DIR SOURCE_DIR [--phone DIR] [--keep DIR]

1. Every command line in a fenced code block of README.md or docs/*.md that runs one of the
   project's programs (build/default/bin/..., scripts/*.sh, cmake, ctest) must be in COMMANDS:
   either run here (a RUNS entry, sizes reduced where the figures allow it; it must exit 0) or
   listed with the reason it is not run. An unknown command fails the check.
2. Every figure the docs quote about what the tools produce is in FIGURES (or in a generated
   table of TABLES): the exact phrase as it stands in the doc (blanks and line breaks count as
   one blank), the run that produces it, and for each number of the phrase, in order, where the
   run prints it (None: a number of the phrase that is not a result, such as a setting). The
   check fails when the phrase is gone or a number is outside its tolerance: half a unit of the
   last digit quoted (the run's value rounded as the doc rounds it), or the entry's tol where
   that is larger.

Runs take place in a temporary folder (their relative output folders land there); runs that
need the real phone recording are skipped, with the reason, when it is absent. Standard
library only (Debian's /usr/bin/python3). Exit status 0 when everything holds, 1 otherwise.
"""

import glob
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

# Appended to the synthetic replays whose figures do not depend on length and size.
REDUCED = ["--seconds", "2", "--size", "640x360"]
# The calibration table of docs/replay.md: synthetic walk, 8 s at 960x540, no MP4.
CAL = ["--seconds", "8", "--size", "960x540", "--no-mp4", "-q"]

# Runs, in the order they run. cmd: the doc's command as it stands (or a figure-only run);
# extra: options appended; phone: needs the real phone recording (directly or through the
# recording converted from it).
RUNS = {
    "replay": dict(cmd="build/default/bin/qlmr_replay"),  # full size: its figures need it
    "replay-library-only": dict(cmd="build/default/bin/qlmr_replay --library-only", extra=REDUCED),
    "replay-dry-run": dict(cmd="build/default/bin/qlmr_replay --dry-run --seconds 3",
                           extra=["--size", "640x360"]),
    "replay-properties": dict(
        cmd="QLMR_PROPERTIES=debug.camera.qlmr.EIS.log=1;persist.qlmr.EIS.vid.startUs=0 "
        "build/default/bin/qlmr_replay", extra=REDUCED),
    "cal-stated": dict(cmd="build/default/bin/qlmr_replay", extra=CAL),
    "cal-unstated": dict(cmd="build/default/bin/qlmr_replay --gyro-offset-ms 17 "
                         "--stated-gyro-offset-ms 2", extra=CAL),
    "cal-calibrated": dict(cmd="build/default/bin/qlmr_replay --gyro-offset-ms 17 "
                           "--stated-gyro-offset-ms 2 --calibrate", extra=CAL),
    "cal-axes": dict(cmd="build/default/bin/qlmr_replay --stated-gyro-axes=-x,-y,z", extra=CAL),
    "phone-analyze": dict(cmd="build/default/bin/qlmr_phone_convert --analyze", extra=["--curve"],
                          phone=True),
    "phone-convert": dict(cmd="build/default/bin/qlmr_phone_convert --out /tmp/phone-rec",
                          phone=True),
    "phone-replay": dict(
        cmd="build/default/bin/qlmr_replay --input /tmp/phone-rec --out phone-out --side-by-side",
        phone=True),
    "phone-library-only": dict(
        cmd="build/default/bin/qlmr_replay --input /tmp/phone-rec --library-only --no-mp4",
        phone=True),
    # qlmr_calibrate rewrites the folder's config.txt: after the replays of that folder.
    "calibrate-dry-run": dict(cmd="build/default/bin/qlmr_calibrate DIR --dry-run", phone=True),
    "calibrate": dict(cmd="build/default/bin/qlmr_calibrate DIR", phone=True),
    "replay-calibrate": dict(cmd="build/default/bin/qlmr_replay --input DIR --calibrate --out out",
                             phone=True),
    "harness": dict(cmd="build/default/bin/qlmr_stab_harness"),
    "harness-set": dict(cmd="build/default/bin/qlmr_stab_harness --scenario walk "
                        "--set vstab.windowNs=1000000000"),
}
# The sensitivity and zoom tables of docs/stabilizer.md: one harness scenario, one setting.
for _name, _args in [
    ("offset-3ms", "walk --set vstab.gyroTimeOffsetNs=3000000"),
    ("offset-13ms", "walk --set vstab.gyroTimeOffsetNs=13000000"),
    ("offset--7ms", "walk --set vstab.gyroTimeOffsetNs=-7000000"),
    ("offset-23ms", "walk --set vstab.gyroTimeOffsetNs=23000000"),
    ("readout-25ms", "walk --set vstab.readoutNs=25000000"),
    ("readout-0", "walk --set vstab.readoutNs=0"),
    ("window-800ms", "walk --set vstab.windowNs=800000000"),
    ("window-latency", "walk --set vstab.windowNs=800000000 --set vstab.latencyNs=400000000"),
    ("grid-17x10", "walk --set vstab.gridColumns=17 --set vstab.gridRows=10"),
    ("violent-zoom-1.4", "violent --set vstab.cropZoomMax=1.4"),
    ("violent-zoom-1.6", "violent --set vstab.cropZoomMax=1.6"),
    ("jog-zoom-1.4", "jog --set vstab.cropZoomMax=1.4"),
    ("jog-zoom-1.6", "jog --set vstab.cropZoomMax=1.6"),
]:
    RUNS["harness-" + _name] = dict(cmd="build/default/bin/qlmr_stab_harness --scenario " + _args)

# The commands of the docs that are not run, and why.
NOT_RUN = {
    "scripts/run.sh": "installs packages and rebuilds; its replay is the `replay` run",
    "scripts/test.sh": "the whole CI (four presets); this check is one of its tests",
    "scripts/test.sh asan": "CI: the suite under a sanitizer preset",
    "scripts/test.sh tsan": "CI: the suite under a sanitizer preset",
    "scripts/test.sh armhf": "CI: cross build and qemu run",
    "scripts/setup.sh": "installs Debian packages (root)",
    "scripts/stab_report.sh": "rebuilds and rewrites docs/stabilizer.md; its table is checked "
                              "from the `harness` run",
    "scripts/long_runs.sh": "the `long` tests, minutes",
    "scripts/fuzz.sh 600": "fuzzing, minutes",
    "scripts/fuzz.sh 600 stabilizer": "fuzzing, minutes",
    "FUZZ_JOBS=3 scripts/fuzz.sh 600 y4m": "fuzzing, minutes",
    "build/default/bin/qlmr_stab_harness --check --scale 0.5":
        "is the ctest test stabilizer.harness_acceptance",
    "build/default/bin/stabilizer_bench": "benchmark: timings only, not built without "
                                          "QLMR_BUILD_BENCH",
    "build/default/bin/qlmr_replay_bench": "benchmark: timings only",
    "./build/default/bin/util_bench --benchmark_repetitions=5 "
    "--benchmark_report_aggregates_only=true": "benchmark: timings only",
    "nice -n 19 ctest --test-dir build/default -L long -V | grep -E "
    "\\[long-run\\]|Passed|Failed": "the `long` tests, minutes",
}
# cmake and ctest lines: configuring and building made this check; ctest runs it.
CMAKE_REASON = "configures or builds the tree this check runs in"
CTEST_REASON = "runs tests; this check is one of them"

# The first component fit qlmr_phone_convert --analyze prints: the best offset's.
BEST_FIT = r"re:(?s)^fit for camera axes -y,-x,-z, offset \S+ ms:.*?"
N = None  # a number of the phrase that is not a result (a setting, a size, a rank)


def j(path):
    return "json:" + path


def cell(scenario, column, index=0, run=None):
    """A number of a harness table row (column counted from 1 after the scenario name), of the
    entry's run or of the run named."""
    return ("cell", scenario, column, index) + ((run,) if run else ())


# (doc, phrase, run, extractors (one per number in the phrase), tolerance)
FIGURES = [
    # The default synthetic replay (full size), README and docs/replay.md.
    ("README.md", "the residual jitter falls from 23 px to 2 px (ground truth)", "replay",
     [j("ground_truth.residual_jitter_input_px"), j("ground_truth.residual_jitter_output_px")], 0),
    ("README.md", "measured on the pixels from 24 px to 0.4 px", "replay",
     [j("pixel_motion.input.jitter_px"), j("pixel_motion.output.jitter_px")], 0.02),
    ("docs/replay.md", "| 23.06 → 2.02 px (**11.4×**; 11.6× after 1 s) | 24.4 → 0.39 px (64×) "
     "| 0.003 → 0.29 | 0.74 |", "replay",
     [j("ground_truth.residual_jitter_input_px"), j("ground_truth.residual_jitter_output_px"),
      j("ground_truth.residual_jitter_ratio"), j("ground_truth.residual_jitter_ratio_settled"), N,
      j("pixel_motion.input.jitter_px"), j("pixel_motion.output.jitter_px"),
      j("pixel_motion.jitter_ratio"), j("ground_truth.stability_input"),
      j("ground_truth.stability_output"), j("cropping.cropping")], 0.02),
    ("docs/replay.md", "both jitter ratios 1.0, cropping 1.00", "replay-dry-run",
     [j("ground_truth.residual_jitter_ratio"), j("cropping.cropping")], 0),
    ("docs/replay.md", "both jitter ratios 1.0, cropping 1.00", "replay-dry-run",
     [j("pixel_motion.jitter_ratio"), None], 0),
    # The real phone recording.
    ("README.md", "Its frame-to-frame jitter measured on the pixels falls from 4.2 px to 1.5 px.",
     "phone-replay", [j("pixel_motion.input.jitter_px"), j("pixel_motion.output.jitter_px")], 0),
    ("docs/replay.md", "jitter from pixels 4.17 → 1.47 px (output pixels, magnified 1.22×; 2.8×, "
     "2.6× after the first second), mean frame-to-frame step 2.10 → 1.02 px, stability score "
     "0.53 → 0.77, cropping 0.67, nothing unstabilized", "phone-library-only",
     [j("pixel_motion.input.jitter_px"), j("pixel_motion.output.jitter_px"),
      j("cropping.mean_scale_inverse"), j("pixel_motion.jitter_ratio"),
      j("pixel_motion.jitter_ratio_settled"), j("pixel_motion.input.mean_step_px"),
      j("pixel_motion.output.mean_step_px"), j("pixel_motion.input.stability"),
      j("pixel_motion.output.stability"), j("cropping.cropping")], 0.01),
    ("docs/replay.md", "On the real phone recording (converted with its measured values) the "
     "agreement is 0.933 (x 0.864, y 0.994, roll 0.788", "phone-replay",
     [j("calibration.agreement"), j("calibration.agreement_x_y_roll.0"),
      j("calibration.agreement_x_y_roll.1"), j("calibration.agreement_x_y_roll.2")], 0.005),
    ("docs/replay.md", "is the configured mapping, 3.3 ms earlier", "phone-replay",
     ["offset_gap"], 0.05),
    ("docs/replay.md", "102 consecutive frame\npairs", "phone-analyze",
     [r"re:image motion measured on (\d+) of"], 0),
    ("docs/replay.md", "| 1 | `-y,-x,-z` | yes | −2.0 ms | 1.11 px |", "phone-analyze",
     [N, r"re:^ +1  -y,-x,-z +yes +(\S+)", r"re:^ +1  -y,-x,-z +yes +\S+ +(\S+)"], 0),
    ("docs/replay.md", "| 2 | `-y,z,-x` | yes | −1.4 ms | 1.23 px |", "phone-analyze",
     [N, r"re:^ +2  -y,z,-x +yes +(\S+)", r"re:^ +2  -y,z,-x +yes +\S+ +(\S+)"], 0),
    ("docs/replay.md", "| 3 | `-y,-x,z` | mirror | −1.9 ms | 1.27 px |", "phone-analyze",
     [N, r"re:^ +3  -y,-x,z +mirror +(\S+)", r"re:^ +3  -y,-x,z +mirror +\S+ +(\S+)"], 0),
    ("docs/replay.md", "| 6 | `-y,-z,x` | yes | −4.1 ms | 1.56 px |", "phone-analyze",
     [N, r"re:^ +6  -y,-z,x +yes +(\S+)", r"re:^ +6  -y,-z,x +yes +\S+ +(\S+)"], 0),
    ("docs/replay.md", "| 8 | `-y,x,z` | yes | −1.5 ms | 2.04 px |", "phone-analyze",
     [N, r"re:^ +8  -y,x,z +yes +(\S+)", r"re:^ +8  -y,x,z +yes +\S+ +(\S+)"], 0),
    ("docs/replay.md", "| — | no rotation at all | | | 2.96 px |", "phone-analyze",
     [r"re:no-rotation prediction: rms (\S+) px"], 0),
    ("docs/replay.md", "Per component for `-y,-x,-z` at −2.0 ms: pitch (vertical motion) "
     "correlation +0.997 and gain 1.07; yaw (horizontal) +0.873, gain 0.47; roll +0.822, "
     "gain 0.86", "phone-analyze",
     [r"re:^ +1  -y,-x,-z +yes +(\S+)",
      BEST_FIT + r"ty \(pitch\) +correlation (\S+)",
      BEST_FIT + r"ty \(pitch\) .*?gain (\S+)",
      BEST_FIT + r"tx \(yaw\) +correlation (\S+)",
      BEST_FIT + r"tx \(yaw\) .*?gain (\S+)",
      BEST_FIT + r"rotation \(roll\) +correlation (\S+)",
      BEST_FIT + r"rotation \(roll\) .*?gain (\S+)"], 0),
    ("docs/replay.md", "The horizontal gain of 0.5\nsays", "phone-analyze",
     [BEST_FIT + r"tx \(yaw\) .*?gain (\S+)"], 0.05),
    ("docs/replay.md", "−60 ms 3.88 px, −40 ms 2.87, −20 ms 1.79, −10 ms 1.28, 0 ms 1.12, "
     "+10 ms 1.45, +20 ms 2.01, +40 ms 3.08, +60 ms 3.85 px: a single clear minimum at "
     "**−2.0 ms**", "phone-analyze",
     [N, r"re:^ +-60\.0 +(\S+)$", N, r"re:^ +-40\.0 +(\S+)$", N, r"re:^ +-20\.0 +(\S+)$",
      N, r"re:^ +-10\.0 +(\S+)$", N, r"re:^ +0\.0 +(\S+)$", N, r"re:^ +10\.0 +(\S+)$",
      N, r"re:^ +20\.0 +(\S+)$", N, r"re:^ +40\.0 +(\S+)$", N, r"re:^ +60\.0 +(\S+)$",
      r"re:^ +1  -y,-x,-z +yes +(\S+)"], 0),
    ("docs/replay.md", "writes\n`vstab.gyroTimeOffsetNs` = 0.2 − 5.25/2 = −2.425 ms",
     "phone-replay", [N, N, N, j("calibration.stated_offset_ms")], 0),
    # docs/replay.md, calibration table (synthetic walk, 8 s at 960x540).
    ("docs/replay.md", "ground truth residual jitter\n(input 11.63 px)", "cal-stated",
     [j("ground_truth.residual_jitter_input_px")], 0),
    ("docs/replay.md", "| offset stated correctly (true 2 ms) | 1.05 | 0.996 | `-y,-x,-z`, 1.95 ms, kept |",
     "cal-stated", [N, j("ground_truth.residual_jitter_output_px"), j("calibration.agreement"),
                    j("calibration.best_offset_ms")], 0),
    ("docs/replay.md", "| 15 ms unstated (`--gyro-offset-ms 17 --stated-gyro-offset-ms 2`) | 4.23 "
     "| 0.840 | `-y,-x,-z`, 16.95 ms, warned |", "cal-unstated",
     [N, N, N, j("ground_truth.residual_jitter_output_px"), j("calibration.agreement"),
      j("calibration.best_offset_ms")], 0),
    ("docs/replay.md", "| the same with `--calibrate` | 1.05 (−0.4 % on the correct case) | "
     "0.996 (after) | replayed with 16.95 ms |", "cal-calibrated",
     [j("ground_truth.residual_jitter_output_px"), "calibrate_cost_pct",
      j("calibration.agreement"), j("calibration.stated_offset_ms")], 0.05),
    ("docs/replay.md", "| axes swapped (`--stated-gyro-axes=-x,-y,z`) | 13.57 | 0.201, warned as "
     "poor | `-y,-x,-z` named, 0.996 |", "cal-axes",
     [j("ground_truth.residual_jitter_output_px"), j("calibration.agreement"),
      j("calibration.best_agreement")], 0),
    ("docs/replay.md", "1.95 for 2 and 16.95 for 17 here", "cal-calibrated",
     ["json@cal-stated:calibration.best_offset_ms", N, j("calibration.stated_offset_ms"), N],
     0),
    ("docs/stabilizer.md", "(8 s at 960x540), the calibration\nfinds 16.95 ms for the true 17 ms, "
     "and the calibrated replay leaves 1.05 px of ground-truth\nresidual against 1.05 px with "
     "the offset stated (4.23 px uncalibrated)", "cal-calibrated",
     [N, N, N, j("calibration.stated_offset_ms"), N, j("ground_truth.residual_jitter_output_px"),
      "json@cal-stated:ground_truth.residual_jitter_output_px",
      "json@cal-unstated:ground_truth.residual_jitter_output_px"], 0),
    # docs/stabilizer.md, sensitivity table and the adaptive crop's zoom table.
    ("docs/stabilizer.md", "| defaults (as simulated) | 0.171 | 0.153 (98.7 %) | 0.982 |", "harness",
     [cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 2, 2), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.gyroTimeOffsetNs` 5 ms too small / too large | 2.68 / 2.76 | "
     "2.35 (79 %) | 0.35 |", "harness-offset-3ms",
     [N, cell("walk", 1, 1), "cell@harness-offset-13ms:walk:1:1", cell("walk", 2, 1),
      cell("walk", 2, 2), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.gyroTimeOffsetNs` 15 ms too small / too large (an unstated "
     "camera/sensor clock offset) | 7.98 / 8.05 | 6.82 (40 %) | 0.08 |", "harness-offset--7ms",
     [N, cell("walk", 1, 1), "cell@harness-offset-23ms:walk:1:1", cell("walk", 2, 1),
      cell("walk", 2, 2), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.readoutNs=25000000` (5 ms short) | 1.38 | 2.11 (81 %) | 0.53 |",
     "harness-readout-25ms",
     [N, N, cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 2, 2), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.readoutNs=0` (rolling shutter ignored) | 8.23 | 11.29 (1 %) "
     "| 0.07 |", "harness-readout-0",
     [N, cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 2, 2), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.windowNs=800000000` | 0.240 | 0.153 | 0.982 |",
     "harness-window-800ms", [N, cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.windowNs=800000000`, `vstab.latencyNs=400000000` | 0.723 | "
     "0.153 | 0.953 |", "harness-window-latency",
     [N, N, cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "| `vstab.gridColumns=17`, `vstab.gridRows=10` | 0.177 | 0.168 | 0.977 |",
     "harness-grid-17x10",
     [N, N, cell("walk", 1, 1), cell("walk", 2, 1), cell("walk", 3, 1)], 0),
    ("docs/stabilizer.md", "here about 0.5 px per millisecond", "harness-offset-3ms",
     ["px_per_ms"], 0.05),
    ("docs/stabilizer.md", "| 0 (= 1.25, default) | 17.6 | 0.12 | 64 % / 64 % |", "harness",
     [N, N, cell("violent", 1, 1), cell("violent", 3, 1), cell("violent", 6, 0),
      cell("violent", 6, 1)], 0),
    ("docs/stabilizer.md", "| 1.4 | 2.5 | 0.48 | 51 % / 51 % |", "harness-violent-zoom-1.4",
     [N, cell("violent", 1, 1), cell("violent", 3, 1), cell("violent", 6, 0),
      cell("violent", 6, 1)], 0),
    ("docs/stabilizer.md", "| 1.6 | 0.64 | 0.50 | 44 % / 42 % |", "harness-violent-zoom-1.6",
     [N, cell("violent", 1, 1), cell("violent", 3, 1), cell("violent", 6, 0),
      cell("violent", 6, 1)], 0),
    ("docs/stabilizer.md", "the jog scenario, 3°, keeps\nits 0.33 px and dips to 59 % of the "
     "picture instead of 64 % at 1.4 or 1.6", "harness-jog-zoom-1.4",
     [N, cell("jog", 1, 1), cell("jog", 6, 1), cell("jog", 6, 1, "harness"), N, N], 0),
    ("docs/stabilizer.md", "the jog scenario, 3°, keeps\nits 0.33 px and dips to 59 % of the "
     "picture instead of 64 % at 1.4 or 1.6", "harness-jog-zoom-1.6",
     [N, cell("jog", 1, 1), cell("jog", 6, 1), N, N, N], 0),
    ("docs/stabilizer.md", "(0.044 px with it in the harness", "harness", [cell("still", 1, 1)], 0),
]

# (doc, phrase without numbers, run, same-as run, metrics.json keys, tolerance): the phrase
# says that two runs give the same figures.
SAME = [("docs/replay.md", "`--library-only` gives the same figures as the engine",
         "replay-library-only", "replay-properties",
         ["ground_truth.residual_jitter_output_px", "pixel_motion.output.jitter_px",
          "cropping.cropping", "ground_truth.stability_output"], 0.02)]

# Generated tables: every row between the markers is compared, number by number, with the
# row of the same first cell in the run's output.
TABLES = [("docs/stabilizer.md", "<!-- stab_harness:begin -->", "<!-- stab_harness:end -->",
           "harness")]

NUMBER = re.compile(r"[−+-]?\d+(?:\.\d+)?")


def squeeze(text):
    return re.sub(r"\s+", " ", text).strip()


def to_float(text):
    return float(text.replace("−", "-"))


def half_unit(text):
    decimals = len(text.split(".")[1]) if "." in text else 0
    return 0.5 * 10 ** -decimals


def doc_commands(src):
    """(file:line, command) for every project command in a fenced code block."""
    found = []
    for path in ["README.md"] + sorted(glob.glob(os.path.join(src, "docs", "*.md"))):
        rel = os.path.relpath(os.path.join(src, path), src)
        lines = open(os.path.join(src, rel), encoding="utf-8").read().split("\n")
        in_block = False
        pending, start = "", 0
        for number, line in enumerate(lines, 1):
            if line.startswith("```"):
                in_block = not in_block
                continue
            if not in_block:
                continue
            if not pending:
                start = number
            if line.rstrip().endswith("\\"):
                pending += line.rstrip()[:-1] + " "
                continue
            text, pending = pending + line, ""
            try:
                tokens = shlex.split(text, comments=True)
            except ValueError:
                continue
            segment = []
            for token in tokens + ["&&"]:
                if token != "&&":
                    segment.append(token)
                    continue
                words = [w for w in segment if not re.match(r"^[A-Z_]+=", w)]
                if words[:2] == ["nice", "-n"]:
                    words = words[3:]
                if words and re.match(r"^(\./)?(build/default/bin/|scripts/.*\.sh$|cmake$|ctest$)",
                                      words[0]):
                    found.append(("%s:%d" % (rel, start), " ".join(segment)))
                segment = []
    return found


def not_run_reason(command):
    if command in NOT_RUN:
        return NOT_RUN[command]
    words = command.split()
    if words[0] == "cmake":
        return CMAKE_REASON
    if words[0] == "ctest":
        return CTEST_REASON
    return None


def run_argv(entry, bindir, workdir):
    words = shlex.split(entry["cmd"]) + entry.get("extra", [])
    env = dict(os.environ)
    while re.match(r"^[A-Z_]+=", words[0]):
        key, value = words.pop(0).split("=", 1)
        env[key] = value
    words[0] = os.path.join(bindir, "bin", os.path.basename(words[0]))
    # The docs' folders, inside the temporary folder.
    words = [{"/tmp/phone-rec": "phone-rec", "DIR": "phone-rec"}.get(w, w) for w in words]
    return words, env


def execute(runs, bindir, workdir, phone_ok, phone_dir):
    results, failures = {}, []
    for name, entry in runs.items():
        if entry.get("phone") and not phone_ok:
            print("skip %-26s the phone recording is absent (%s)" % (name, phone_dir))
            continue
        argv, env = run_argv(entry, bindir, workdir)
        began = time.monotonic()
        try:
            done = subprocess.run(argv, cwd=workdir, env=env, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, timeout=300)
        except (OSError, subprocess.TimeoutExpired) as error:
            failures.append("run %s: %s" % (name, error))
            continue
        output = done.stdout.decode("utf-8", "replace")
        print("ran  %-26s %5.1f s  %s" % (name, time.monotonic() - began, " ".join(argv[1:])))
        if done.returncode != 0:
            tail = "\n    ".join(output.strip().split("\n")[-3:])
            failures.append("run %s exited with %d: %s\n    %s" % (name, done.returncode,
                                                                    " ".join(argv), tail))
            continue
        metrics = None
        out_dir = None
        if "--out" in argv:
            out_dir = argv[argv.index("--out") + 1]
        elif "qlmr_replay" in os.path.basename(argv[0]):
            out_dir = "replay-out"
        if out_dir and os.path.exists(os.path.join(workdir, out_dir, "metrics.json")):
            with open(os.path.join(workdir, out_dir, "metrics.json")) as handle:
                metrics = json.load(handle)
            # A later run may write the same folder: keep each run's own metrics.
            shutil.move(os.path.join(workdir, out_dir), os.path.join(workdir, "done-" + name))
        results[name] = dict(stdout=output, metrics=metrics)
    return results, failures


def table_row(stdout, scenario):
    for line in stdout.split("\n"):
        if line.startswith("| " + scenario + " "):
            return [c.strip() for c in line.strip().strip("|").split("|")]
    raise LookupError("no table row '%s'" % scenario)


def extract(extractor, run, results):
    """The value a run printed, or raises LookupError saying what is missing."""
    if isinstance(extractor, tuple):  # ("cell", scenario, column, index[, run])
        if len(extractor) == 5:
            run = extractor[4]
        row = table_row(results[run]["stdout"], extractor[1])
        return to_float(NUMBER.findall(row[extractor[2]])[extractor[3]])
    if extractor.startswith("cell@"):
        other, scenario, column, index = extractor[5:].split(":")
        return extract(("cell", scenario, int(column), int(index), other), run, results)
    if extractor.startswith("json@"):
        other, key = extractor[5:].split(":", 1)
        return extract("json:" + key, other, results)
    if extractor.startswith("json:"):
        value = results[run]["metrics"]
        if value is None:
            raise LookupError("run %s wrote no metrics.json" % run)
        key = extractor[5:]
        if key == "cropping.mean_scale_inverse":
            return 1.0 / value["cropping"]["mean_scale"]
        for part in key.split("."):
            value = value[int(part)] if isinstance(value, list) else value[part]
        return float(value)
    if extractor.startswith("re:"):
        match = re.search(extractor[3:], results[run]["stdout"], re.MULTILINE)
        if not match:
            raise LookupError("run %s printed no line matching %s" % (run, extractor[3:]))
        return to_float(match.group(1))
    if extractor == "offset_gap":  # best-fit offset against the configured one, ms
        calibration = results[run]["metrics"]["calibration"]
        return abs(calibration["best_offset_ms"] - calibration["stated_offset_ms"])
    if extractor == "calibrate_cost_pct":  # calibrated residual against the stated one, %
        stated = extract("json:ground_truth.residual_jitter_output_px", "cal-stated", results)
        return 100 * (extract("json:ground_truth.residual_jitter_output_px", run, results) /
                      stated - 1)
    if extractor == "px_per_ms":  # jitter added per ms of offset error, from the 5 ms row
        added = extract(cell("walk", 1, 1), run, results) - extract(cell("walk", 1, 1), "harness",
                                                                     results)
        return added / 5
    raise LookupError("unknown extractor %r" % (extractor,))


def runs_of(extractors, run):
    names = {run}
    for e in extractors:
        if isinstance(e, tuple) and len(e) == 5:
            names.add(e[4])
        elif isinstance(e, str) and ("@" in e):
            names.add(e.split("@", 1)[1].split(":")[0])
    if "calibrate_cost_pct" in extractors:
        names.add("cal-stated")
    if "px_per_ms" in extractors:
        names.add("harness")
    return names


def check_figures(src, results, skipped):
    failures, checked = [], 0
    texts = {}
    for doc, phrase, run, extractors, tol in FIGURES:
        if doc not in texts:
            texts[doc] = squeeze(open(os.path.join(src, doc), encoding="utf-8").read())
        quoted = squeeze(phrase)
        if quoted not in texts[doc]:
            failures.append("%s: phrase no longer in the doc: \"%s\"" % (doc, quoted))
            continue
        needed = runs_of(extractors, run)
        if needed & skipped:
            continue
        if not needed <= set(results):
            failures.append("%s: \"%s\": run %s failed" % (doc, quoted, ", ".join(sorted(needed))))
            continue
        numbers = NUMBER.findall(quoted)
        if len(numbers) != len(extractors):
            failures.append("%s: \"%s\": %d numbers, %d extractors in the registry" % (
                doc, quoted, len(numbers), len(extractors)))
            continue
        for text, extractor in zip(numbers, extractors):
            if extractor is None:
                continue
            try:
                value = extract(extractor, run, results)
            except (LookupError, KeyError, IndexError, TypeError) as error:
                failures.append("%s: \"%s\": %s" % (doc, quoted, error))
                continue
            allowed = max(half_unit(text), tol) + 1e-9
            checked += 1
            if abs(value - to_float(text)) > allowed:
                failures.append("%s: \"%s\": the doc says %s, run %s gives %.4g (%s, tolerance %g)"
                                % (doc, quoted, text, run, value, extractor if isinstance(
                                    extractor, str) else "harness row", allowed))
    for doc, phrase, run, other, keys, tol in SAME:
        if squeeze(phrase) not in squeeze(open(os.path.join(src, doc), encoding="utf-8").read()):
            failures.append("%s: phrase no longer in the doc: \"%s\"" % (doc, phrase))
            continue
        if run not in results or other not in results:
            continue
        for key in keys:
            a, b = extract(j(key), run, results), extract(j(key), other, results)
            checked += 1
            if abs(a - b) > tol:
                failures.append("%s: \"%s\": %s is %.4g in run %s, %.4g in run %s (tolerance %g)"
                                % (doc, phrase, key, a, run, b, other, tol))
    for doc, begin, end, run in TABLES:
        text = open(os.path.join(src, doc), encoding="utf-8").read()
        if begin not in text or end not in text:
            failures.append("%s: markers %s ... %s are gone" % (doc, begin, end))
            continue
        if run in skipped or run not in results:
            continue
        rows = [r for r in text[text.index(begin):text.index(end)].split("\n")
                if r.startswith("| ") and not r.startswith("| scenario")]
        for row in rows:
            cells = [c.strip() for c in row.strip().strip("|").split("|")]
            try:
                printed = table_row(results[run]["stdout"], cells[0].split(" ")[0])
            except LookupError as error:
                failures.append("%s: %s" % (doc, error))
                continue
            quoted = NUMBER.findall(" ".join(cells[1:]))
            values = NUMBER.findall(" ".join(printed[1:]))
            checked += len(quoted)
            bad = [(q, v) for q, v in zip(quoted, values)
                   if abs(to_float(q) - to_float(v)) > half_unit(q) + 1e-9]
            if len(quoted) != len(values) or bad:
                failures.append("%s: harness table row '%s': the doc says %s, run %s prints %s" % (
                    doc, cells[0], " ".join(q for q, _ in bad) or "|".join(cells[1:]), run,
                    " ".join(v for _, v in bad) or "|".join(printed[1:])))
    return failures, checked


def main(argv):
    args = argv[1:]
    phone_dir, keep = None, None
    if "--phone" in args:
        phone_dir = args.pop(args.index("--phone") + 1)
        args.remove("--phone")
    if "--keep" in args:
        keep = args.pop(args.index("--keep") + 1)
        args.remove("--keep")
    if len(args) != 2:
        print(__doc__.strip().split("\n")[2])
        return 2
    bindir, src = (os.path.abspath(a) for a in args)
    began = time.monotonic()
    failures = []

    known = set(entry["cmd"] for entry in RUNS.values())
    seen = set()
    for where, command in doc_commands(src):
        seen.add(command)
        if command not in known and not_run_reason(command) is None:
            failures.append("%s: command unknown to tools/docs/check_docs.py (add it to RUNS or "
                            "NOT_RUN): %s" % (where, command))
    for command in NOT_RUN:
        if command not in seen:
            failures.append("NOT_RUN lists a command no doc shows any more: %s" % command)

    phone_ok = bool(phone_dir) and os.path.isfile(os.path.join(phone_dir, "gyro.txt"))
    skipped = set() if phone_ok else {n for n, s in RUNS.items() if s.get("phone")}
    workdir = keep or tempfile.mkdtemp(prefix="qlmr-docs-")
    os.makedirs(workdir, exist_ok=True)
    try:
        results, run_failures = execute(RUNS, bindir, workdir, phone_ok, phone_dir)
        failures += run_failures
        figure_failures, checked = check_figures(src, results, skipped)
        failures += figure_failures
    finally:
        if not keep:
            shutil.rmtree(workdir, ignore_errors=True)
    print("%d runs, %d figures compared, %.0f s" % (len(results), checked,
                                                   time.monotonic() - began))
    for failure in failures:
        print("FAIL " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
