#!/usr/bin/python3
"""Writes a large HDF5 NeXus series for the reader's benchmark with h5py and the Debian
bitshuffle/LZ4 filter plugin. Its output is made at run time and never committed.

Run with the system Python: /usr/bin/python3 tools/make_hdf5_bench_file.py [DIR]
DIR defaults to /tmp/norvexa-h5bench. Needs python3-h5py, python3-numpy and
hdf5-filter-plugin.

  DIR/series_master.h5       /entry (NXentry), /entry/data (NXdata) with the external
                             link data_000001, and a small detector header (count_time,
                             frame_time, pixel sizes, description, nimages); no
                             pixel_mask
  DIR/series_data_000001.h5  /entry/data/data: uint32 [100, 4362, 4148], chunked one
                             frame a chunk, bitshuffle with LZ4 (filter 32008), images
                             1 to 100

Frames are 4148 wide and 4362 high: 4 x 8 modules of 1028 x 512 pixels with gaps of 12
columns and 38 rows, gap pixels 0xffffffff (-1 as int32). Module pixels hold a Poisson
background of mean 0.5 and 400 Gaussian spots of peak 10 to 20000. To stay fast, one
background is drawn once and each frame shifts it by a different number of pixels;
the spots are drawn anew for each frame. Content is the same from run to run.
"""

import os
import sys
import time

os.environ["HDF5_PLUGIN_PATH"] = "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins"

import h5py  # noqa: E402
import numpy as np  # noqa: E402

WIDTH, HEIGHT = 4148, 4362
MODULE_W, MODULE_H, GAP_X, GAP_Y = 1028, 512, 12, 38
FRAMES = 100
SPOTS = 400


def gap_mask():
    x = np.arange(WIDTH) % (MODULE_W + GAP_X) >= MODULE_W
    y = np.arange(HEIGHT) % (MODULE_H + GAP_Y) >= MODULE_H
    return y[:, None] | x[None, :]


def add_spots(frame, rng):
    r = np.arange(-4, 5)
    for _ in range(SPOTS):
        cx = rng.uniform(4, WIDTH - 5)
        cy = rng.uniform(4, HEIGHT - 5)
        peak = 10.0 ** rng.uniform(1.0, 4.3)
        ix, iy = int(cx), int(cy)
        dx = ix + r - cx
        dy = iy + r - cy
        spot = np.floor(peak * np.exp(-(dy[:, None] ** 2 + dx[None, :] ** 2) / 2.0))
        frame[iy - 4:iy + 5, ix - 4:ix + 5] += spot.astype(np.uint32)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "/tmp/norvexa-h5bench"
    os.makedirs(out, exist_ok=True)
    start = time.time()
    rng = np.random.default_rng(20240601)
    background = rng.poisson(0.5, size=HEIGHT * WIDTH).astype(np.uint32)
    gaps = gap_mask()

    data_name = "series_data_000001.h5"
    with h5py.File(os.path.join(out, data_name), "w") as f:
        entry = f.create_group("entry")
        entry.attrs["NX_class"] = np.bytes_("NXentry")
        group = entry.create_group("data")
        group.attrs["NX_class"] = np.bytes_("NXdata")
        ds = group.create_dataset("data", shape=(FRAMES, HEIGHT, WIDTH), dtype=np.uint32,
                                  chunks=(1, HEIGHT, WIDTH), compression=32008,
                                  compression_opts=(0, 2))
        ds.attrs.create("image_nr_low", 1, dtype=np.int32)
        ds.attrs.create("image_nr_high", FRAMES, dtype=np.int32)
        for i in range(FRAMES):
            # A shift of a prime number of pixels per frame: no two frames alike, and
            # no cost beyond one copy.
            frame = np.roll(background, i * 7919).reshape(HEIGHT, WIDTH)
            add_spots(frame, rng)
            frame[gaps] = 0xFFFFFFFF
            ds[i] = frame

    with h5py.File(os.path.join(out, "series_master.h5"), "w") as f:
        entry = f.create_group("entry")
        entry.attrs["NX_class"] = np.bytes_("NXentry")
        group = entry.create_group("data")
        group.attrs["NX_class"] = np.bytes_("NXdata")
        group["data_000001"] = h5py.ExternalLink(data_name, "/entry/data/data")
        det = entry.create_group("instrument").create_group("detector")
        entry["instrument"].attrs["NX_class"] = np.bytes_("NXinstrument")
        det.attrs["NX_class"] = np.bytes_("NXdetector")
        for name, value, units in (("count_time", 0.1, "s"), ("frame_time", 0.1, "s"),
                                   ("x_pixel_size", 7.5e-05, "m"),
                                   ("y_pixel_size", 7.5e-05, "m")):
            det.create_dataset(name, data=np.float64(value)).attrs["units"] = \
                np.bytes_(units)
        det.create_dataset("description", data=np.bytes_(b"Test Detector 16M"))
        spec = det.create_group("detectorSpecific")
        spec.attrs["NX_class"] = np.bytes_("NXcollection")
        spec.create_dataset("nimages", data=np.int32(FRAMES))

    # One frame back as a check that the file and the link are sound.
    with h5py.File(os.path.join(out, "series_master.h5"), "r") as f:
        ds = f["/entry/data/data_000001"]
        frame = np.roll(background, 3 * 7919).reshape(HEIGHT, WIDTH)
        back = ds[3]
        assert back.shape == (HEIGHT, WIDTH)
        assert np.array_equal(back[gaps], np.full(np.count_nonzero(gaps), 0xFFFFFFFF))
        assert np.count_nonzero(back[~gaps] < frame[~gaps]) == 0

    size = os.path.getsize(os.path.join(out, data_name))
    print("%s: %d frames, %.0f MB, %.1f s" % (out, FRAMES, size / 1e6, time.time() - start))
    return 0


if __name__ == "__main__":
    sys.exit(main())
