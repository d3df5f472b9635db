#!/usr/bin/python3
"""Reads one frame of an HDF5 NeXus series with h5py, as a peer for the reader's
benchmark, and prints the median time of one read in milliseconds.

Run with the system Python: /usr/bin/python3 tools/h5py_read_frame.py MASTER IMAGE REPEAT
Needs python3-h5py, python3-numpy and hdf5-filter-plugin.

The master is opened once. The link /entry/data/data_NNNNNN whose "image_nr_low" and
"image_nr_high" hold IMAGE is found, and the frame is read REPEAT times as
dataset[IMAGE - image_nr_low] into a numpy array. Standard output is the median
milliseconds per read alone, e.g. "41.237"; an image that no link holds is reported on
standard error with exit status 1.
"""

import os
import re
import statistics
import sys
import time

os.environ["HDF5_PLUGIN_PATH"] = "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins"

import h5py  # noqa: E402

LINK_NAME = re.compile(r"^data_\d{6}$")


def find_frame(master, image):
    group = master["/entry/data"]
    for name in sorted(group):
        if not LINK_NAME.match(name):
            continue
        ds = group.get(name)
        # A dangling link (data file not written yet) gives None.
        if ds is None or "image_nr_low" not in ds.attrs or "image_nr_high" not in ds.attrs:
            continue
        low, high = int(ds.attrs["image_nr_low"]), int(ds.attrs["image_nr_high"])
        if low <= image <= high:
            return ds, image - low
    return None, None


def main():
    if len(sys.argv) != 4:
        sys.stderr.write("usage: h5py_read_frame.py MASTER IMAGE REPEAT\n")
        return 2
    path, image, repeat = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    with h5py.File(path, "r") as master:
        ds, index = find_frame(master, image)
        if ds is None:
            sys.stderr.write("image %d not found in %s\n" % (image, path))
            return 1
        times = []
        for _ in range(max(repeat, 1)):
            start = time.perf_counter()
            frame = ds[index]
            times.append(time.perf_counter() - start)
        assert frame.ndim == 2
    print("%.3f" % (statistics.median(times) * 1000.0))
    return 0


if __name__ == "__main__":
    sys.exit(main())
