#!/usr/bin/python3
"""The same short synthetic replay through the engine on two ABIs: the x86-64 build's qlmr_replay
and the 32-bit ARM build's under qemu-arm. Passes when every figure of metrics.json that does not
depend on time agrees and the output videos agree frame for frame.

Usage: abi_compare.py OUT_DIR HOST_REPLAY ARM_COMMAND...

The replay is deterministic: the camera waits for the engine (nothing is dropped), the synthetic
recording comes from a fixed seed, and the engine's frame, gyro and output timestamps are the
recording's. What may differ between the ABIs is floating-point rounding: Mesa's llvmpipe
rasterizes with 128-bit vectors on ARM and 256-bit ones on x86-64, and libm's transcendental
functions differ in the last bit. Tolerances (stated in docs/reliability.md):
  - counts, sizes and every other integer figure: equal;
  - every other number: |a - b| <= 1e-2 * max(1, |a|, |b|) (measured: at most 0.42 %, on the
    output's stability and jitter ratios, which magnify the sub-level pixel differences below);
  - output frames: same count and size, every sample within 3 levels (of 255), the mean absolute
    difference at most 1 level (llvmpipe without NEON truncates to 8 bits where x86-64's rounds).
Figures that measure time (the timing section, throughput, the count of gyro-ahead-of-clock warnings)
are left out: they are the emulator's speed, not the engine's result.
"""
import json
import re
import subprocess
import sys
from pathlib import Path

ARGS = ["--seconds", "1", "--size", "320x240", "--fps", "30", "--seed", "3", "--no-mp4"]
# Time-dependent: the timing section, throughput, and the count of the engine's "gyro ahead of the
# system clock" warnings (one per gyro event that arrives while the replay clock leads).
TIMED = re.compile(r"^/(timing_ms|throughput)/|^/engine_log/expected_lines/gyro_clock_ahead$")
REL = 1e-2
MAX_LEVELS = 3
MAX_MEAN = 1.0


def run(command, out):
    result = subprocess.run(command + ARGS + ["-o", str(out)], capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"{' '.join(command)} failed ({result.returncode}):\n{result.stderr}")


def leaves(value, path=""):
    if isinstance(value, dict):
        for key, child in value.items():
            yield from leaves(child, f"{path}/{key}")
    elif isinstance(value, list):
        for index, child in enumerate(value):
            yield from leaves(child, f"{path}[{index}]")
    else:
        yield path, value


def compare_metrics(host, arm):
    a = dict(leaves(json.loads(host.read_text())))
    b = dict(leaves(json.loads(arm.read_text())))
    faults = [f"{key}: only in one run" for key in sorted(set(a) ^ set(b)) if not TIMED.search(key)]
    compared = 0
    for key in sorted(set(a) & set(b)):
        if TIMED.search(key):
            continue
        x, y = a[key], b[key]
        if isinstance(x, bool) or isinstance(y, bool) or not isinstance(x, (int, float)) \
                or not isinstance(y, (int, float)):
            same = x == y
        elif isinstance(x, int) and isinstance(y, int):
            same = x == y
        else:
            same = abs(x - y) <= REL * max(1.0, abs(x), abs(y))
        compared += 1
        if not same:
            faults.append(f"{key}: x86-64 {x!r}, armhf {y!r}")
    return compared, faults


def y4m_frames(path):
    data = path.read_bytes()
    header, _, rest = data.partition(b"\n")
    fields = dict((f[:1], f[1:]) for f in header.split()[1:])
    w, h = int(fields[b"W"]), int(fields[b"H"])
    size = w * h * 3 // 2
    frames = []
    while rest:
        line, _, rest = rest.partition(b"\n")
        if not line.startswith(b"FRAME"):
            sys.exit(f"{path}: no FRAME header")
        frames.append(rest[:size])
        rest = rest[size:]
    return (w, h), frames


def compare_video(host, arm):
    size_a, frames_a = y4m_frames(host)
    size_b, frames_b = y4m_frames(arm)
    if size_a != size_b or len(frames_a) != len(frames_b):
        return [f"video: x86-64 {size_a} x {len(frames_a)} frames, armhf {size_b} x {len(frames_b)}"]
    faults = []
    for index, (fa, fb) in enumerate(zip(frames_a, frames_b)):
        diffs = [abs(p - q) for p, q in zip(fa, fb) if p != q]
        mean = sum(diffs) / len(fa)
        if diffs and (max(diffs) > MAX_LEVELS or mean > MAX_MEAN):
            faults.append(f"frame {index}: {len(diffs)} of {len(fa)} samples differ, by up to "
                          f"{max(diffs)} levels, {mean:.3f} on average")
    return faults


def main():
    out, host, arm = Path(sys.argv[1]), [sys.argv[2]], sys.argv[3:]
    run(host, out / "x86-64")
    run(arm, out / "armhf")
    compared, faults = compare_metrics(out / "x86-64/metrics.json", out / "armhf/metrics.json")
    faults += compare_video(out / "x86-64/stabilized.y4m", out / "armhf/stabilized.y4m")
    if compared < 20:
        faults.append(f"only {compared} figures compared")
    for fault in faults:
        print(fault)
    print(f"{compared} figures and the output video compared: {len(faults)} differences")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
