"""norvexa.dask on a real LocalCluster of 2 worker processes on 127.0.0.1: reductions
against a sequential loop over norvexa.open, the library's exceptions at the client, and a
copy without decoding read back by h5py. Series are written at test time, with small frames."""

import importlib.util
import logging
import os
import pathlib
import pickle
import re
import subprocess
import sys

os.environ.setdefault("HDF5_PLUGIN_PATH", "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins")

import dask  # noqa: E402
import h5py  # noqa: E402
import numpy as np  # noqa: E402
import pytest  # noqa: E402
from distributed import Client, LocalCluster, wait  # noqa: E402
from PIL import Image as PngImage  # noqa: E402

import norvexa  # noqa: E402
import norvexa.dask  # noqa: E402

TIMEOUT = 60
HEIGHT, WIDTH = 48, 64

found = importlib.util.spec_from_file_location(
    "series_reduction", pathlib.Path(__file__).parents[2] / "examples" / "python" / "series_reduction.py")
example = importlib.util.module_from_spec(found)
found.loader.exec_module(example)


@pytest.fixture(scope="module")
def client():
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None, silence_logs=logging.CRITICAL) as cluster, \
            Client(cluster, timeout=TIMEOUT) as client:
        yield client


def run(client, *collections):
    futures = client.compute(list(collections))
    wait(futures, timeout=TIMEOUT)
    return client.gather(futures)


def write_master(path, frames=40, per_file=10, dtype=np.uint32):
    rng = np.random.default_rng(5)
    header = norvexa.Image(np.zeros((HEIGHT, WIDTH), dtype))
    mask = np.zeros((HEIGHT, WIDTH), np.uint32)
    mask[7, :], mask[20, 30] = 1, 8  # a gap row, a defective pixel
    header.pixel_mask = mask
    with norvexa.Hdf5Writer(path, per_file, header=header) as writer:
        for n in range(frames):
            frame = rng.poisson(3, (HEIGHT, WIDTH)).astype(dtype)
            frame[n % HEIGHT, n % WIDTH] = 60000 + n
            frame[7, :] = np.iinfo(dtype).max
            writer.write(norvexa.Image(frame))
    return path


@pytest.fixture(scope="module")
def master(tmp_path_factory):
    return str(write_master(tmp_path_factory.mktemp("h5") / "run_master.h5"))


@pytest.fixture(scope="module")
def cbf_series(tmp_path_factory):
    directory = tmp_path_factory.mktemp("cbf")
    rng = np.random.default_rng(6)
    for n in range(1, 21):
        frame = rng.integers(-1, 1000, (HEIGHT, WIDTH)).astype(np.int32)
        norvexa.write(norvexa.Image(frame), directory / f"scan_{n:05d}.cbf")
    return str(directory / "scan_00007.cbf")


def sequential(path):
    """The reductions by a plain loop over the series, one frame at a time."""
    with norvexa.open(path) as series:
        mask = series[series.first].pixel_mask
        keep = np.ones((HEIGHT, WIDTH), bool) if mask is None else mask.data == 0
        frames = np.stack([image.data for image in series])
    totals = np.array([int(frame[keep].sum(dtype=np.int64)) for frame in frames])
    mean = np.where(keep, frames.sum(axis=0, dtype=np.int64) / len(frames), np.nan)
    return totals, frames.max(axis=0), mean, (~keep).astype(np.uint32)


@pytest.mark.parametrize("which, stored, frames_per_chunk, chunks", [
    ("master", False, None, (10,) * 4),   # one task per data file
    ("master", True, 3, (3,) * 13 + (1,)),
    ("cbf", False, None, (12, 8)),
    ("cbf", True, 1, (1,) * 20),
])
def test_reductions_match_a_sequential_loop(client, tmp_path, master, cbf_series, which, stored,
                                            frames_per_chunk, chunks):
    path = master if which == "master" else cbf_series
    frame_bytes = HEIGHT * WIDTH * 4
    with dask.config.set({"array.chunk-size": f"{frame_bytes * 12}B"}):
        frames = norvexa.dask.from_series(path, frames_per_chunk, stored=stored)
    totals, maximum, mean, mask = sequential(path)
    assert (frames.shape, frames.dtype, frames.chunks[0]) == ((len(totals), HEIGHT, WIDTH), maximum.dtype, chunks)
    # Tasks carry a path and a range, never pixels.
    assert len(pickle.dumps(dict(frames.__dask_graph__()))) < 400 * len(chunks) + 2000
    np.testing.assert_array_equal(example.pixel_mask(path, (HEIGHT, WIDTH)) != 0, mask != 0)
    got = run(client, *example.reductions(frames, mask))
    for value, want in zip(got, (totals, maximum, mean)):
        np.testing.assert_array_equal(value, want)
    assert got[1].dtype == maximum.dtype
    # The example's picture: the library's colours, as PIL reads them back.
    example.write_png(got[1], mask, tmp_path / "maximum.png", "heat")
    low, high = norvexa.contrast(norvexa.Image(maximum), 4, 10000, mask=mask)
    want = norvexa.color_map(norvexa.Image(maximum), low, high, table="heat", mask=mask)
    np.testing.assert_array_equal(np.asarray(PngImage.open(tmp_path / "maximum.png")), want)


@pytest.mark.parametrize("frames, frame_bytes, per_file, chunks", [
    (40, 200, 10, (10,) * 4),                 # one file a chunk
    (45, 100, 10, (20, 20, 5)),               # two files a chunk; a short last file
    (60, 150, 30, (15,) * 4),                 # the divisor of the file at or above the size
    (74, 200, 37, (13, 12, 12) * 2),          # no divisor near it: even parts of each file
    (20, 5000, 10, (10, 10)),                 # frames above the size: still 8 or more a chunk
    (23, 100, 1, (20, 3)),                    # a file series
    (23, 100, None, (20, 3)),                 # an HDF5 layout the header doesn't tell
    (20, 1000, None, (8, 8, 4)),
])
def test_automatic_chunks_follow_the_data_files(frames, frame_bytes, per_file, chunks):
    with dask.config.set({"array.chunk-size": "2000B"}):
        assert norvexa.dask._auto_chunks(frames, frame_bytes, per_file) == chunks


def damage_frame(master, number, per_file=10):
    """Overwrites the stored chunk of an image number with bytes that don't decode."""
    data_file = master.replace("_master.h5", f"_master_data_{(number - 1) // per_file + 1:06d}.h5")
    with h5py.File(data_file, "r+") as f:
        f["/entry/data/data"].id.write_direct_chunk(((number - 1) % per_file, 0, 0), b"\x00\x07broken" * 9)


@pytest.mark.parametrize("stored", [False, True])
def test_a_damaged_frame_fails_with_the_librarys_exception(client, tmp_path, stored):
    master = str(write_master(tmp_path / "damaged_master.h5", frames=20))
    frames = norvexa.dask.from_series(master, 4, stored=stored)
    damage_frame(master, 13)
    with norvexa.open(master) as series, pytest.raises(norvexa.ImageCorruptedException) as local:
        series[13]
    with pytest.raises(norvexa.ImageCorruptedException, match=re.escape(str(local.value))):
        run(client, frames.max(axis=0))
    # A data file gone after the array was made: the same exception as a local read.
    os.remove(master.replace("_master.h5", "_master_data_000002.h5"))
    with norvexa.open(master) as series, pytest.raises(norvexa.Error) as local:
        series[13]
    with pytest.raises(type(local.value), match=re.escape(str(local.value))):
        run(client, frames[12:16].sum())


def test_header_errors_are_raised_when_the_array_is_made(tmp_path):
    with pytest.raises(norvexa.Error):
        norvexa.dask.from_series(tmp_path / "absent_master.h5")
    with pytest.raises(ValueError, match="frames_per_chunk must be at least 1"):
        norvexa.dask.from_series(write_master(tmp_path / "r_master.h5", frames=3), 0)


@pytest.mark.parametrize("dtype", [np.uint32, np.uint16])
def test_stored_copy_reads_back_in_h5py(client, tmp_path, dtype):
    source = str(write_master(tmp_path / "source_master.h5", frames=23, per_file=10, dtype=dtype))
    frames = norvexa.dask.from_series(source, 5, stored=True)
    os.mkdir(tmp_path / "copy")
    target = norvexa.dask.to_hdf5(frames, tmp_path / "copy" / "out.h5", compute=False)
    master = run(client, target)[0]
    assert sorted(os.listdir(tmp_path / "copy")) == ["out_data_%06d.h5" % n for n in range(1, 6)] + \
        ["out_master.h5"]
    with h5py.File(source, "r") as f:
        want = np.concatenate([f["/entry/data/data_%06d" % n][()] for n in (1, 2, 3)])
        want_chunks = [f["/entry/data/data_000002"].id.read_direct_chunk((k, 0, 0)) for k in range(10)]
        want_mask = f["/entry/instrument/detector/detectorSpecific/pixel_mask"][()]
    with h5py.File(master, "r") as f:
        got = np.concatenate([f["/entry/data/data_%06d" % n][()] for n in range(1, 6)])
        # Images 11 to 15, stored by the second task: the source's bytes as they stand.
        got_chunks = [f["/entry/data/data_000003"].id.read_direct_chunk((k, 0, 0)) for k in range(5)]
        assert [dict(f["/entry/data/data_%06d" % n].attrs) for n in (1, 5)] == [
            {"image_nr_low": 1, "image_nr_high": 5}, {"image_nr_low": 21, "image_nr_high": 23}]
        np.testing.assert_array_equal(f["/entry/instrument/detector/detectorSpecific/pixel_mask"][()],
                                      want_mask)
    assert got.dtype == dtype
    np.testing.assert_array_equal(got, want)
    assert got_chunks == want_chunks[:5]


def test_copy_of_a_file_series_and_its_refusals(client, tmp_path, cbf_series):
    frames = norvexa.dask.from_series(cbf_series, 6, stored=True)
    master = run(client, norvexa.dask.to_hdf5(frames, tmp_path / "cbf_master.h5", compute=False))[0]
    with h5py.File(master, "r") as f:
        got = np.concatenate([f["/entry/data/data_%06d" % n][()] for n in range(1, 5)])
    with norvexa.open(cbf_series) as series:
        np.testing.assert_array_equal(got, np.stack([image.data for image in series]))
    with pytest.raises(ValueError, match="stored=True"):
        norvexa.dask.to_hdf5(frames[2:], tmp_path / "x.h5")
    # Files of 19 frames in even parts of 10 and 9: no data file size fits them all.
    uneven = write_master(tmp_path / "uneven_master.h5", frames=38, per_file=19)
    with dask.config.set({"array.chunk-size": f"{HEIGHT * WIDTH * 4 * 8}B"}):
        frames = norvexa.dask.from_series(uneven, stored=True)
    assert frames.chunks[0] == (10, 9, 10, 9)
    with pytest.raises(ValueError, match=r"chunks of one size but the last, not \(10, 9, 10, 9\)"):
        norvexa.dask.to_hdf5(frames, tmp_path / "x.h5")


def test_transfers_go_uncompressed_unless_chosen(client):
    """Dask's "auto" compression is turned off, in the client and in every worker that ran a
    task of the module, also when distributed is imported after the module; an explicit
    choice is kept."""
    script = "import dask, norvexa.dask, distributed; print(dask.config.get('distributed.comm.compression'))"
    assert subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, check=True,
                          env=dict(os.environ, PYTHONWARNINGS="ignore")).stdout.split() == ["False"]
    assert dask.config.get("distributed.comm.compression") is False
    assert set(client.run(lambda: dask.config.get("distributed.comm.compression")).values()) == {False}
    with dask.config.set({"distributed.comm.compression": "lz4"}):
        norvexa.dask._plain_transfers()
        assert dask.config.get("distributed.comm.compression") == "lz4"
