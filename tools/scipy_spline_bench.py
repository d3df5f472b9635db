#!/usr/bin/python3
"""The peer figure of bench/bench_spline.cpp: scipy's least-squares bivariate spline
(FITPACK surfit) on the same points and knots as the library's splineFit of the
4148 x 4362 frame over its 32 modules, 10 x 10 coefficients of order 4, no border.

    tools/scipy_spline_bench.py build/bench/bench_spline

Prints the time of the fit and of the evaluation on the module pixels, wall clock and
process CPU time.
"""
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy.interpolate import LSQBivariateSpline

W, H = 4148, 4362
MW, MH, GX, GY = 1028, 512, 12, 38
N, K = 10, 4


def main():
    with tempfile.NamedTemporaryFile(suffix=".i32") as f:
        subprocess.run([sys.argv[1], "--write-frame", f.name], check=True)
        frame = np.fromfile(f.name, dtype="<i4").reshape(H, W)
    modules = [(x, y) for y in range(0, H, MH + GY) for x in range(0, W, MW + GX)]
    xs, ys, zs = [], [], []
    for left, top in modules:
        yy, xx = np.mgrid[top:top + MH, left:left + MW]
        z = frame[top:top + MH, left:left + MW].astype(np.float64)
        keep = z <= 1e7
        xs.append(xx[keep] / W)
        ys.append(yy[keep] / H)
        zs.append(z[keep])
    x, y, z = np.concatenate(xs), np.concatenate(ys), np.concatenate(zs)
    interior = np.array([(i - K + 1) / (N + 1 - K) for i in range(K, N)])
    print(f"{len(z)} points")

    w0, c0 = time.perf_counter(), time.process_time()
    spline = LSQBivariateSpline(x, y, z, interior, interior, kx=K - 1, ky=K - 1,
                                bbox=[0.0, 1.0, 0.0, 1.0])
    w1, c1 = time.perf_counter(), time.process_time()
    for left, top in modules:
        yy, xx = np.mgrid[top:top + MH, left:left + MW]
        spline.ev(xx / W, yy / H)
    w2, c2 = time.perf_counter(), time.process_time()
    print(f"fit        {(w1 - w0) * 1e3:9.0f} ms wall {(c1 - c0) * 1e3:9.0f} ms cpu")
    print(f"evaluation {(w2 - w1) * 1e3:9.0f} ms wall {(c2 - c1) * 1e3:9.0f} ms cpu")
    print(f"total      {(w2 - w0) * 1e3:9.0f} ms wall {(c2 - c0) * 1e3:9.0f} ms cpu")
    print(f"value at (100, 100): {spline.ev(100 / W, 100 / H):.6f}")


if __name__ == "__main__":
    main()
