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
   against 1 thread. Aim: >= 1.7x on 2 cores (the GIL is released while decoding). As
   the wall-time figure needs two idle cores, two more: the cores in use, and how fast
   the main thread's Python loop runs beside a decoding thread, against a call that keeps
   the GIL.

Run from the clone after building the targets _norvexa and bench_hdf5 in build/
(-DNORVEXA_BUILD_BENCHMARKS=ON):
    /usr/bin/python3 bench/python/bench_python.py [--build build] [--repeat 15] [--part threads]
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import statistics
import subprocess
import sys
import threading
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


def progress_during(call, repeat):
    """Loop iterations per second of the calling thread while another thread makes `call`
    `repeat` times."""
    done = threading.Event()

    def worker():
        for _ in range(repeat):
            call()
        done.set()

    thread = threading.Thread(target=worker)
    count, start = 0, time.perf_counter()
    thread.start()
    while not done.is_set():
        count += 1
    elapsed = time.perf_counter() - start
    thread.join()
    return count / elapsed


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


MASTER = pathlib.Path("/tmp/norvexa_bench_hdf5/read/series_master.h5")


def bench_frame(norvexa, args):
    # C++ and Python in turns, so that both see the same load; wall times and, steadier
    # on a loaded machine, CPU times.
    cpp, cpp_cpu, python, python_cpu = [], [], [], []
    numbers = iter(range(10**9))
    for _ in range(3):
        # bench_hdf5 writes the series anew when it starts: the file is closed meanwhile.
        wall, cpu = cpp_frame_ms(args.build, 3)
        cpp.append(wall)
        cpp_cpu.append(cpu)
        with norvexa.open(MASTER) as series:
            frame = lambda: series[next(numbers) % 100 + 1].data  # noqa: E731
            python.append(median_ms(frame, args.repeat * 2))
            python_cpu.append(median_ms(frame, args.repeat * 2, time.process_time))
    cpp, cpp_cpu = statistics.median(cpp), statistics.median(cpp_cpu)
    python, python_cpu = statistics.median(python), statistics.median(python_cpu)
    peer = h5py_frame_ms(MASTER, args.repeat)
    # An upper bound of the binding's own cost, steady under load: a whole call on a
    # 19x13 frame (binding, lock, HDF5 look-up and chunk read, a decode of 1 KB).
    with norvexa.open(ROOT / "data" / "hdf5" / "uint32_bslz4_master.h5") as small:
        tiny = median_ms(lambda: [small[n % 5 + 1].data for n in range(100)], args.repeat) / 100
    return [f"4148x4362 bslz4 frame: norvexa {python:.1f} ms, h5py {peer:.1f} ms, C++ {cpp:.1f} ms",
            f"  speed-up over h5py {peer / python:.1f}x (aim >= 20x); "
            f"binding overhead {100 * (python - cpp) / cpp:+.1f}% of C++ (aim <= 5%)",
            f"  CPU time: norvexa {python_cpu:.1f} ms, C++ {cpp_cpu:.1f} ms: "
            f"binding overhead {100 * (python_cpu - cpp_cpu) / cpp_cpu:+.1f}%",
            f"  a whole call on a 19x13 frame: {1000 * tiny:.0f} us = {100 * tiny / cpp:.2f}% of the C++ "
            f"frame time (a bound of the binding's cost)"]


def bench_cbf(norvexa, args):
    import fabio
    work = pathlib.Path("/tmp/norvexa_bench_python")
    work.mkdir(exist_ok=True)
    cbf = work / "frame_2463x2527.cbf"
    if not cbf.exists():
        cbf_frame(cbf)
    ours, peer = [], []
    for _ in range(args.repeat):  # interleaved, so that both see the same load
        ours.append(median_ms(lambda: norvexa.read(cbf).data, 1))
        peer.append(median_ms(lambda: fabio.open(str(cbf)).data, 1))
    ours, peer = statistics.median(ours), statistics.median(peer)
    return [f"2463x2527 CBF: norvexa {ours:.1f} ms, fabio {peer:.1f} ms: {peer / ours:.1f}x (aim >= 2x)"]


def bench_threads(norvexa, args):
    if not MASTER.exists():
        cpp_frame_ms(args.build, 1)
    with norvexa.open(MASTER) as series:
        def load(number):
            return series[number].data.shape

        def timed(threads):
            # Wall time, and the process's CPU time over it: above 1 only when threads
            # decode at the same time.
            wall, cpu = time.perf_counter(), time.process_time()
            with concurrent.futures.ThreadPoolExecutor(threads) as pool:
                list(pool.map(load, range(series.first, series.last + 1)))
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
        # Whether Python runs beside a decode: the main thread counts while a second thread
        # decodes frames, against a call of like length that keeps the GIL (bytes.count).
        # Independent of how much CPU the machine grants the process.
        numbers = iter(range(10**9))
        decode = lambda: series[next(numbers) % 100 + 1].data  # noqa: E731
        blob = bytes(400_000_000)
        holder = lambda: blob.count(b"\x01")  # noqa: E731
        alone = progress_during(lambda: time.sleep(0.5), 1)
        beside_decode = progress_during(decode, 20)
        beside_holder = progress_during(holder, 20)
    one, two = statistics.median(one), statistics.median(two)
    busy_one, busy_two = statistics.median(busy_one), statistics.median(busy_two)
    return [f"100 frames, ThreadPoolExecutor: 1 thread {one:.0f} ms, 2 threads {two:.0f} ms: "
            f"{one / two:.2f}x (aim >= 1.7x on {os.cpu_count()} cores)",
            f"  cores in use (CPU time / wall time): 1 thread {busy_one:.2f}, 2 threads {busy_two:.2f}",
            f"  the main thread's Python loop beside a decoding thread: {beside_decode / alone:.2f} of its "
            f"speed alone; beside a GIL-holding call: {beside_holder / alone:.2f}"]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--repeat", type=int, default=15)
    parser.add_argument("--part", choices=["all", "frame", "cbf", "threads"], default="all")
    args = parser.parse_args()
    sys.path.insert(0, str(args.build / "python"))
    import norvexa

    uptime = lambda: subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip()  # noqa: E731
    print("uptime:", uptime())
    lines = []
    for part, bench in (("frame", bench_frame), ("cbf", bench_cbf), ("threads", bench_threads)):
        if args.part in ("all", part):
            lines += bench(norvexa, args)
    print()
    print("\n".join(lines))
    print("uptime:", uptime())


if __name__ == "__main__":
    main()
