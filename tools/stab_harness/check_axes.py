#!/usr/bin/env python3
"""Checks a gyro-to-camera axis mapping and time offset against a real recording.

Measures the image shift between consecutive frames (block matching on 200x150 grey copies made
with ffmpeg) and correlates it with the rotation the gyro reports between the frames' times.
For a camera turning by +a about its y axis (x right, y down, z forward) the scene moves left
(dx = -fx a); about its x axis it moves down (dy = +fy a). The signs of the correlations give
the signs of the mapping camera x = s1 * gyro y, camera y = s2 * gyro x (the layout of phones
whose sensor is turned a quarter turn), and camera z then follows from the mapping being a
rotation. Pure Python plus ffmpeg; takes about a minute.

usage: check_axes.py FRAMES_DIR FRAMESTAMPS GYRO FIRST LAST [FX]
  FRAMES_DIR/frame-N.jpg for N = FIRST..LAST; FRAMESTAMPS: one time (s) per line, line N = frame
  N; GYRO: lines x,y,z,t (rad/s, s). FX: focal length in pixels of the frames (default 574).
example: check_axes.py ../shared/data/phone-handheld/frames \\
           ../shared/data/phone-handheld/framestamp.txt ../shared/data/phone-handheld/gyro.txt 99 201
"""
import bisect
import math
import os
import subprocess
import sys

W, H = 200, 150


def grey(path):
    return subprocess.run(
        ["ffmpeg", "-loglevel", "error", "-i", path, "-vf", "scale=%d:%d,format=gray" % (W, H),
         "-f", "rawvideo", "-"], check=True, capture_output=True).stdout


def shift(a, b, r=12):
    """Shift (dx, dy) of b against a minimising the sum of absolute differences."""
    best = None
    for dy in range(-r, r + 1):
        for dx in range(-r, r + 1):
            s = 0
            for y in range(25, 125, 2):
                ra, rb = y * W, (y + dy) * W + dx
                s += sum(abs(a[ra + x] - b[rb + x]) for x in range(30, 170, 2))
            if best is None or s < best[0]:
                best = (s, dx, dy)
    return best[1], best[2]


def corr(a, b):
    ma, mb = sum(a) / len(a), sum(b) / len(b)
    sa = math.sqrt(sum((x - ma) ** 2 for x in a))
    sb = math.sqrt(sum((y - mb) ** 2 for y in b))
    return sum((x - ma) * (y - mb) for x, y in zip(a, b)) / (sa * sb) if sa and sb else 0.0


def main():
    if len(sys.argv) < 6:
        print(__doc__)
        return 2
    frames, stamps, gyro, first, last = sys.argv[1:6]
    first, last = int(first), int(last)
    fx = float(sys.argv[6]) if len(sys.argv) > 6 else 574.0
    times = [float(line) for line in open(stamps)]
    g = [tuple(map(float, line.split(","))) for line in open(gyro) if line.strip()]
    gt = [s[3] for s in g]

    def rotation(t0, t1):
        out = [0.0, 0.0, 0.0]
        for i in range(max(1, bisect.bisect_left(gt, t0) - 1), min(len(g), bisect.bisect_right(gt, t1) + 1)):
            a, b = max(gt[i - 1], t0), min(gt[i], t1)
            if b > a:
                for k in range(3):
                    out[k] += g[i][k] * (b - a)
        return out

    shifts = []
    prev = grey(os.path.join(frames, "frame-%d.jpg" % first))
    for n in range(first + 1, last + 1):
        cur = grey(os.path.join(frames, "frame-%d.jpg" % n))
        shifts.append((n, *shift(prev, cur)))
        prev = cur
    dxs = [s[1] for s in shifts]
    dys = [s[2] for s in shifts]
    best = None
    for offset_ms in range(-40, 41, 4):
        off = offset_ms * 1e-3
        rot = [rotation(times[n - 2] + off, times[n - 1] + off) for n, _, _ in shifts]
        cx = corr(dxs, [r[0] for r in rot])
        cy = corr(dys, [r[1] for r in rot])
        score = abs(cx) + abs(cy)
        if best is None or score > best[0]:
            best = (score, offset_ms, cx, cy)
    _, offset_ms, cx, cy = best
    s2 = -1 if cx > 0 else 1  # dx = -fx * s2 * integral(gyro x)
    s1 = 1 if cy > 0 else -1  # dy = +fy * s1 * integral(gyro y)
    s3 = -s1 * s2             # determinant +1

    def name(sign, axis):
        return ("-" if sign < 0 else "") + axis

    print("correlation of image dx with gyro x: %+.2f, of dy with gyro y: %+.2f (best at a gyro "
          "offset of %+d ms, %d frame pairs, fx %.0f px)" % (cx, cy, offset_ms, len(shifts), fx))
    print("vstab.gyroAxes=%s,%s,%s" % (name(s1, "y"), name(s2, "x"), name(s3, "z")))
    return 0


if __name__ == "__main__":
    sys.exit(main())
