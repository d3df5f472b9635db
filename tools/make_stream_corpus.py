#!/usr/bin/python3
"""Writes the seed corpus of fuzz/stream_messages.cpp into fuzz/corpus/stream_messages/.

A seed is a series of stream messages: messages separated by b"\\n--\\n", the parts of a
message by b"\\n-\\n". The compressed chunks are made here with numpy alone: LZ4 blocks of
literals only, and the bitshuffle transposition, which is enough for valid seeds.
"""
import json
import pathlib
import struct

import numpy as np

OUT = pathlib.Path(__file__).resolve().parent.parent / "fuzz" / "corpus" / "stream_messages"


def lz4_literals(data: bytes) -> bytes:
    """An LZ4 block holding `data` as one run of literals."""
    n = len(data)
    if n < 15:
        return bytes([n << 4]) + data
    rest, extra = n - 15, b""
    while rest >= 255:
        extra += b"\xff"
        rest -= 255
    return b"\xf0" + extra + bytes([rest]) + data


def bitshuffle_chunk(values: np.ndarray, element_size: int) -> bytes:
    raw = values.tobytes()
    count = len(raw) // element_size
    block = 8192 // element_size
    out = struct.pack(">QI", len(raw), 8192)
    start = 0
    while count - start >= 8:
        n = min(block, (count - start) // 8 * 8)
        elements = np.frombuffer(raw, np.uint8, n * element_size, start * element_size)
        bits = np.unpackbits(elements.reshape(n, element_size), axis=1, bitorder="little")
        rows = np.packbits(bits.T, axis=1, bitorder="little").tobytes()
        body = lz4_literals(rows)
        out += struct.pack(">I", len(body)) + body
        start += n
    return out + raw[start * element_size:]


def part(value) -> bytes:
    return json.dumps(value).encode() if not isinstance(value, bytes) else value


def seed(name, messages):
    data = b"\n--\n".join(b"\n-\n".join(part(p) for p in message) for message in messages)
    (OUT / name).write_bytes(data)


def image(frame, width, height, dtype, encoding, pixels: np.ndarray):
    raw = pixels.astype(dtype).tobytes()
    if encoding == "lz4<":
        data = lz4_literals(raw)
    elif encoding.startswith("bs"):
        data = bitshuffle_chunk(pixels.astype(dtype), 2 if encoding == "bs16-lz4<" else 4)
    else:
        data = raw
    return [{"htype": "dimage-1.0", "series": 1, "frame": frame},
            {"htype": "dimage_d-1.0", "shape": [width, height], "type": dtype,
             "encoding": encoding, "size": len(data)},
            data, {"htype": "dconfig-1.0", "start_time": 0, "stop_time": 1, "real_time": 1}]


def main():
    OUT.mkdir(parents=True, exist_ok=True)
    rng = np.random.default_rng(5)
    pixels = rng.poisson(2.0, 6 * 5)
    config = {"wavelength": 1.0332, "count_time": 0.1, "nimages": 3, "description": "Pixel 1M",
              "detector_translation": [0.0, 0.0, 0.15], "element": ["Cu", "Mo"],
              "pixel_mask_applied": True, "x_pixels_in_detector": 6, "unknown": {"a": 1}}
    end = [{"htype": "dseries_end-1.0", "series": 1}]
    seed("none_end", [[{"htype": "dheader-1.0", "series": 1, "header_detail": "none"}], end])
    seed("basic_plain", [[{"htype": "dheader-1.0", "series": 1, "header_detail": "basic"}, config],
                         image(1, 6, 5, "uint16", "<", pixels), end])
    flat = np.ones(30)
    seed("all_encodings", [
        [{"htype": "dheader-1.0", "series": 1, "header_detail": "all"}, config,
         {"htype": "dflatfield-1.0", "shape": [6, 5], "type": "float32"}, flat.astype("float32").tobytes(),
         {"htype": "dpixelmask-1.0", "shape": [6, 5], "type": "uint32", "encoding": "lz4<",
          "size": len(lz4_literals(np.zeros(30, "uint32").tobytes()))},
         lz4_literals(np.zeros(30, "uint32").tobytes()),
         {"htype": "dcountrate_table-1.0", "shape": [6, 5], "type": "uint32", "encoding": "bs32-lz4<",
          "size": len(bitshuffle_chunk(np.arange(30, dtype="uint32"), 4))},
         bitshuffle_chunk(np.arange(30, dtype="uint32"), 4)],
        image(1, 6, 5, "uint32", "lz4<", pixels), image(2, 6, 5, "uint16", "bs16-lz4<", pixels),
        image(3, 6, 5, "uint32", "bs32-lz4<", pixels), image(4, 6, 5, "float32", "<", pixels), end])


if __name__ == "__main__":
    main()
