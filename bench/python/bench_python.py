#!/usr/bin/python3
"""The Python package beside its peers, side by side in one run (medians of repeats):

1. One 4148x4362 uint32 bitshuffle-LZ4 frame of a 100-frame HDF5 series:
   norvexa.open(master)[n].data, against h5py with the Debian filter plugins (in a
   process of its own, tools/h5py_read_frame.py, so that this library's filters, which
   it registers with the HDF5 library of its process, don't serve h5py) and against the
   C++ path (bench_hdf5's BM_ReadFrameThroughSeries, which also writes the series into
   /tmp/norvexa_bench_hdf5/read). Aims: >= 20x h5py; binding overhead <= 5% of C++.
2. A 2463x2527 int32 CBF (counts of a diffraction-like frame, written here):
   norvexa.read(path).data against fabio.open(path).data. Aim: >= 2x.
3. The 100 frames of that series read and decoded by a ThreadPoolExecutor of 2 threads
   against 1 thread. Aim: >= 1.7x on 2 cores (the GIL is released while decoding).

Run from the clone after building the targets _norvexa and bench_hdf5 in build/
(-DNORVEXA_BUILD_BENCHMARKS=ON):
    /usr/bin/python3 bench/python/bench_python.py [--build build] [--repeat 15]
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]


def median_ms(call, repeat, clock=time.perf_counter):
    times = []
    for _ in range(repeat):
        start = clock()
        call()
        times.append(clock() - start)
    return statistics.median(times) * 1000


def cpp_frame_ms(build, repetitions):
    """bench_hdf5's read through DImageSeries: medians of its repetitions' wall and CPU
    times, in ms."""
    out = subprocess.run(
        [str(build / "bench" / "bench_hdf5"), "--benchmark_filter=^BM_ReadFrameThroughSeries",
         f"--benchmark_repetitions={repetitions}", "--benchmark_format=json"],
        check=True, capture_output=True, text=True).stdout
    runs = [b for b in json.loads(out)["benchmarks"] if b.get("run_type") == "iteration"]
    assert all(b["time_unit"] == "ms" for b in runs)
    return (statistics.median(b["real_time"] for b in runs), statistics.median(b["cpu_time"] for b in runs))


def h5py_frame_ms(master, repeat):
    out = subprocess.run([sys.executable, str(ROOT / "tools" / "h5py_read_frame.py"), str(master), "50",
                          str(repeat)], check=True, capture_output=True, text=True).stdout
    return float(out.strip())


def cbf_frame(path):
    import numpy as np
    import norvexa
    rng = np.random.default_rng(7)
    height, width = 2527, 2463
    y, x = np.mgrid[0:height, 0:width]
    radius = np.hypot(x - 1231.5, y - 1263.5)
    mean = 2.0 + 40.0 * np.exp(-((radius % 180.0) - 90.0) ** 2 / 20.0) + 300.0 / (1.0 + radius / 50.0)
    counts = rng.poisson(mean).astype(np.int32)
    counts[:, 487::494] = -1  # module gaps
    counts[195::212, :] = -1
    image = norvexa.Image(counts)
    image.metadata.count_time = 0.1
    norvexa.write(image, path)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--repeat", type=int, default=15)
    args = parser.parse_args()
    sys.path.insert(0, str(args.build / "python"))
    import fabio
    import norvexa

    print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())
    master = pathlib.Path("/tmp/norvexa_bench_hdf5/read/series_master.h5")
    # C++ and Python in turns, so that both see the same load.
    # Wall times and, steadier on a loaded machine, CPU times.
    cpp, cpp_cpu, python, python_cpu = [], [], [], []
    numbers = iter(range(10**9))
    for _ in range(3):
        # bench_hdf5 writes the series anew when it starts: the file is closed meanwhile.
        wall, cpu = cpp_frame_ms(args.build, 3)
        cpp.append(wall)
        cpp_cpu.append(cpu)
        with norvexa.open(master) as series:
            frame = lambda: series[next(numbers) % 100 + 1].data  # noqa: E731
            python.append(median_ms(frame, args.repeat * 2))
            python_cpu.append(median_ms(frame, args.repeat * 2, time.process_time))
    cpp, cpp_cpu = statistics.median(cpp), statistics.median(cpp_cpu)
    python, python_cpu = statistics.median(python), statistics.median(python_cpu)
    peer = h5py_frame_ms(master, args.repeat)

    work = pathlib.Path("/tmp/norvexa_bench_python")
    work.mkdir(exist_ok=True)
    cbf = work / "frame_2463x2527.cbf"
    if not cbf.exists():
        cbf_frame(cbf)
    ours_cbf, fabio_cbf = [], []
    for _ in range(args.repeat):  # interleaved, so that both see the same load
        ours_cbf.append(median_ms(lambda: norvexa.read(cbf).data, 1))
        fabio_cbf.append(median_ms(lambda: fabio.open(str(cbf)).data, 1))
    ours_cbf, fabio_cbf = statistics.median(ours_cbf), statistics.median(fabio_cbf)

    with norvexa.open(master) as series:
        def load(number):
            return series[number].data.shape

        def run(threads):
            with concurrent.futures.ThreadPoolExecutor(threads) as pool:
                list(pool.map(load, range(series.first, series.last + 1)))

        def timed(threads):
            # Wall time, and the process's CPU time over it: above 1 only when threads
            # decode at the same time.
            wall, cpu = time.perf_counter(), time.process_time()
            run(threads)
            wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
            return wall * 1000, cpu / wall

        one, two, busy_one, busy_two = [], [], [], []
        for _ in range(3):
            ms, cores = timed(1)
            one.append(ms)
            busy_one.append(cores)
            ms, cores = timed(2)
            two.append(ms)
            busy_two.append(cores)
        one, two = statistics.median(one), statistics.median(two)
        busy_one, busy_two = statistics.median(busy_one), statistics.median(busy_two)

    print()
    print(f"4148x4362 bslz4 frame: norvexa {python:.1f} ms, h5py {peer:.1f} ms, C++ {cpp:.1f} ms")
    print(f"  speed-up over h5py {peer / python:.1f}x (aim >= 20x); "
          f"binding overhead {100 * (python - cpp) / cpp:+.1f}% of C++ (aim <= 5%)")
    print(f"  CPU time: norvexa {python_cpu:.1f} ms, C++ {cpp_cpu:.1f} ms: "
          f"binding overhead {100 * (python_cpu - cpp_cpu) / cpp_cpu:+.1f}%")
    print(f"2463x2527 CBF: norvexa {ours_cbf:.1f} ms, fabio {fabio_cbf:.1f} ms: "
          f"{fabio_cbf / ours_cbf:.1f}x (aim >= 2x)")
    print(f"100 frames, ThreadPoolExecutor: 1 thread {one:.0f} ms, 2 threads {two:.0f} ms: "
          f"{one / two:.2f}x (aim >= 1.7x on {os.cpu_count()} cores)")
    print(f"  cores in use (CPU time / wall time): 1 thread {busy_one:.2f}, 2 threads {busy_two:.2f}: "
          f"{busy_two / busy_one:.2f}x")
    print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())


if __name__ == "__main__":
    main()
