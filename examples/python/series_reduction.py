#!/usr/bin/env python3
"""Reduces a detector series on a Dask cluster: the total of each frame and the mean frame
over the pixels the mask keeps, and the maximum projection, written as a PNG in the
library's colours. Prints frames per second.

    series_reduction.py run_master.h5                              # local worker processes
    series_reduction.py run_master.h5 --scheduler tcp://node:8786  # a running cluster

The workers open the series themselves: on a cluster, give a path they all reach.
"""

import argparse
import time

import dask
import dask.array as da
import numpy as np
from distributed import Client, LocalCluster
from PIL import Image as PngImage

import norvexa
import norvexa.dask


def pixel_mask(path, shape):
    """The series' pixel mask (0: a pixel to use) from its header, without decoding a frame."""
    with norvexa.open(path) as series:
        mask = series.stored(series.first).metadata.pixel_mask
    return np.zeros(shape, np.uint32) if mask is None else mask.data


def reductions(frames, mask):
    """Lazy (totals of each frame over the kept pixels, the maximum projection, the mean
    frame with NaN where the mask excludes the pixel). Sums are exact: int64 for integer
    frames, float64 for float ones."""
    keep = mask == 0
    accumulator = np.float64 if frames.dtype.kind == "f" else np.int64
    kept = da.where(keep, frames, 0)
    totals = kept.sum(axis=(1, 2), dtype=accumulator)
    maximum = frames.max(axis=0)
    mean = da.where(keep, frames.sum(axis=0, dtype=accumulator) / frames.shape[0], np.nan)
    return totals, maximum, mean


def write_png(maximum, mask, path, table):
    image = norvexa.Image(maximum)
    low, high = norvexa.contrast(image, 4, 10000, mask=mask)
    rgba = norvexa.color_map(image, low, high, table=table, mask=mask)
    PngImage.fromarray(rgba, "RGBA").save(path)


def arguments(argv=None):
    parser = argparse.ArgumentParser(
        description=__doc__.split("\n\n")[0],
        epilog="Without --scheduler a LocalCluster of --workers processes runs on this machine; "
               "with it, the script is a client of a cluster that runs already (dask scheduler and "
               "dask worker, or dask-jobqueue on a batch system).")
    parser.add_argument("series", help="an HDF5 master file, or one file of a numbered CBF, TIFF or "
                                       "EDF series")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="the scheduler of a running cluster, e.g. tcp://node:8786")
    parser.add_argument("--workers", type=int, default=2,
                        help="worker processes of the local cluster (default 2)")
    parser.add_argument("--threads-per-worker", type=int, default=1,
                        help="threads in each local worker (default 1); they decode side by side")
    parser.add_argument("--frames-per-chunk", type=int, default=None,
                        help="frames per task (default: chosen near 128 MiB, along the data files)")
    parser.add_argument("--png", default="maximum.png",
                        help="where to write the maximum projection (default maximum.png)")
    parser.add_argument("--table", default="hdr", choices=["hdr", "grey", "heat", "rainbow"],
                        help="the colour table of the PNG (default hdr)")
    return parser.parse_args(argv)


def main(argv=None):
    args = arguments(argv)
    cluster = None
    if not args.scheduler:
        cluster = LocalCluster(n_workers=args.workers, threads_per_worker=args.threads_per_worker,
                               processes=True, dashboard_address=None)
    with Client(args.scheduler or cluster):
        frames = norvexa.dask.from_series(args.series, args.frames_per_chunk)
        mask = pixel_mask(args.series, frames.shape[1:])
        print(f"{args.series}: {frames.shape[0]} frames of {frames.shape[2]}x{frames.shape[1]} "
              f"{frames.dtype}, {frames.numblocks[0]} tasks on {len(client.scheduler_info()['workers'])} workers")
        start = time.perf_counter()
        totals, maximum, mean = dask.compute(*reductions(frames, mask))
        seconds = time.perf_counter() - start
        print(f"{frames.shape[0] / seconds:.1f} frames/s ({seconds:.2f} s)")
        print(f"totals: min {totals.min()}, max {totals.max()}, mean {totals.mean():.6g}")
        print(f"mean frame over {np.count_nonzero(mask == 0)} kept pixels: {np.nanmean(mean):.6g}")
        write_png(maximum, mask, args.png, args.table)
        print(f"maximum projection: {args.png}")
    if cluster is not None:
        cluster.close()


if __name__ == "__main__":
    main()
