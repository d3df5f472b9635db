#!/usr/bin/python3
"""Writes the CBF reader's fixtures under data/cbf/ with independent tools.

Run with the system Python: /usr/bin/python3 tools/make_cbf_fixtures.py
Needs the Debian packages python3-numpy, python3-fabio and cbflib-bin (cif2cbf).

Every frame has 32-bit signed pixels whose differences need all three forms of the
byte-offset code (one byte, 0x80 and 16 bits, 0x80 0x00 0x80 and 32 bits), the detector's
text header and a Content-MD5 line. Its expected pixels stand beside the files as
<frame>.raw, little-endian int32, row by row.

  fabio_<frame>.cbf      written by fabio
  cbflib_<frame>.cbf     fabio's file re-encoded by CBFlib's cif2cbf (its own
                         byte-offset encoder and digest, 4095 bytes of padding)
  writer_<frame>.cbf     the layout that the detector's software writes, byte-offset
                         coded here and read back by fabio and by CBFlib as a check
  writer_none_small.cbf  the same layout with conversions="x-CBF_NONE"
  cbflib_none_small.cbf  CBFlib's uncompressed form: it has no "conversions" line

Frames: "small" (37 x 23, every boundary difference of the code) and "module" (487 x 195,
one detector module: Poisson background, gaps, defects, Bragg-like spots).

It also writes the seed corpus of the fuzz target, fuzz/corpus/cbf_reader/: the small
files, the same without their Content-MD5 line (so that mutations reach the decoders), and
a few short files around the code's corners (a reset, an escape cut by the block's end,
the 32-bit form at the end of the file, uncompressed words of no multiple of 4).
"""

import base64
import hashlib
import os
import subprocess
import tempfile

import numpy as np
from fabio.cbfimage import CbfImage
import fabio

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
OUT = os.path.join(ROOT, "data", "cbf")
SEEDS = os.path.join(ROOT, "fuzz", "corpus", "cbf_reader")

CRLF = "\r\n"

# The lines the detector writes (with the keywords the reader knows, in their usual
# form) and two it doesn't parse.
HEADER_LINES = [
    "# Detector: BRENNIK 1M, SN 10-0150",
    "# 2011-06-14T10:22:33.125",
    "# Pixel_size 172e-6 m x 172e-6 m",
    "# Silicon sensor, thickness 0.000320 m",
    "# Exposure_time 0.0970000 s",
    "# Exposure_period 0.1000000 s",
    "# Tau = 199.1e-09 s",
    "# Count_cutoff 1048500 counts",
    "# Threshold_setting: 6400 eV",
    "# Gain_setting: autog (vrf = 1.000)",
    "# N_excluded_pixels = 321",
    "# Excluded_pixels: badpix_mask.tif",
    "# Wavelength 1.0332 A",
    "# Detector_distance 0.25000 m",
    "# Beam_xy (231.50, 97.25) pixels",
    "# Flux 125000.5",
    "# Filter_transmission 0.5000",
    "# Start_angle 10.0000 deg.",
    "# Angle_increment 0.1000 deg.",
    "# Polarization 0.990",
    "# Retrigger_mode 1",
    "# Ratecorr_lut_directory ContinuousStandard_v1.1",
]
HEADER_TEXT = CRLF.join(HEADER_LINES) + CRLF


def check_differences(a):
    """The peers escape to 64 bits for differences beyond the int32 range and for -2**31
    itself (its 32-bit code 0x80000000 is their escape), which the reader doesn't know."""
    flat = a.ravel().astype(np.int64)
    d = np.diff(np.concatenate(([0], flat)))
    assert d.min() > -(1 << 31) and d.max() < (1 << 31), "difference beyond 32 bits"
    assert np.any(np.abs(d) <= 127)
    assert np.any((np.abs(d) > 127) & (np.abs(d) < 32768))
    assert np.any(np.abs(d) >= 32768)


def small_frame():
    rng = np.random.default_rng(31)
    a = rng.poisson(0.8, (23, 37)).astype(np.int64)
    # The boundaries of the code's three forms, from the first pixel on (a difference
    # from 0): 127 one byte; 128, -128, -127, 32767, -32767 three; -32768, 32768 seven;
    # then the extremes of the 32-bit difference that the peers code in 32 bits, and the
    # extreme pixel values.
    edge = [0, 127, 255, 127, 0, 32767, 0, -32768, 0, 1 << 30, -(1 << 30) + 1, (1 << 30) - 1,
            -(1 << 30), 0, 2147483647, 0, -2147483647, -(1 << 31), -2, -1, 100000, 99999]
    a.ravel()[: len(edge)] = edge
    a[10, :] = -1            # a gap row
    a[15, 5] = -2            # a defect
    a[20, 30] = 1000000      # a spot
    a[22, 36] = 12345        # the last pixel differs from its neighbour
    check_differences(a)
    return a.astype(np.int32)


def module_frame():
    rng = np.random.default_rng(487)
    h, w = 195, 487
    a = rng.poisson(0.8, (h, w)).astype(np.int64)
    for _ in range(60):
        y, x = rng.integers(2, h - 2), rng.integers(2, w - 2)
        peak = int(rng.integers(200, 900000))
        for dy in (-1, 0, 1):
            for dx in (-1, 0, 1):
                a[y + dy, x + dx] += peak >> (2 * (abs(dx) + abs(dy)))
    a[:, 60] = -1            # gaps between chips
    a[97, :] = -1
    a.ravel()[rng.choice(a.size, 40, replace=False)] = -2
    a[5, 5], a[5, 6] = 1 << 30, -(1 << 30) + 1
    a[-1, -1] = 7
    check_differences(a)
    return a.astype(np.int32)


def byte_offset(a):
    """The byte-offset code, as the detector's software forms it."""
    out = bytearray()
    previous = 0
    for v in a.ravel().tolist():
        d = v - previous
        previous = v
        if -127 <= d <= 127:
            out += int(d).to_bytes(1, "little", signed=True)
        elif -32767 <= d <= 32767:
            out += b"\x80" + int(d).to_bytes(2, "little", signed=True)
        else:
            out += b"\x80\x00\x80" + int(d).to_bytes(4, "little", signed=True)
    return bytes(out)


def writer_layout(name, a, conversion):
    """The file layout of the detector's software: header, block, 4095 bytes of padding."""
    h, w = a.shape
    block = byte_offset(a) if conversion == "x-CBF_BYTE_OFFSET" else a.astype("<i4").tobytes()
    digest = base64.b64encode(hashlib.md5(block).digest()).decode()
    lines = [
        "###CBF: VERSION 1.5, CBFlib v0.7.8 - SLS/NORVEXA BRENNIK detectors",
        "",
        "data_" + name,
        "",
        '_array_data.header_convention "SLS_1.0"',
        "_array_data.header_contents",
        ";",
        HEADER_TEXT + ";",
        "",
        "_array_data.data",
        ";",
        "--CIF-BINARY-FORMAT-SECTION--",
        "Content-Type: application/octet-stream;",
        '     conversions="%s"' % conversion,
        "Content-Transfer-Encoding: BINARY",
        "X-Binary-Size: %d" % len(block),
        "X-Binary-ID: 1",
        'X-Binary-Element-Type: "signed 32-bit integer"',
        "X-Binary-Element-Byte-Order: LITTLE_ENDIAN",
        "Content-MD5: %s" % digest,
        "X-Binary-Number-of-Elements: %d" % a.size,
        "X-Binary-Size-Fastest-Dimension: %d" % w,
        "X-Binary-Size-Second-Dimension: %d" % h,
        "X-Binary-Size-Padding: 4095",
        "",
    ]
    footer = CRLF + "--CIF-BINARY-FORMAT-SECTION----" + CRLF + ";" + CRLF + CRLF
    return (CRLF.join(lines) + CRLF).encode() + b"\x0c\x1a\x04\xd5" + block + bytes(4095) + footer.encode()


def cif2cbf(source, target, compression):
    subprocess.run(["cif2cbf", "-i", source, "-o", target, "-c", compression, "-m", "headers",
                    "-d", "digest", "-e", "none", "-p", "4"],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def read_with_fabio(path):
    return fabio.open(path).data.astype(np.int32)


def block_of(path):
    content = open(path, "rb").read()
    start = content.index(b"\x0c\x1a\x04\xd5") + 4
    size = int(content.split(b"X-Binary-Size: ")[1].split(b"\r\n")[0])
    return content[start:start + size]


def short_cbf(block, width, height=1, conversion="x-CBF_BYTE_OFFSET", size=None):
    """A minimal file: the MIME lines the reader needs, no sum, no padding."""
    text = ("--CIF-BINARY-FORMAT-SECTION--\r\nContent-Type: application/octet-stream;\r\n"
            '     conversions="%s"\r\nX-Binary-Size: %d\r\n'
            'X-Binary-Element-Type: "signed 32-bit integer"\r\n'
            "X-Binary-Size-Fastest-Dimension: %d\r\nX-Binary-Size-Second-Dimension: %d\r\n\r\n"
            % (conversion, len(block) if size is None else size, width, height))
    return text.encode() + b"\x0c\x1a\x04\xd5" + block


def write_seeds():
    os.makedirs(SEEDS, exist_ok=True)
    for name in ("writer_small", "fabio_small", "cbflib_small", "writer_none_small", "cbflib_none_small"):
        content = open(os.path.join(OUT, name + ".cbf"), "rb").read()
        open(os.path.join(SEEDS, name), "wb").write(content)
        start = content.find(b"Content-MD5: ")
        if start >= 0:
            end = content.index(b"\n", start) + 1
            open(os.path.join(SEEDS, name + "_no_md5"), "wb").write(content[:start] + content[end:])
    seeds = {
        "reset": short_cbf(b"\x05\x80\x00\x00\x03\x80\xe8\x03", 3),
        "escape_cut_by_block": short_cbf(b"\x01\x80", 4) + b"\x10\x00\x80\x00\x80",
        "long_form_at_file_end": short_cbf(b"\x07\x80\x00\x80\x01", 3),
        "int32_min": short_cbf(b"\x80\x00\x80\x00\x00\x00\x80\x05", 2),
        "too_long": short_cbf(bytes(range(1, 40)), 4, 5),
        "sixteen_and_escape": short_cbf(bytes([3] * 15) + b"\x80\x10\x27" + bytes([0xfd] * 17), 33),
        "words_of_five_bytes": short_cbf(b"\x01\x00\x00\x00\x02", 3, conversion="x-CBF_NONE"),
        "size_past_end": short_cbf(b"\x01\x02", 2, size=99),
    }
    for name, content in seeds.items():
        open(os.path.join(SEEDS, name), "wb").write(content)


def main():
    os.makedirs(OUT, exist_ok=True)
    with tempfile.TemporaryDirectory() as scratch:
        for frame, a in (("small", small_frame()), ("module", module_frame())):
            a.astype("<i4").tofile(os.path.join(OUT, frame + ".raw"))

            fabio_file = os.path.join(OUT, "fabio_%s.cbf" % frame)
            CbfImage(data=a, header={"_array_data.header_convention": "SLS_1.0",
                                     "_array_data.header_contents": HEADER_TEXT}).write(fabio_file)
            cbflib_file = os.path.join(OUT, "cbflib_%s.cbf" % frame)
            cif2cbf(fabio_file, cbflib_file, "byte_offset")
            writer_file = os.path.join(OUT, "writer_%s.cbf" % frame)
            with open(writer_file, "wb") as f:
                f.write(writer_layout("writer_" + frame, a, "x-CBF_BYTE_OFFSET"))

            # Every file decodes to the frame in the peers, and the blocks of all three
            # carry the 7-byte form.
            again = os.path.join(scratch, "again.cbf")
            cif2cbf(writer_file, again, "byte_offset")
            for path in (fabio_file, cbflib_file, writer_file, again):
                assert np.array_equal(read_with_fabio(path), a), path
                assert b"\x80\x00\x80" in block_of(path), path

        a = small_frame()
        none_file = os.path.join(OUT, "writer_none_small.cbf")
        with open(none_file, "wb") as f:
            f.write(writer_layout("writer_none_small", a, "x-CBF_NONE"))
        cbflib_none = os.path.join(OUT, "cbflib_none_small.cbf")
        cif2cbf(os.path.join(OUT, "fabio_small.cbf"), cbflib_none, "none")
        # fabio reads neither uncompressed form: CBFlib decodes them for the check.
        for path in (none_file, cbflib_none):
            again = os.path.join(scratch, "again.cbf")
            cif2cbf(path, again, "byte_offset")
            assert np.array_equal(read_with_fabio(again), a), path
        assert b"conversions=" not in open(cbflib_none, "rb").read()
    write_seeds()


if __name__ == "__main__":
    main()
