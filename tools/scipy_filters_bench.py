#!/usr/bin/python3
"""The peer figures of bench/bench_filters.cpp: scipy.ndimage and numpy on the same
2463 x 2527 int32 frame, which the benchmark writes with --write-frame.

    tools/scipy_filters_bench.py build/bench/bench_filters

Prints the best of 5 runs of each operation in ms, wall clock and process CPU time
(the build machine is shared, so the CPU time is the steadier figure).
"""
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy import ndimage

W, H = 2463, 2527


def best(fn, runs=5):
    wall, cpu = [], []
    for _ in range(runs):
        w0, c0 = time.perf_counter(), time.process_time()
        fn()
        wall.append(time.perf_counter() - w0)
        cpu.append(time.process_time() - c0)
    return min(wall) * 1e3, min(cpu) * 1e3


def main():
    with tempfile.NamedTemporaryFile(suffix=".i32") as f:
        subprocess.run([sys.argv[1], "--write-frame", f.name], check=True)
        frame = np.fromfile(f.name, dtype="<i4").reshape(H, W)
    mask = frame == -1
    valid = ~mask
    as_float = frame.astype(np.float64)

    def variance_filter():
        mean = ndimage.uniform_filter(as_float, 3, mode="constant")
        return ndimage.uniform_filter(as_float * as_float, 3, mode="constant") - mean * mean

    cases = [
        ("median_filter 3x3", lambda: ndimage.median_filter(frame, size=3)),
        ("median_filter 5x5", lambda: ndimage.median_filter(frame, size=5)),
        ("uniform_filter 3x3", lambda: ndimage.uniform_filter(frame, size=3)),
        ("variance by two uniform_filters 3x3, float64", variance_filter),
        ("mean of unmasked (numpy)", lambda: frame[valid].mean()),
        ("var(ddof=1) of unmasked (numpy)", lambda: frame[valid].var(ddof=1)),
        ("median of unmasked (numpy)", lambda: np.median(frame[valid])),
        ("copy of the frame (numpy)", lambda: frame.copy()),
    ]
    for name, fn in cases:
        wall, cpu = best(fn)
        print(f"{name:48s} {wall:9.1f} ms wall {cpu:9.1f} ms cpu")


if __name__ == "__main__":
    main()
