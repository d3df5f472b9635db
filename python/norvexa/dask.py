"""Detector series as Dask arrays, for a Dask cluster on one machine or many.

    >>> import norvexa.dask
    >>> frames = norvexa.dask.from_series("run_master.h5")     # reads the header only
    >>> projection = frames.max(axis=0).compute()              # on the workers

Every task carries a path and a range of image numbers, never pixels: the worker that
computes a chunk opens the series itself and decodes there, with the GIL released, so
threaded workers decode side by side. The files must be reachable under the same path
from every worker (a shared file system on a facility's cluster).
"""

import os
import re

import dask
import dask.array as da
import numpy as np
from dask.base import tokenize
from dask.delayed import Delayed
from dask.highlevelgraph import HighLevelGraph
from dask.utils import parse_bytes

import norvexa

__all__ = ["from_series", "to_hdf5", "StoredBlock"]

_DATA_LINK = re.compile(r"data_\d{6}$")


def _plain_transfers():
    """Sends results between workers uncompressed where Dask's setting is still "auto".

    A reduction of a series moves whole frames between workers (a maximum projection's
    partial results are frames). lz4 shrinks detector frames about threefold but at some
    300 MB/s, slower than the loopback or a cluster's network carries them, and the work
    competes with the decode for the worker's cores: on 2 worker processes a projection
    ran 2.7 times slower with it. The module runs in every worker that computes one of
    its tasks, so the setting holds there too. An explicit choice ("lz4", "zstd", ...) is
    left as it is; Dask's own default became False in later releases.
    """
    try:
        import distributed  # noqa: F401  (its defaults enter Dask's configuration on import)
    except ImportError:
        return
    if dask.config.get("distributed.comm.compression", None) == "auto":
        dask.config.set({"distributed.comm.compression": False})


_plain_transfers()


# ---- The header, read on the client ----

def _hdf5_layout(path):
    """(shape, dtype, images per data file) from an HDF5 master's links and the first data
    file's dataset, metadata only; None for a layout other than "/entry/data/data_NNNNNN"
    links, or when h5py can't tell."""
    try:
        import h5py
    except ImportError:
        return None
    try:
        with h5py.File(path, "r") as f:
            group = f.get("/entry/data")
            if not isinstance(group, h5py.Group):
                return None
            for name in sorted(n for n in group.keys() if _DATA_LINK.match(n)):
                dataset = group.get(name)
                if isinstance(dataset, h5py.Dataset) and dataset.ndim == 3:
                    return dataset.shape[1:], dataset.dtype, int(dataset.shape[0])
    except (OSError, KeyError, ValueError):
        pass
    return None


def _header(path):
    """(first image number, frame count, frame shape, dtype, images per data file)."""
    # h5py reads the layout before the library opens the file, so that the two never hold
    # it open at once.
    layout = _hdf5_layout(path) if _is_hdf5(path) else None
    with norvexa.open(path) as series:
        first, count = series.first, len(series)
        if layout is None:
            # A file series has no header apart from its files: the first one tells the
            # shape. An HDF5 series of another layout gives one stored chunk, not decoded.
            chunk = series.stored(first)
            layout = (chunk.height, chunk.width), chunk.dtype, None if _is_hdf5(path) else 1
    shape, dtype, per_file = layout
    return first, count, tuple(int(s) for s in shape), np.dtype(dtype), per_file


def _is_hdf5(path):
    return os.fspath(path).lower().endswith((".h5", ".hdf5"))


# Frames a chunk holds at least: a reduction over the frames leaves one frame per chunk
# (max(axis=0), mean(axis=0)), and those partial results cross between the workers. At
# 5 frames of 2463x2527 a chunk (Dask's 128 MiB) 2 worker processes ran a maximum
# projection 1.60 times faster than one; at 10 frames 1.74 times.
MIN_FRAMES_PER_CHUNK = 8


def _auto_chunks(count, frame_bytes, per_file):
    """Frames per chunk near Dask's chunk size (array.chunk-size, 128 MiB by default) but
    at least MIN_FRAMES_PER_CHUNK, a whole number of data files or an even split of one,
    so that no chunk opens two files for a few frames and each file is read by as few
    tasks as possible."""
    limit = parse_bytes(dask.config.get("array.chunk-size"))
    size = max(MIN_FRAMES_PER_CHUNK, limit // frame_bytes)
    if not per_file or per_file >= count or per_file == 1:
        return _uniform(count, size)
    if size >= per_file:
        return _uniform(count, size - size % per_file)
    divisor = min(d for d in range(size, per_file + 1) if per_file % d == 0)
    if divisor <= 2 * size:
        return _uniform(count, divisor)
    # A file size with no divisor near the aim: nearly even parts within each file.
    parts = per_file // size
    chunks = []
    for start in range(0, count, per_file):
        frames = min(per_file, count - start)
        n = max(1, min(parts, frames // size))
        chunks += [frames // n + (1 if k < frames % n else 0) for k in range(n)]
    return tuple(chunks)


def _uniform(count, size):
    return tuple([size] * (count // size) + ([count % size] if count % size else []))


# ---- The tasks, run on the workers ----

class StoredBlock:
    """Images of numbers start to stop - 1 of a series as they are stored, not decoded.

    It travels between workers as its path and range, and the receiving worker reads the
    chunks again: a stored chunk is the library's, with no byte form for Python.
    """

    def __init__(self, path, start, stop):
        self.path, self.start, self.stop = os.fspath(path), start, stop
        with norvexa.open(self.path) as series:
            self.chunks = [series.stored(n) for n in range(start, stop)]

    def __reduce__(self):
        return StoredBlock, (self.path, self.start, self.stop)

    def __len__(self):
        return len(self.chunks)


def _check(path, number, frame_shape, frame_dtype, shape, dtype):
    if tuple(frame_shape) != shape or frame_dtype != dtype:
        raise norvexa.BadParameterException(
            f"Image {number} of {path} is {frame_shape[1]}x{frame_shape[0]} {frame_dtype}, "
            f"unlike the series' {shape[1]}x{shape[0]} {dtype}")


def _read(path, start, stop, shape, dtype):
    # One call decodes the whole block into memory of the library's, which a worker reuses
    # from one block to the next: a fresh array of a hundred megabytes would cost more in
    # page faults than its decode.
    with norvexa.open(path) as series:
        block = series[start:stop]
        if len(block) != stop - start:
            # A slice is clipped to the series: the first image missing raises as it would
            # for a local read.
            series[start + len(block)]
            raise norvexa.OutOfRangeException(f"Image number {start + len(block)} out of range")
    _check(path, start, block.shape[1:], block.dtype, shape, dtype)
    return block


def _decode(stored, shape, dtype):
    block = np.empty((len(stored),) + shape, dtype)
    for k, chunk in enumerate(stored.chunks):
        image = norvexa.Image(chunk)
        _check(stored.path, stored.start + k, image.shape, image.dtype, shape, dtype)
        block[k] = image.data
    return block


# ---- The arrays ----

def from_series(path, frames_per_chunk=None, stored=False):
    """from_series(path, frames_per_chunk=None, stored=False) -> dask.array.Array

    A series as a lazy array of shape (frames, height, width) in the frames' dtype; index
    i along the first axis is image number first + i. Making it reads the header only:
    for an HDF5 master the header and the data files' table, for a numbered CBF, TIFF or
    EDF series its first file.

    Args:
        path: an HDF5 master file, or one file of a numbered series, by a path that every
            worker reaches.
        frames_per_chunk: frames per chunk along the first axis. None chooses near Dask's
            chunk size (the "array.chunk-size" setting, 128 MiB by default) but at least
            MIN_FRAMES_PER_CHUNK (8) frames, a whole number of the HDF5 data files or an
            even split of one. Small chunks slow reductions:
            each chunk's partial result (a whole frame for max(axis=0)) travels between
            the workers.
        stored: read the chunks as stored and decode them in a separate step, so that
            to_hdf5() copies the series without decoding.
    Returns:
        A dask.array.Array; its tasks open the series on the worker.
    Raises:
        The library's exceptions from opening the series (norvexa.NoFileAccessException,
        norvexa.ImageCorruptedException, ...), here and, for a frame, from compute().
        ValueError: frames_per_chunk below 1.
    """
    path = os.path.abspath(os.fspath(path))
    first, count, shape, dtype, per_file = _header(path)
    frame_bytes = int(np.prod(shape)) * dtype.itemsize
    if frames_per_chunk is None:
        chunks = _auto_chunks(count, max(1, frame_bytes), per_file)
    else:
        if int(frames_per_chunk) < 1:
            raise ValueError(f"frames_per_chunk must be at least 1, not {frames_per_chunk}")
        chunks = _uniform(count, int(frames_per_chunk))
    token = tokenize(path, os.path.getmtime(path), chunks, stored)
    name = ("norvexa-stored-series-" if stored else "norvexa-series-") + token
    layers, dependencies = {}, {}
    tasks, stored_tasks = {}, {}
    start = first
    for i, frames in enumerate(chunks):
        if stored:
            stored_tasks[("norvexa-stored-" + token, i)] = (StoredBlock, path, start, start + frames)
            tasks[(name, i, 0, 0)] = (_decode, ("norvexa-stored-" + token, i), shape, dtype)
        else:
            tasks[(name, i, 0, 0)] = (_read, path, start, start + frames, shape, dtype)
        start += frames
    if stored:
        layers["norvexa-stored-" + token] = stored_tasks
        dependencies["norvexa-stored-" + token] = set()
    layers[name] = tasks
    dependencies[name] = set(layers) - {name}
    graph = HighLevelGraph(layers, dependencies)
    array = da.Array(graph, name, (chunks, (shape[0],), (shape[1],)), dtype=dtype)
    return array


# ---- The copy ----

def _master_and_base(target):
    """The master's name and the data files' base, as Hdf5Writer names them."""
    target = os.path.abspath(os.fspath(target))
    root, ext = os.path.splitext(target)
    master = target if root.endswith("_master") else root + "_master" + ext
    return master, root, ext


def _write_file(stored, target, index, low, compression, header_path):
    """One data file of the copy, its chunks stored as they stand. The first task writes
    the master too; the others write beside it and move their data file into place."""
    _, root, ext = _master_and_base(target)
    data_name = f"{root}_data_{index + 1:06d}{ext}"
    if index == 0:
        with norvexa.open(header_path) as source:
            # The header: an HDF5 series' tree, else the first image's metadata.
            header = source if _is_hdf5(header_path) else source.stored(source.first).metadata
            with norvexa.Hdf5Writer(target, len(stored), header=header,
                                    compression=compression) as writer:
                for chunk in stored.chunks:
                    writer.write(chunk)
        return os.path.basename(data_name)
    part = f"{root}.part{index + 1:06d}{ext}"
    with norvexa.Hdf5Writer(part, len(stored), compression=compression) as writer:
        for chunk in stored.chunks:
            writer.write(chunk)
    part_root = os.path.splitext(part)[0]
    os.replace(f"{part_root}_data_000001{ext}", data_name)
    os.remove(f"{part_root}_master{ext}")
    _renumber(data_name, low, len(stored))
    return os.path.basename(data_name)


def _renumber(data_file, low, frames):
    import h5py

    with h5py.File(data_file, "r+") as f:
        attrs = f["/entry/data/data"].attrs
        attrs.modify("image_nr_low", np.asarray(low, attrs["image_nr_low"].dtype))
        attrs.modify("image_nr_high", np.asarray(low + frames - 1, attrs["image_nr_high"].dtype))


def _link_files(names, target):
    import h5py

    master = _master_and_base(target)[0]
    with h5py.File(master, "r+") as f:
        group = f["/entry/data"]
        for index, name in enumerate(names):
            link = f"data_{index + 1:06d}"
            if link not in group:
                group[link] = h5py.ExternalLink(name, "/entry/data/data")
    return master


def to_hdf5(array, target, compression=None, compute=True):
    """to_hdf5(array, target, compression=None, compute=True) -> str or dask.delayed.Delayed

    Copies an array made by from_series(..., stored=True), as it stands, to an HDF5
    series: one task per chunk writes one data file with norvexa.Hdf5Writer on its
    worker, storing the chunks without decoding them when the compression is the
    source's; a last task links the data files into the master.

    Args:
        array: from_series(path, stored=True), not sliced or computed on; its chunks (all
            but the last of one size) become the data files.
        target: the master file, named as Hdf5Writer names it ("<base>_master.h5", data
            files "<base>_data_NNNNNN.h5"), in a directory every worker writes to.
        compression: "bslz4", "lz4" or "none"; None keeps the source's ("bslz4" for a
            CBF, TIFF or EDF series).
        compute: run now and return the master's path, or return the Delayed.
    Raises:
        ValueError: an array not made by from_series(..., stored=True), or uneven chunks.
        The library's exceptions, from the worker that met them.
    """
    if not array.name.startswith("norvexa-stored-series-"):
        raise ValueError("to_hdf5 copies an array of from_series(path, stored=True) as it stands")
    token = array.name[len("norvexa-stored-series-"):]
    stored_name = "norvexa-stored-" + token
    stored_tasks = array.dask.layers[stored_name]
    keys = sorted(stored_tasks, key=lambda key: key[1])
    sizes = array.chunks[0]
    if any(size != sizes[0] for size in sizes[:-1]):
        raise ValueError(f"to_hdf5 needs chunks of one size but the last, not {sizes}: "
                         "give from_series a frames_per_chunk")
    path = stored_tasks[keys[0]][1]
    if compression is None:
        compression = _source_compression(path)
    target = os.path.abspath(os.fspath(target))
    write_name = "norvexa-to-hdf5-" + tokenize(token, target, compression)
    lows = np.concatenate([[1], 1 + np.cumsum(sizes)[:-1]]).tolist()
    tasks = {(write_name, i): (_write_file, key, target, i, lows[i], compression, path)
             for i, key in enumerate(keys)}
    # The links wait for every data file; the first task has made the master.
    tasks[write_name] = (_link_files, [(write_name, i) for i in range(len(keys))], target)
    graph = HighLevelGraph({**array.dask.layers, write_name: tasks},
                           {**array.dask.dependencies, write_name: {stored_name}})
    result = Delayed(write_name, graph)
    return result.compute() if compute else result


def _source_compression(path):
    if not _is_hdf5(path):
        return "bslz4"
    with norvexa.open(path) as series:
        return series.stored(series.first).compression
