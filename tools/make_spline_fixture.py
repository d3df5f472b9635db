#!/usr/bin/python3
"""Writes data/spline/: a small frame with two modules (a smooth surface with noise,
hot pixels and a few masked pixels) and the background that scipy's least-squares
bivariate spline fits to the same points with the same knots. The library's spline
fit is tested against it.

Files, all little-endian and row-major, 120 x 80:
  frame.f64     the pixels as doubles
  mask.u8       1 where a pixel is excluded
  expected.f64  scipy's fit evaluated on the module pixels, NaN elsewhere
The fit: 6 x 6 coefficients of order 4 (cubic), border 2, modules at
(2, 3, 55, 70) and (63, 3, 55, 70); pixels above 10,000,000 are left out.
"""
import os

import numpy as np
from scipy.interpolate import LSQBivariateSpline

W, H = 120, 80
MODULES = [(2, 3, 55, 70), (63, 3, 55, 70)]
N, K, BORDER = 6, 4, 2
HOT = 10_000_000.0


def knots(n, k):
    return np.array([(i - k + 1) / (n + 1 - k) for i in range(k, n)])


def main():
    rng = np.random.default_rng(15)
    y, x = np.mgrid[0:H, 0:W]
    u, v = x / W, y / H
    frame = 200 + 60 * np.sin(3 * u) * np.cos(2 * v) + 40 * u * v + rng.normal(0, 2, (H, W))
    hot = rng.choice(W * H, 25, replace=False)
    frame.flat[hot] = 2e7
    mask = (rng.random((H, W)) < 0.02).astype(np.uint8)
    frame[:, 57:63] = -1  # the gap

    xs, ys, zs = [], [], []
    for left, top, width, height in MODULES:
        for yy in range(top + BORDER, top + height - BORDER):
            for xx in range(left + BORDER, left + width - BORDER):
                if mask[yy, xx] or frame[yy, xx] > HOT:
                    continue
                xs.append(xx / W)
                ys.append(yy / H)
                zs.append(frame[yy, xx])
    spline = LSQBivariateSpline(xs, ys, zs, knots(N, K), knots(N, K), kx=K - 1, ky=K - 1,
                                bbox=[0.0, 1.0, 0.0, 1.0])
    expected = np.full((H, W), np.nan)
    for left, top, width, height in MODULES:
        yy, xx = np.mgrid[top:top + height, left:left + width]
        expected[yy, xx] = spline.ev(xx / W, yy / H)

    out = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "spline")
    os.makedirs(out, exist_ok=True)
    frame.astype("<f8").tofile(os.path.join(out, "frame.f64"))
    mask.tofile(os.path.join(out, "mask.u8"))
    expected.astype("<f8").tofile(os.path.join(out, "expected.f64"))


if __name__ == "__main__":
    main()
