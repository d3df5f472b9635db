#!/usr/bin/python3
"""Reads CBF and TIFF files with independent tools and prints what they found.

Run with the system Python: /usr/bin/python3 tools/check_written_files.py FILE...
Needs the Debian packages python3-fabio, python3-numpy and python3-pycbf (CBFlib's own
binding), and libtiff (libtiff6, which libtiff-tools brings). The writer's tests run it on
the files they write. The reference files under data/written/ come from the same test
(NORVEXA_UPDATE_WRITTEN=1 build/tests/test_files --gtest_filter='ImageWriterPeers.*');
data/written/peers.txt is this script's report on them, run from that directory.

For each file, one "key value" line per finding, after a line "file <path>":
  fabio.class, fabio.shape (height width), fabio.dtype, fabio.pixels (MD5 hex of the
  pixels as little-endian bytes, row by row), fabio.log (each warning or error fabio
  logged, such as a digest mismatch), fabio.header.<key> for a few keys;
  CBF: cbflib.digest ("checked": read with the digest verified at once),
  cbflib.datablock, cbflib.compression, cbflib.shape, cbflib.pixels,
  cbflib.header_contents, or cbflib.error;
  TIFF: libtiff.<tag> for the tags, libtiff.pixels, or libtiff.error.
Texts have carriage returns and line feeds written as \\r and \\n.
Exit status 77 when a Python module is missing (the tests then skip), else 0.
"""

import ctypes
import ctypes.util
import hashlib
import logging
import sys

try:
    import fabio
    import numpy as np
    import pycbf
except ImportError as error:
    print("unavailable " + str(error))
    sys.exit(77)


def text(value):
    if isinstance(value, bytes):
        value = value.decode("latin-1")
    return str(value).replace("\r", "\\r").replace("\n", "\\n")


def pixels_md5(array, dtype):
    """MD5 hex of the pixels as `dtype` (None: as they are), little-endian, row by row."""
    return hashlib.md5(np.ascontiguousarray(array, dtype=dtype).tobytes()).hexdigest()


class Collect(logging.Handler):
    def __init__(self):
        super().__init__(logging.WARNING)
        self.messages = []

    def emit(self, record):
        self.messages.append(record.getMessage())


def check_fabio(path, dtype, keys):
    collect = Collect()
    logging.getLogger("fabio").addHandler(collect)
    try:
        image = fabio.open(path)
    except Exception as error:  # a peer's failure is a finding, not a crash
        print("fabio.error " + text(error))
        return
    finally:
        logging.getLogger("fabio").removeHandler(collect)
    print("fabio.class " + type(image).__name__)
    print("fabio.shape %d %d" % image.data.shape)
    print("fabio.dtype " + str(image.data.dtype))
    print("fabio.pixels " + pixels_md5(image.data, dtype))
    for message in collect.messages:
        print("fabio.log " + text(message))
    for key in keys:
        if key in image.header:
            value = image.header[key]
            if isinstance(value, (tuple, list)):
                value = value[0] if len(value) == 1 else value
            print("fabio.header.%s %s" % (key, text(value)))


COMPRESSIONS = {
    pycbf.CBF_NONE: "none",
    pycbf.CBF_BYTE_OFFSET: "byte_offset",
}


def check_cbflib(path):
    handle = pycbf.cbf_handle_struct()
    try:
        handle.read_file(path.encode(), pycbf.MSG_DIGESTNOW)
        print("cbflib.digest checked")
        handle.select_datablock(0)
        print("cbflib.datablock " + text(handle.datablock_name()))
        handle.find_category(b"array_data")
        handle.find_column(b"header_contents")
        print("cbflib.header_contents " + text(handle.get_value()))
        handle.find_column(b"data")
        parameters = handle.get_integerarrayparameters_wdims_fs()
        compression, elsize, elements = parameters[0], parameters[2], parameters[5]
        width, height = parameters[9], parameters[10]
        print("cbflib.compression " + COMPRESSIONS.get(compression, str(compression)))
        print("cbflib.shape %d %d" % (height, width))
        data = np.frombuffer(handle.get_integerarray_as_string(), dtype="<i%d" % elsize)
        if data.size != elements:
            print("cbflib.error %d elements, %d announced" % (data.size, elements))
        print("cbflib.pixels " + pixels_md5(data, "<i4"))
    except Exception as error:
        print("cbflib.error " + text(error))


TIFF_TAGS = [  # tag, name, C type of the TIFFGetField result
    (256, "width", ctypes.c_uint32),
    (257, "height", ctypes.c_uint32),
    (258, "bits", ctypes.c_uint16),
    (259, "compression", ctypes.c_uint16),
    (262, "photometric", ctypes.c_uint16),
    (272, "model", ctypes.c_char_p),
    (278, "rows_per_strip", ctypes.c_uint32),
    (296, "resolution_unit", ctypes.c_uint16),
    (282, "x_resolution", ctypes.c_float),
    (283, "y_resolution", ctypes.c_float),
    (305, "software", ctypes.c_char_p),
    (339, "sample_format", ctypes.c_uint16),
]


def check_libtiff(path):
    name = ctypes.util.find_library("tiff")
    if not name:
        print("libtiff.error not found")
        return
    lib = ctypes.CDLL(name)
    lib.TIFFOpen.restype = ctypes.c_void_p
    lib.TIFFOpen.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    lib.TIFFClose.argtypes = [ctypes.c_void_p]
    lib.TIFFNumberOfStrips.restype = ctypes.c_uint32
    lib.TIFFNumberOfStrips.argtypes = [ctypes.c_void_p]
    lib.TIFFStripSize.restype = ctypes.c_ssize_t
    lib.TIFFStripSize.argtypes = [ctypes.c_void_p]
    lib.TIFFReadEncodedStrip.restype = ctypes.c_ssize_t
    lib.TIFFReadEncodedStrip.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p,
                                         ctypes.c_ssize_t]
    lib.TIFFSetWarningHandler(None)
    tif = lib.TIFFOpen(path.encode(), b"rc")  # c: strips as the file has them, not chopped
    if not tif:
        print("libtiff.error cannot open")
        return
    try:
        found = {}
        for tag, key, ctype in TIFF_TAGS:
            value = ctype()
            if lib.TIFFGetField(ctypes.c_void_p(tif), ctypes.c_uint32(tag), ctypes.byref(value)):
                found[key] = value.value
                print("libtiff.%s %s" % (key, text(value.value)))
        strips = lib.TIFFNumberOfStrips(tif)
        print("libtiff.strips %d" % strips)
        size = lib.TIFFStripSize(tif)
        buffer = ctypes.create_string_buffer(max(size, 1))
        read = lib.TIFFReadEncodedStrip(tif, 0, buffer, size)
        if read != size:
            print("libtiff.error strip of %d bytes, %d read" % (size, read))
            return
        kind = {1: "<u", 2: "<i", 3: "<f"}[found.get("sample_format", 1)]
        data = np.frombuffer(buffer.raw[:size], dtype="%s%d" % (kind, found["bits"] // 8))
        print("libtiff.pixels " + hashlib.md5(data.tobytes()).hexdigest())
    finally:
        lib.TIFFClose(tif)


def main(paths):
    for path in paths:
        print("file " + path)
        with open(path, "rb") as handle:
            magic = handle.read(2)
        if magic == b"II":
            check_fabio(path, None, ["model", "software", "sampleFormat"])
            check_libtiff(path)
        else:
            check_fabio(path, "<i4", ["conversions", "X-Binary-Size", "Content-MD5",
                                      "_array_data.header_contents"])
            check_cbflib(path)
        sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
