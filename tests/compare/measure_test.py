"""Tests of the comparison tool's image-only measurement on pictures with a known motion."""

import math
import os
import sys
import unittest

try:
    import cv2
    import numpy as np
except ImportError:  # python3-opencv missing: skipped (ctest SKIP_RETURN_CODE 77)
    sys.exit(77)

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools",
                                "compare"))
import measure  # noqa: E402


def texture(w, h, seed=3):
    """A textured picture with corners at every scale (noise blurred at two sizes)."""
    rng = np.random.default_rng(seed)
    coarse = cv2.resize(rng.integers(0, 255, (h // 16, w // 16), dtype=np.uint8), (w, h),
                        interpolation=cv2.INTER_NEAREST)
    fine = cv2.GaussianBlur(rng.integers(0, 255, (h, w), dtype=np.uint8), (0, 0), 1.5)
    img = cv2.addWeighted(coarse, 0.6, fine, 0.4, 0)
    return cv2.cvtColor(img, cv2.COLOR_GRAY2BGR)


def shifted(scene, dx, dy, w, h):
    """The w x h window of `scene` whose top-left corner is at (margin + dx, margin + dy)."""
    m = np.float32([[1, 0, -(64 + dx)], [0, 1, -(64 + dy)]])
    return cv2.warpAffine(scene, m, (w, h), flags=cv2.INTER_LINEAR)


class Measure(unittest.TestCase):
    W, H, FPS, N = 480, 320, 30.0, 60

    def setUp(self):
        self.scene = texture(self.W + 128, self.H + 128)

    def test_jitter_is_the_high_passed_shake_in_pixels(self):
        # A camera shaking at 6 Hz with 3 px amplitude on x over a slow 1 px/frame pan: the slow
        # pan passes the filter, the shake remains; its RMS is 3 / sqrt(2) px.
        xs = [i * 1.0 + 3 * math.sin(2 * math.pi * 6 * i / self.FPS) for i in range(self.N)]
        frames = [shifted(self.scene, x, 0, self.W, self.H) for x in xs]
        r = measure.measure_video(frames, None, self.FPS)
        self.assertAlmostEqual(r["jitter_px"], 3 / math.sqrt(2), delta=0.35)
        self.assertEqual(r["tracked_fraction"], 1.0)

    def test_still_video_has_no_jitter_and_full_stability(self):
        frames = [shifted(self.scene, 0, 0, self.W, self.H) for _ in range(self.N)]
        r = measure.measure_video(frames, None, self.FPS)
        self.assertLess(r["jitter_px"], 0.05)
        self.assertIsNone(r["cropping"])

    def test_cropping_is_the_retained_area_of_a_zoomed_output(self):
        # Output = input zoomed by 1.25 about its centre: each output pixel is 0.8 input pixels,
        # 0.64 of the area stays in view.
        frames_in = [shifted(self.scene, 0, 0, self.W, self.H) for _ in range(10)]
        z = 1.25
        m = np.float32([[z, 0, (1 - z) * self.W / 2], [0, z, (1 - z) * self.H / 2]])
        frames_out = [cv2.warpAffine(f, m, (self.W, self.H)) for f in frames_in]
        r = measure.measure_video(frames_out, frames_in, self.FPS)
        self.assertAlmostEqual(r["cropping"], 0.64, delta=0.02)

    def test_stability_score_is_the_low_frequency_share(self):
        n = 120
        slow = [math.sin(2 * math.pi * 2 * i / n) for i in range(n)]  # DFT bin 2 only
        fast = [math.sin(2 * math.pi * 40 * i / n) for i in range(n)]  # DFT bin 40 only
        self.assertAlmostEqual(measure.stability_score(slow), 1.0, places=6)
        self.assertAlmostEqual(measure.stability_score(fast), 0.0, places=6)
        self.assertIsNone(measure.stability_score(slow[:11]))


if __name__ == "__main__":
    unittest.main()
