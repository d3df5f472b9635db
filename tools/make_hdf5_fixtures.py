#!/usr/bin/python3
"""Writes the HDF5 NeXus reader's fixtures under data/hdf5/ with h5py and the Debian
HDF5 filter plugins, then reads every dataset back through h5py as a check.

Run with the system Python: /usr/bin/python3 tools/make_hdf5_fixtures.py
Needs the Debian packages python3-h5py, python3-numpy and hdf5-filter-plugin (the
script points HDF5_PLUGIN_PATH at their directory itself). The output is the same
byte for byte from run to run.

Pixels. Frames are W=19 wide and H=13 high. Image n (1-based over the whole series),
row y, column x holds
    value(n, y, x) = (n * 1000 + y * 37 + x * 3) % 60000
for uint16, uint32 and int32, and value(n, y, x) * 0.25 for float32 (exact in float).
In int32 frames pixel (y=0, x=0) is -1 instead, to show the sign.

Image datasets are [frames, 13, 19], chunked [1, 13, 19], with the scalar int32
attributes "image_nr_low" and "image_nr_high". A data file holds them at
/entry/data/data; a master links /entry/data/data_NNNNNN to it by an external link
with the bare file name, so it resolves beside the master. Filters: none (chunked,
no filter), lz4 (id 32004, block size 0 = default), bslz4 (id 32008, bitshuffle
with LZ4, block size 0 = automatic), bzip2 (id 307, level 9).

Header. Every master has /entry (NX_class "NXentry"), /entry/data ("NXdata"),
/entry/instrument ("NXinstrument"), /entry/instrument/detector ("NXdetector") and
detector/count_time = 0.1 (float64, units "s"). NX_class and units attributes are
fixed-length byte strings with one element. The "full" header, only in
uint32_bslz4_master.h5 and mask_mismatch_master.h5, adds under
/entry/instrument/detector: frame_time 0.1 s, x_pixel_size and y_pixel_size
7.5e-05 m, detector_distance 0.12 m, description "Test Detector 1M", detector_number
"T-0001", sensor_material "Si" (fixed-length byte strings), sensor_thickness
0.00045 m, threshold_energy 4000.0 eV (float64), bit_depth_readout 32 (int32);
/entry/instrument/beam (NXbeam) incident_wavelength 1.0332 A (float64); and
detector/detectorSpecific (NXcollection) with nimages 5 (int32) and pixel_mask
(uint32 [13, 19], contiguous, no filter): 0 except row 6 = 1, (y=2, x=3) = 1 and
(y=5, x=7) = 2.

Files (uint32 and bslz4 unless told otherwise):
  <t>_<f>_master.h5        t in uint16 uint32 int32 float32, f in none lz4 bslz4;
                           data_000001 -> <t>_<f>_data_000001.h5, images 1-3,
                           data_000002 -> <t>_<f>_data_000002.h5, images 4-5
  missing_last_master.h5   as uint32_bslz4 (minimal header); data file 2 (4-5) absent
  missing_middle_master.h5 data files of images 1-3, 4-6, 7-8; the second absent
  three_files_master.h5    data files of images 1-3, 4-6, 7-8, all present
  open_last_master.h5      images 1-3 and 4-5; the last dataset has image_nr_low
                           but no image_nr_high (a series still being written)
  legacy_master.h5         no links: datasets /entry/data/frames_a (images 1-3) and
                           /entry/data/frames_b (4-5) in the master itself
  legacy_gap.h5            the same with frames_a 1-3 and frames_b 5-6
  legacy_overlap.h5        the same with frames_a 1-3 and frames_b 3-5
  bad_links_master.h5      /entry/data holds only the links data_1 and data_0000001,
                           both to bad_links_data_000001.h5 (images 1-3)
  mask_mismatch_master.h5  full header but pixel_mask of [14, 21] (the same marks);
                           one data file of images 1-2
  bzip2_master.h5          one data file of images 1-3 with the bzip2 filter
  no_images.h5             /entry and /entry/instrument/detector/count_time only
"""

import os
import sys

PLUGINS = "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins"
os.environ["HDF5_PLUGIN_PATH"] = PLUGINS  # before h5py loads the HDF5 library

import h5py  # noqa: E402
import numpy as np  # noqa: E402

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "hdf5")

W, H = 19, 13
DTYPES = {"uint16": np.uint16, "uint32": np.uint32, "int32": np.int32,
          "float32": np.float32}
# name -> (filter id or None, h5py compression_opts)
FILTERS = {"none": (None, None), "lz4": (32004, (0,)), "bslz4": (32008, (0, 2)),
           "bzip2": (307, (9,))}

# (file, dataset path, dtype name, first image, last image, filter name, has
# image_nr_high) of every image dataset written, for the read-back check.
WRITTEN = []


def frames(dtype, low, high):
    n = np.arange(low, high + 1).reshape(-1, 1, 1)
    y = np.arange(H).reshape(1, -1, 1)
    x = np.arange(W).reshape(1, 1, -1)
    v = (n * 1000 + y * 37 + x * 3) % 60000
    if dtype == "float32":
        return (v * 0.25).astype(np.float32)
    v = v.astype(DTYPES[dtype])
    if dtype == "int32":
        v[:, 0, 0] = -1
    return v


def nx_class(obj, name):
    obj.attrs["NX_class"] = np.bytes_(name)


def scalar(group, name, value, dtype=np.float64, units=None):
    ds = group.create_dataset(name, data=np.array(value, dtype=dtype))
    if units is not None:
        ds.attrs["units"] = np.bytes_(units)
    return ds


def pixel_mask(height, width):
    m = np.zeros((height, width), dtype=np.uint32)
    m[6, :] = 1
    m[2, 3] = 1
    m[5, 7] = 2
    return m


def write_images(group, name, dtype, low, high, filt, with_high=True):
    fid, opts = FILTERS[filt]
    data = frames(dtype, low, high)
    ds = group.create_dataset(name, data=data, chunks=(1, H, W), compression=fid,
                              compression_opts=opts)
    ds.attrs.create("image_nr_low", low, dtype=np.int32)
    if with_high:
        ds.attrs.create("image_nr_high", high, dtype=np.int32)
    return ds


def write_header(f, full=False, mask_shape=(H, W)):
    entry = f.require_group("entry")
    nx_class(entry, "NXentry")
    instrument = entry.create_group("instrument")
    nx_class(instrument, "NXinstrument")
    det = instrument.create_group("detector")
    nx_class(det, "NXdetector")
    scalar(det, "count_time", 0.1, units="s")
    if not full:
        return
    scalar(det, "frame_time", 0.1, units="s")
    scalar(det, "x_pixel_size", 7.5e-05, units="m")
    scalar(det, "y_pixel_size", 7.5e-05, units="m")
    scalar(det, "detector_distance", 0.12, units="m")
    det.create_dataset("description", data=np.bytes_(b"Test Detector 1M"))
    det.create_dataset("detector_number", data=np.bytes_(b"T-0001"))
    det.create_dataset("sensor_material", data=np.bytes_(b"Si"))
    scalar(det, "sensor_thickness", 0.00045, units="m")
    scalar(det, "threshold_energy", 4000.0, units="eV")
    scalar(det, "bit_depth_readout", 32, dtype=np.int32)
    beam = instrument.create_group("beam")
    nx_class(beam, "NXbeam")
    scalar(beam, "incident_wavelength", 1.0332, units="A")
    specific = det.create_group("detectorSpecific")
    nx_class(specific, "NXcollection")
    scalar(specific, "nimages", 5, dtype=np.int32)
    specific.create_dataset("pixel_mask", data=pixel_mask(*mask_shape))


def data_group(f):
    entry = f.require_group("entry")
    nx_class(entry, "NXentry")
    data = entry.create_group("data")
    nx_class(data, "NXdata")
    return data


def path(name):
    return os.path.join(OUT, name)


def write_series(prefix, parts, dtype="uint32", filt="bslz4", full=False,
                 absent=(), open_last=False, mask_shape=(H, W)):
    """A master <prefix>_master.h5 linking data_000001... to <prefix>_data_NNNNNN.h5;
    parts lists (first, last) image of each data file; indexes in absent (0-based) are
    linked but not written."""
    master = prefix + "_master.h5"
    with h5py.File(path(master), "w") as f:
        data = data_group(f)
        write_header(f, full, mask_shape)
        for i, (low, high) in enumerate(parts):
            link = "data_%06d" % (i + 1)
            target = "%s_data_%06d.h5" % (prefix, i + 1)
            data[link] = h5py.ExternalLink(target, "/entry/data/data")
            if i in absent:
                continue
            last = i == len(parts) - 1
            with h5py.File(path(target), "w") as d:
                write_images(data_group(d), "data", dtype, low, high, filt,
                             with_high=not (open_last and last))
            WRITTEN.append((master, "/entry/data/" + link, dtype, low, high, filt,
                            not (open_last and last)))


def write_legacy(name, parts):
    with h5py.File(path(name), "w") as f:
        data = data_group(f)
        write_header(f)
        for suffix, (low, high) in zip("ab", parts):
            write_images(data, "frames_" + suffix, "uint32", low, high, "bslz4")
            WRITTEN.append((name, "/entry/data/frames_" + suffix, "uint32", low, high,
                            "bslz4", True))


def write_all():
    for dtype in DTYPES:
        for filt in ("none", "lz4", "bslz4"):
            full = dtype == "uint32" and filt == "bslz4"
            write_series("%s_%s" % (dtype, filt), [(1, 3), (4, 5)], dtype, filt, full)
    write_series("missing_last", [(1, 3), (4, 5)], absent=(1,))
    write_series("missing_middle", [(1, 3), (4, 6), (7, 8)], absent=(1,))
    write_series("three_files", [(1, 3), (4, 6), (7, 8)])
    write_series("open_last", [(1, 3), (4, 5)], open_last=True)
    write_series("mask_mismatch", [(1, 2)], full=True, mask_shape=(H + 1, W + 2))
    write_series("bzip2", [(1, 3)], filt="bzip2")
    write_legacy("legacy_master.h5", [(1, 3), (4, 5)])
    write_legacy("legacy_gap.h5", [(1, 3), (5, 6)])
    write_legacy("legacy_overlap.h5", [(1, 3), (3, 5)])

    with h5py.File(path("bad_links_master.h5"), "w") as f:
        data = data_group(f)
        write_header(f)
        for link in ("data_1", "data_0000001"):
            data[link] = h5py.ExternalLink("bad_links_data_000001.h5", "/entry/data/data")
    with h5py.File(path("bad_links_data_000001.h5"), "w") as d:
        write_images(data_group(d), "data", "uint32", 1, 3, "bslz4")
    for link in ("data_1", "data_0000001"):
        WRITTEN.append(("bad_links_master.h5", "/entry/data/" + link, "uint32", 1, 3,
                        "bslz4", True))

    with h5py.File(path("no_images.h5"), "w") as f:
        write_header(f)


def check():
    """Reads every image dataset back from a fresh handle, from another working
    directory, so that the external links must resolve beside the master."""
    os.chdir("/")
    for name, dspath, dtype, low, high, filt, has_high in WRITTEN:
        with h5py.File(path(name), "r") as f:
            ds = f[dspath]
            assert ds.shape == (high - low + 1, H, W) and ds.chunks == (1, H, W), name
            assert ds.dtype == DTYPES[dtype], name
            assert np.array_equal(ds[()], frames(dtype, low, high)), (name, dspath)
            assert ds.attrs["image_nr_low"] == low, name
            assert ("image_nr_high" in ds.attrs) == has_high, name
            if has_high:
                assert ds.attrs["image_nr_high"] == high, name
                assert ds.attrs["image_nr_high"].dtype == np.int32, name
            plist = ds.id.get_create_plist()
            fid = FILTERS[filt][0]
            if fid is None:
                assert plist.get_nfilters() == 0, name
            else:
                assert plist.get_nfilters() == 1 and plist.get_filter(0)[0] == fid, name
                # An optional filter that failed leaves a chunk unfiltered: make sure
                # every chunk really went through the filter.
                for i in range(ds.id.get_num_chunks()):
                    assert ds.id.get_chunk_info(i).filter_mask == 0, (name, i)

    for name, link in (("missing_last_master.h5", "data_000002"),
                       ("missing_middle_master.h5", "data_000002")):
        with h5py.File(path(name), "r") as f:
            assert link in f["/entry/data"] and f["/entry/data"].get(link) is None, name

    with h5py.File(path("uint32_bslz4_master.h5"), "r") as f:
        det = f["/entry/instrument/detector"]
        assert det["description"][()] == b"Test Detector 1M"
        assert det["threshold_energy"].attrs["units"] == b"eV"
        assert f["/entry/data"].attrs["NX_class"] == b"NXdata"
        assert np.array_equal(det["detectorSpecific/pixel_mask"][()], pixel_mask(H, W))
    with h5py.File(path("mask_mismatch_master.h5"), "r") as f:
        mask = f["/entry/instrument/detector/detectorSpecific/pixel_mask"]
        assert mask.shape == (H + 1, W + 2)
    with h5py.File(path("no_images.h5"), "r") as f:
        assert "data" not in f["/entry"]
        assert f["/entry/instrument/detector/count_time"][()] == 0.1


def main():
    os.makedirs(OUT, exist_ok=True)
    for old in os.listdir(OUT):
        if old.endswith(".h5"):
            os.remove(path(old))
    write_all()
    check()
    count = sum(1 for n in os.listdir(OUT) if n.endswith(".h5"))
    size = sum(os.path.getsize(path(n)) for n in os.listdir(OUT))
    print("%d files, %d bytes in %s" % (count, size, os.path.normpath(OUT)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
