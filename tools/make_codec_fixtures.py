#!/usr/bin/python3
"""Writes the chunk codec fixtures under data/codecs/ with independent tools.

Run with the system Python: /usr/bin/python3 tools/make_codec_fixtures.py
Needs the Debian packages python3-numpy, bitshuffle and python3-lz4.

Files, each <case>.plain (the plain little-endian bytes) beside its encoded form:
  bs_u16_<n>, bs_u32_<n>     .chunk: the bitshuffle/LZ4 chunk of n elements with the
                             12-byte header the HDF5 filter prepends (BE uint64 total
                             bytes, BE uint32 block size in bytes), default block size.
  transpose_s<s>_n<n>        .shuffled: the bit transposition of one block of n elements
                             of s bytes.
  lz4_<name>                 .chunk: the HDF5 LZ4 filter framing (BE uint64 total, BE
                             uint32 block size, per block BE uint32 length and an LZ4
                             block, raw when LZ4 does not make it shorter), blocks packed
                             by python-lz4. lz4_frame_default.chunk holds the same frame
                             as lz4_frame.chunk, packed by liblz4's LZ4_compress_default
                             as the HDF5 filter packs it (python-lz4 packs differently).
"""

import ctypes
import os
import struct

import bitshuffle
import lz4.block
import numpy as np

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "codecs")

# Element counts around the block sizes (4096 for 16-bit, 2048 for 32-bit elements),
# counts that are no multiple of 8, a 97 x 103 frame and a 487 x 195 module.
COUNTS = [1, 7, 8, 9, 2047, 2048, 2049, 4101, 4104, 97 * 103, 487 * 195]
TRANSPOSE_COUNTS = [8, 136, 408, 2048]


def write(name, data):
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(bytes(data))


def detector_like(n, dtype, seed):
    """Low Poisson counts, a few bright spots and gap pixels at -1 (all bits set)."""
    rng = np.random.default_rng(seed)
    top = np.iinfo(dtype).max
    a = rng.poisson(0.8, n).astype(np.uint64)
    spots = rng.choice(n, max(1, n // 300))
    a[spots] = rng.integers(50, min(top - 1, 1 << 20), spots.size)
    gaps = rng.choice(n, max(1, n // 200))
    a[gaps] = top
    a[-1] = top  # so that a chunk without its last byte decodes to other pixels
    return a.astype(dtype)


def bitshuffle_chunk(a):
    # compress_lz4 leaves out the header; its default block is 8192 bytes of elements.
    body = bitshuffle.compress_lz4(a).tobytes()
    block_elements = max(8192 // a.dtype.itemsize // 8 * 8, 128)
    return struct.pack(">QI", a.nbytes, block_elements * a.dtype.itemsize) + body


def liblz4_compress_default(block):
    """The call the HDF5 LZ4 filter makes, straight from the system's liblz4."""
    lib = ctypes.CDLL("liblz4.so.1")
    bound = lib.LZ4_compressBound(len(block))
    out = ctypes.create_string_buffer(bound)
    n = lib.LZ4_compress_default(block, out, len(block), bound)
    assert n > 0
    return out.raw[:n]


def lz4_chunk(plain, block_size, compress=None):
    out = [struct.pack(">QI", len(plain), block_size & 0xFFFFFFFF)]
    for start in range(0, len(plain), block_size):
        block = plain[start:start + block_size]
        if compress is None:
            packed = lz4.block.compress(block, mode="default", store_size=False)
        else:
            packed = compress(block)
        if len(packed) >= len(block):
            packed = block
        out.append(struct.pack(">I", len(packed)) + packed)
    return b"".join(out)


def main():
    os.makedirs(OUT, exist_ok=True)
    for dtype, tag in ((np.uint16, "u16"), (np.uint32, "u32")):
        for seed, n in enumerate(COUNTS):
            a = detector_like(n, dtype, 1000 * dtype().itemsize + seed)
            write("bs_%s_%d.plain" % (tag, n), a.tobytes())
            write("bs_%s_%d.chunk" % (tag, n), bitshuffle_chunk(a))

    rng = np.random.default_rng(7)
    for dtype, s in ((np.uint8, 1), (np.uint16, 2), (np.uint32, 4), (np.uint64, 8)):
        for n in TRANSPOSE_COUNTS:
            a = rng.integers(0, np.iinfo(dtype).max, n, dtype=dtype, endpoint=True)
            shuffled = bitshuffle.bitshuffle(a, n)
            write("transpose_s%d_n%d.plain" % (s, n), a.tobytes())
            write("transpose_s%d_n%d.shuffled" % (s, n), shuffled.tobytes())

    # One block as the stream frames it, one that LZ4 can't shorten (stored raw), and
    # several blocks of 4096 bytes with a raw one among them and a short last one.
    frame = detector_like(97 * 103, np.uint32, 11).tobytes()
    write("lz4_frame.plain", frame)
    write("lz4_frame.chunk", lz4_chunk(frame, len(frame)))
    write("lz4_frame_default.chunk", lz4_chunk(frame, len(frame), liblz4_compress_default))
    noise = rng.integers(0, 256, 1000, dtype=np.uint8).tobytes()
    write("lz4_noise.plain", noise)
    write("lz4_noise.chunk", lz4_chunk(noise, len(noise)))
    mixed = frame[:8192] + rng.integers(0, 256, 4096, dtype=np.uint8).tobytes() + frame[8192:11192]
    write("lz4_blocks.plain", mixed)
    write("lz4_blocks.chunk", lz4_chunk(mixed, 4096))


if __name__ == "__main__":
    main()
