#!/usr/bin/python3
"""Writes the TIFF and EDF reader fixtures under data/tiff/ and data/edf/ with
independent tools: fabio for both formats, libtiff's tiffcp and tiffset for the TIFF
variants fabio can't make.

Run with the system Python: /usr/bin/python3 tools/make_tiff_edf_fixtures.py
Needs the Debian packages python3-fabio, python3-numpy and libtiff-tools.

Every readable fixture <name>.tif / <name>.edf has <name>.raw beside it: the pixels the
reader must give, little-endian, row after row. The pixel content is reproducible.

data/tiff/
  <t>_<w>x<h>.tif          fabio, one strip; t in u8 u16 u32 u64 i8 i16 i32 i64 f32
  header_u32_7x5.tif       fabio, then tiffset: a "#" text header as ImageDescription
                           and a Model tag (272) that names another detector
  strips_u32_64x33_r11.tif tiffcp -r 11: three strips, the last one full
  strips_u16_13x11_r4.tif  tiffcp -r 4: three strips, the last one of 3 rows
  strips_u16_13x11_r64.tif tiffcp -r 64: one strip, rows per strip beyond the height
  bigendian_u16_13x11.tif  tiffcp -B: big-endian (no .raw: refused)
  The .raw of the strips_ files is the whole frame as the file holds it.

data/edf/
  i32_<w>x<h>.edf          fabio, with "Date" and "count_time" in the header
  highbyte_i32_7x5.edf     the i32_7x5 pixels big-endian under "ByteOrder =
                           HighByteFirst"; fabio reads it back as those pixels. Its
                           .raw is what this library reads from it: one byte per pixel,
                           sign-extended, the four bytes reversed.
  <t>_7x5.edf              fabio, other pixel types (no .raw: refused)
"""

import os
import subprocess

import fabio
import numpy as np
from fabio.edfimage import EdfImage
from fabio.tifimage import TifImage

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data")
TIFF = os.path.join(ROOT, "tiff")
EDF = os.path.join(ROOT, "edf")

TYPES = {"u8": np.uint8, "u16": np.uint16, "u32": np.uint32, "u64": np.uint64,
         "i8": np.int8, "i16": np.int16, "i32": np.int32, "i64": np.int64,
         "f32": np.float32}
TIFF_FRAMES = [("u8", 7, 5), ("u8", 97, 103), ("u16", 13, 11), ("u16", 97, 103),
               ("u32", 64, 33), ("u32", 97, 103), ("u64", 7, 5), ("i8", 7, 5),
               ("i16", 13, 11), ("i32", 7, 5), ("i32", 97, 103), ("i64", 7, 5),
               ("f32", 31, 17), ("f32", 97, 103)]
EDF_FRAMES = [(7, 5), (64, 33), (97, 103)]

HEADER = "\n".join(["",  # the first line shares the binary before it
    "# Detector: Test detector 100K, SN 10-0007",
    "# 2014-06-01T12:00:00.000",
    "# Pixel_size 172e-6 m x 172e-6 m",
    "# Silicon sensor, thickness 0.000450 m",
    "# Exposure_time 0.0995000 s",
    "# Exposure_period 0.1000000 s",
    "# Count_cutoff 1048575 counts",
    "# Threshold_setting: 6400 eV",
    "# Wavelength 1.0332 A",
    "# Beam_xy (3.5, 2.5) pixels",
    ""])
MODEL = "Model detector 1M, SN 31-0415"


def run(*command):
    """Runs a libtiff tool; its warnings about fabio's text tags are only shown on failure."""
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode:
        raise RuntimeError("%s failed:\n%s" % (" ".join(command), done.stderr))


def frame(kind, width, height, seed):
    """Detector-like content: low counts, a few bright pixels, the type's extremes."""
    rng = np.random.default_rng(seed)
    dtype = np.dtype(TYPES[kind])
    a = rng.poisson(1.5, (height, width)).astype(np.float64)
    a.flat[rng.choice(a.size, max(1, a.size // 40))] = rng.integers(50, 120, max(1, a.size // 40))
    a = a.astype(dtype)
    if dtype.kind in "iu":
        info = np.iinfo(dtype)
        a.flat[0], a.flat[-1] = info.max, info.min
        if dtype.kind == "i":
            a.flat[1] = -2
    else:
        a.flat[0], a.flat[1], a.flat[-1] = -1.5, 3.25e7, np.float32(1e-30)
    return a


def write_raw(path, a):
    with open(path, "wb") as f:
        f.write(np.ascontiguousarray(a).astype(a.dtype.newbyteorder("<")).tobytes())


def tiff_frames():
    for kind, w, h in TIFF_FRAMES:
        name = "%s_%dx%d" % (kind, w, h)
        a = frame(kind, w, h, w * h)
        path = os.path.join(TIFF, name + ".tif")
        TifImage(data=a).write(path)
        assert np.array_equal(fabio.open(path).data, a), name
        write_raw(os.path.join(TIFF, name + ".raw"), a)


def tiff_variants():
    # A text header and a model text, set by libtiff into a fabio file.
    a = frame("u32", 7, 5, 75)
    path = os.path.join(TIFF, "header_u32_7x5.tif")
    TifImage(data=a).write(path)
    run("tiffset", "-s", "270", HEADER, path)
    run("tiffset", "-s", "272", MODEL, path)
    assert np.array_equal(fabio.open(path).data, a)
    write_raw(os.path.join(TIFF, "header_u32_7x5.raw"), a)

    for source, rows, name in [("u32_64x33", 11, "strips_u32_64x33_r11"),
                               ("u16_13x11", 4, "strips_u16_13x11_r4"),
                               ("u16_13x11", 64, "strips_u16_13x11_r64")]:
        out = os.path.join(TIFF, name + ".tif")
        run("tiffcp", "-L", "-c", "none", "-r", str(rows), os.path.join(TIFF, source + ".tif"), out)
        write_raw(os.path.join(TIFF, name + ".raw"), fabio.open(out).data)

    run("tiffcp", "-B", "-c", "none", os.path.join(TIFF, "u16_13x11.tif"),
        os.path.join(TIFF, "bigendian_u16_13x11.tif"))


def edf_header(w, h):
    return {"Date": "2014 06 01  12:00", "count_time": "%.4f" % (0.001 * w)}


def edf_frames():
    for w, h in EDF_FRAMES:
        name = "i32_%dx%d" % (w, h)
        a = frame("i32", w, h, w * h + 1)
        path = os.path.join(EDF, name + ".edf")
        EdfImage(data=a, header=edf_header(w, h)).write(path)
        assert np.array_equal(fabio.open(path).data, a), name
        write_raw(os.path.join(EDF, name + ".raw"), a)

    # fabio writes little-endian only: turn its file into the big-endian form.
    with open(os.path.join(EDF, "i32_7x5.edf"), "rb") as f:
        data = f.read()
    close = data.index(b"}")
    header = data[:close].replace(b"LowByteFirst ;", b"HighByteFirst;")
    pixels = np.frombuffer(data[close + 2:], dtype="<i4")
    path = os.path.join(EDF, "highbyte_i32_7x5.edf")
    with open(path, "wb") as f:
        f.write(header + b"}\n" + pixels.astype(">i4").tobytes())
    assert np.array_equal(fabio.open(path).data.ravel(), pixels)
    big = np.frombuffer(pixels.astype(">i4").tobytes(), dtype=np.int8)[:pixels.size]
    odd = big.astype("<i4").byteswap()
    write_raw(os.path.join(EDF, "highbyte_i32_7x5.raw"), odd)

    for kind in ["u8", "u16", "u32", "f32", "i16", "i64"]:
        a = frame(kind, 7, 5, 35)
        EdfImage(data=a, header=edf_header(7, 5)).write(os.path.join(EDF, "%s_7x5.edf" % kind))


def main():
    os.makedirs(TIFF, exist_ok=True)
    os.makedirs(EDF, exist_ok=True)
    tiff_frames()
    tiff_variants()
    edf_frames()


if __name__ == "__main__":
    main()
