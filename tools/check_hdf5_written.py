#!/usr/bin/python3
"""Reads an HDF5/NeXus master file with h5py and the Debian filter plugins and prints
what it found, so that the writer's tests can compare it with what they wrote.

Run with the system Python: /usr/bin/python3 tools/check_hdf5_written.py MASTER
Needs python3-h5py and python3-numpy; the filter plugins come from hdf5-filter-plugin
and bitshuffle. Lines:
  link <name> <file or "-"> <image_nr_low> <image_nr_high or "-">   for each data_NNNNNN
  image <number> <dtype> <height>x<width> <MD5 hex of the pixels as little-endian bytes>
  header <path> <value>   for each scalar dataset outside /entry/data
Exit status 77 when a module is missing (the tests then skip), else 0.
"""

import hashlib
import os
import sys

os.environ["HDF5_PLUGIN_PATH"] = "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins"

try:
    import h5py
    import numpy as np
except ImportError as error:
    print("unavailable " + str(error))
    sys.exit(77)


def main(master):
    with h5py.File(master, "r") as f:
        data = f["/entry/data"]
        for name in sorted(data.keys()):
            link = data.get(name, getlink=True)
            target = link.filename if isinstance(link, h5py.ExternalLink) else "-"
            dataset = data[name]
            low = int(dataset.attrs["image_nr_low"])
            high = dataset.attrs.get("image_nr_high")
            print("link %s %s %d %s" % (name, target, low, "-" if high is None else int(high)))
            for frame in range(dataset.shape[0]):
                pixels = np.ascontiguousarray(dataset[frame])
                little = pixels.astype(pixels.dtype.newbyteorder("<"))
                print("image %d %s %dx%d %s" % (low + frame, pixels.dtype.name, pixels.shape[0],
                                                pixels.shape[1], hashlib.md5(little.tobytes()).hexdigest()))

        def header(path, item):
            if isinstance(item, h5py.Dataset) and not path.startswith("entry/data") and item.shape == ():
                value = item[()]
                print("header /%s %s" % (path, value.decode() if isinstance(value, bytes) else value))
        f.visititems(header)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
