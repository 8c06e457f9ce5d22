"""Image-only measurement of a stabilized video, the same for every stabilizer compared.

- Frame-to-frame motion: Shi-Tomasi corners in the central 80 % of the previous frame (the
  borders are left out: stabilizers fill them with black, mirrored or stretched pixels that move
  on their own), tracked into the next frame by pyramidal Lucas-Kanade, and a similarity
  transform fitted with RANSAC (OpenCV's estimateAffinePartial2D). Frames are reduced to at most
  960 pixels wide for tracking; translations are given back in full-size pixels. The step is the
  motion of the frame centre.
- Jitter: the camera path (chained centre steps, sign turned to the camera's motion) minus its
  smoothed version (a Gaussian-weighted local quadratic fit, sigma = 0.5 s), RMS in pixels.
- Stability (Liu, Yuan, Tan, Sun, "Bundled camera paths for video stabilization", 2013): for the
  step-length and the step-rotation sequences, the energy of the DFT bins 1..5 over all bins
  1..n/2 (DC left out); the mean of the two. 1 = only slow motion.
- Cropping (same paper): every 5th output frame registered against its input frame (ORB
  features, RANSAC similarity from output to input); s = output pixel size in input pixels;
  the score is the mean s^2, the share of the input's area that stays in view (1 = none lost).

The definitions match qlmr_replay's own metrics (tools/replay/measure/Metrics.cpp, Signal.cpp), so the
figures of our output can be checked against its metrics.json.
"""

import math

import cv2
import numpy as np

MAX_WIDTH = 960
CROP_EVERY = 5


def read_images(files):
    for path in files:
        img = cv2.imread(path, cv2.IMREAD_COLOR)
        if img is None:
            raise ValueError(f"{path}: cannot read the image")
        yield img


def read_video(path):
    cap = cv2.VideoCapture(path)
    if not cap.isOpened():
        raise ValueError(f"{path}: cannot open the video")
    while True:
        ok, img = cap.read()
        if not ok:
            break
        yield img
    cap.release()


def _small_gray(img):
    gray = cv2.cvtColor(img, cv2.COLOR_BGR2GRAY) if img.ndim == 3 else img
    h, w = gray.shape
    factor = 1.0
    if w > MAX_WIDTH:
        factor = w / MAX_WIDTH
        gray = cv2.resize(gray, (MAX_WIDTH, round(h / factor)), interpolation=cv2.INTER_AREA)
    return gray, factor


def frame_step(prev, cur):
    """(dx, dy, angle_rad) of the content's motion from `prev` to `cur` (same-size gray
    images), or None when too few features track."""
    h, w = prev.shape
    mask = np.zeros_like(prev)
    mask[h // 10:h - h // 10, w // 10:w - w // 10] = 255
    pts = cv2.goodFeaturesToTrack(prev, maxCorners=500, qualityLevel=0.01, minDistance=8,
                                  mask=mask)
    if pts is None or len(pts) < 8:
        return None
    nxt, status, _ = cv2.calcOpticalFlowPyrLK(prev, cur, pts, None, winSize=(21, 21), maxLevel=3)
    good = status.ravel() == 1
    if good.sum() < 8:
        return None
    a, inliers = cv2.estimateAffinePartial2D(pts[good], nxt[good], method=cv2.RANSAC,
                                             ransacReprojThreshold=1.0)
    if a is None or inliers is None or inliers.sum() < 6:
        return None
    cx, cy = w / 2.0, h / 2.0
    moved = a @ np.array([cx, cy, 1.0])
    return moved[0] - cx, moved[1] - cy, math.atan2(a[1, 0], a[0, 0])


def smooth(v, sigma):
    """Gaussian-weighted local quadratic fit at every sample (weighted mean near the ends when
    the fit is ill-conditioned)."""
    n = len(v)
    if sigma <= 0 or n < 2:
        return np.asarray(v, dtype=float)
    v = np.asarray(v, dtype=float)
    radius = int(math.ceil(3 * sigma))
    out = np.empty(n)
    for i in range(n):
        j = np.arange(max(0, i - radius), min(n - 1, i + radius) + 1)
        d = (j - i) / sigma
        w = np.exp(-0.5 * d * d)
        m = [np.sum(w * d ** e) for e in range(5)]
        r = [np.sum(w * d ** e * v[j]) for e in range(3)]
        mat = np.array([[m[0], m[1], m[2]], [m[1], m[2], m[3]], [m[2], m[3], m[4]]])
        det = np.linalg.det(mat)
        if abs(det) > 1e-9 * m[0] ** 3:
            out[i] = np.linalg.solve(mat, np.array(r))[0]
        else:
            out[i] = r[0] / m[0]
    return out


def high_pass_rms2(x, y, sigma):
    x = np.asarray(x, dtype=float)
    y = np.asarray(y, dtype=float)
    if len(x) < 2:
        return 0.0
    dx = x - smooth(x, sigma)
    dy = y - smooth(y, sigma)
    return float(math.sqrt(np.mean(dx * dx + dy * dy)))


def stability_score(motion):
    n = len(motion)
    if n < 12:
        return None
    power = np.abs(np.fft.fft(np.asarray(motion, dtype=float))) ** 2
    total = power[1:n // 2 + 1].sum()
    if total <= 1e-18:
        return 1.0
    return float(power[1:6].sum() / total)


def register_scale(out_gray, in_gray, orb, matcher):
    """s: output pixel size in input pixels, from a RANSAC similarity output -> input."""
    k1, d1 = orb.detectAndCompute(out_gray, None)
    k2, d2 = orb.detectAndCompute(in_gray, None)
    if d1 is None or d2 is None or len(k1) < 10 or len(k2) < 10:
        return None
    matches = matcher.match(d1, d2)
    if len(matches) < 10:
        return None
    p1 = np.float32([k1[m.queryIdx].pt for m in matches])
    p2 = np.float32([k2[m.trainIdx].pt for m in matches])
    a, inliers = cv2.estimateAffinePartial2D(p1, p2, method=cv2.RANSAC, ransacReprojThreshold=2.0)
    if a is None or inliers is None or inliers.sum() < 10:
        return None
    return math.sqrt(abs(np.linalg.det(a[:, :2])))


def measure_video(frames, inputs, fps):
    """Jitter, stability and cropping of one video (`frames`, an iterable of BGR images);
    `inputs` the input frames in the same order, for the cropping score (None: no score)."""
    steps, lengths, angles = [], [], []
    x, y = [0.0], [0.0]
    failed = 0
    scales = []
    orb = cv2.ORB_create(2000)
    matcher = cv2.BFMatcher(cv2.NORM_HAMMING, crossCheck=True)
    prev = None
    count = 0
    inputs = iter(inputs) if inputs is not None else None
    for i, img in enumerate(frames):
        count += 1
        gray, factor = _small_gray(img)
        src = next(inputs, None) if inputs is not None else None
        if src is not None and i % CROP_EVERY == 0:
            in_gray, in_factor = _small_gray(src)
            if in_gray.shape == gray.shape:
                s = register_scale(gray, in_gray, orb, matcher)
                if s is not None:
                    scales.append(s)
        if prev is not None:
            st = frame_step(prev, gray)
            tx = ty = ang = 0.0
            if st is None:
                failed += 1
            else:
                # Content moves by t; the camera turned the other way.
                tx, ty, ang = -st[0] * factor, -st[1] * factor, -st[2]
            steps.append((tx, ty, ang))
            x.append(x[-1] + tx)
            y.append(y[-1] + ty)
            lengths.append(math.hypot(tx, ty))
            angles.append(math.degrees(ang))
        prev = gray
    if count < 2:
        raise ValueError("fewer than two frames to measure")
    st_t = stability_score(lengths)
    st_r = stability_score(angles)
    return {
        "frames": count,
        "jitter_px": high_pass_rms2(x, y, 0.5 * fps),
        "stability": None if st_t is None or st_r is None else 0.5 * (st_t + st_r),
        "stability_translation": st_t,
        "stability_rotation": st_r,
        "cropping": float(np.mean(np.square(scales))) if scales else None,
        "tracked_fraction": 1.0 - failed / max(1, count - 1),
        "mean_step_px": float(np.mean(lengths)) if lengths else 0.0,
    }
