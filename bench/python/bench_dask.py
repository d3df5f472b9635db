#!/usr/bin/env python3
"""The maximum projection of a bitshuffle-LZ4 series on a LocalCluster, in one run:
norvexa.dask.from_series on 1 and on 2 worker processes, and dask.array.from_array over
the same data files read by h5py with the Debian filter plugins, the route users take
without the library.

    PYTHONPATH=build/python /usr/bin/python3 bench/python/bench_dask.py [--frames 200]

The series (2463x2527 uint32, 100 images per data file) is generated once into a
temporary directory: ten distinct frames compressed once, then stored again as they
stand. Each figure is the best of --repeat runs, each computed afresh (the scheduler has
forgotten the previous one). Aims: 2 workers >= 1.7x 1 worker;
from_series >= 5x from_array over h5py.
"""

import argparse
import gc
import os
import subprocess
import tempfile
import time

os.environ.setdefault("HDF5_PLUGIN_PATH", "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins")

import dask.array as da  # noqa: E402
import h5py  # noqa: E402
import numpy as np  # noqa: E402
from distributed import Client, LocalCluster  # noqa: E402

import norvexa  # noqa: E402
import norvexa.dask  # noqa: E402

WIDTH, HEIGHT, PER_FILE = 2463, 2527, 100


def generate(directory, frames):
    master = os.path.join(directory, "bench_master.h5")
    rng = np.random.default_rng(7)
    distinct = []
    for k in range(10):
        frame = rng.poisson(2 + k % 3, (HEIGHT, WIDTH)).astype(np.uint32)
        frame[rng.integers(0, HEIGHT, 200), rng.integers(0, WIDTH, 200)] = 5000 + k
        distinct.append(norvexa.Image(frame))
    with norvexa.Hdf5Writer(os.path.join(directory, "seed_master.h5"), 0) as writer:
        for image in distinct:
            writer.write(image)
    with norvexa.open(os.path.join(directory, "seed_master.h5")) as seed, \
            norvexa.Hdf5Writer(master, PER_FILE) as writer:
        chunks = [seed.stored(n) for n in range(seed.first, seed.last + 1)]
        for n in range(frames):
            writer.write(chunks[n % len(chunks)])
    return master


def h5py_array(master):
    """What a user writes today: one from_array per data file, Dask's automatic chunks."""
    with h5py.File(master, "r") as f:
        names = sorted(n for n in f["/entry/data"] if n.startswith("data_"))
    files = [h5py.File(master, "r") for _ in names]
    return da.concatenate([da.from_array(f["/entry/data/" + name]) for f, name in zip(files, names)])


def settle(client):
    """Waits until the scheduler has forgotten the last run: a result still held (a future
    not yet collected) would be handed back again instead of being computed."""
    gc.collect()
    while client.run_on_scheduler(lambda dask_scheduler: len(dask_scheduler.tasks)):
        time.sleep(0.05)


def best_of(client, array, repeat):
    times = []
    for _ in range(repeat):
        settle(client)
        start = time.perf_counter()
        result = array.max(axis=0).compute()
        times.append(time.perf_counter() - start)
    return min(times), times, result


def run(master, workers, repeat, routes):
    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster) as client:
        return {name: best_of(client, make(master), repeat) for name, make in routes.items()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--frames", type=int, default=200, help="frames in the series (default 200)")
    parser.add_argument("--repeat", type=int, default=3, help="timed runs of each case (default 3)")
    parser.add_argument("--rounds", type=int, default=1,
                        help="times the whole comparison runs, to see the machine's noise (default 1)")
    args = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="bench_dask_") as directory:
        start = time.perf_counter()
        master = generate(directory, args.frames)
        print(f"generated {args.frames} frames of {WIDTH}x{HEIGHT} uint32 in "
              f"{time.perf_counter() - start:.1f} s; chunks "
              f"{norvexa.dask.from_series(master).chunks[0][:3]}...")
        for round_ in range(args.rounds):
            print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())
            one = run(master, 1, args.repeat, {"from_series": norvexa.dask.from_series})
            two = run(master, 2, args.repeat, {"from_series": norvexa.dask.from_series,
                                               "h5py from_array": h5py_array})
            np.testing.assert_array_equal(one["from_series"][2], two["h5py from_array"][2])
            np.testing.assert_array_equal(two["from_series"][2], two["h5py from_array"][2])
            for label, (best, times, _) in [("from_series, 1 worker", one["from_series"]),
                                             ("from_series, 2 workers", two["from_series"]),
                                             ("h5py from_array, 2 workers", two["h5py from_array"])]:
                print(f"  {label:28s} best {best:6.2f} s  ({args.frames / best:5.1f} frames/s)  "
                      f"runs {', '.join(f'{t:.2f}' for t in times)}")
            scaling = one["from_series"][0] / two["from_series"][0]
            peer = two["h5py from_array"][0] / two["from_series"][0]
            print(f"  2 workers / 1 worker: {scaling:.2f}x (aim >= 1.7x, {scaling / 1.7:.2f} of it)")
            print(f"  from_series / h5py from_array: {peer:.2f}x (aim >= 5x, {peer / 5:.2f} of it)")
            print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())


if __name__ == "__main__":
    main()
