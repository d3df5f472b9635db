"""read, open, write and Hdf5Writer against independent readers of the same files:
fabio for CBF, TIFF and EDF, h5py for HDF5."""

import os
import pathlib
import re

os.environ.setdefault("HDF5_PLUGIN_PATH", "/usr/lib/x86_64-linux-gnu/hdf5/serial/plugins")

import fabio  # noqa: E402
import h5py  # noqa: E402
import numpy as np  # noqa: E402
import pytest  # noqa: E402

import norvexa  # noqa: E402

DATA = pathlib.Path(os.environ.get("NORVEXA_DATA_DIR", pathlib.Path(__file__).parents[2] / "data"))


# The fixtures that both readers take as they are. Left out: the library's kept differences
# (multi-strip and big-endian TIFF, EDF other than int32, CBF stored without compression)
# and the one file fabio refuses.
FABIO_FIXTURES = [
    "cbf/cbflib_module.cbf", "cbf/cbflib_small.cbf", "cbf/fabio_module.cbf", "cbf/fabio_small.cbf",
    "cbf/writer_module.cbf", "cbf/writer_small.cbf",
    "edf/i32_7x5.edf", "edf/i32_64x33.edf", "edf/i32_97x103.edf",
] + sorted(str(p.relative_to(DATA)) for p in (DATA / "tiff").glob("*.tif")
           if not p.name.startswith(("strips_", "bigendian_")))


@pytest.mark.parametrize("name", FABIO_FIXTURES)
def test_pixels_match_fabio(name):
    image = norvexa.read(DATA / name)
    expected = fabio.open(str(DATA / name)).data
    assert image.shape == expected.shape
    np.testing.assert_array_equal(image.data, expected)
    if expected.dtype.kind in "iuf":
        assert image.dtype.kind == expected.dtype.kind


CBF_ITEMS = {"count_time": "Exposure_time", "frame_time": "Exposure_period",
             "wavelength": "Wavelength", "detector_distance": "Detector_distance",
             "threshold_energy": "Threshold_setting", "saturation_value": "Count_cutoff",
             "beam_center_x": "Beam_xy", "x_pixel_size": "Pixel_size",
             "filter_transmission": "Filter_transmission",
             "number_of_excluded_pixels": "N_excluded_pixels"}


def test_cbf_and_edf_header_items_match_fabio():
    path = DATA / "cbf" / "cbflib_module.cbf"
    text = fabio.open(str(path)).header["_array_data.header_contents"]
    metadata = norvexa.read(path).metadata
    for name, key in CBF_ITEMS.items():
        want = float(re.search(r"# " + key + r"[:=\s]+\(?([-0-9.eE+]+)", text).group(1))
        assert getattr(metadata, name) == pytest.approx(want), name
    assert "Exposure_time" in metadata.raw_header
    path = DATA / "edf" / "i32_7x5.edf"
    want = float(fabio.open(str(path)).header["count_time"])
    assert norvexa.read(path).metadata.count_time == pytest.approx(want)


@pytest.mark.parametrize("dtype", ["uint16", "uint32", "int32", "float32"])
@pytest.mark.parametrize("compression", ["none", "lz4", "bslz4"])
def test_hdf5_series_matches_h5py(dtype, compression):
    master = DATA / "hdf5" / f"{dtype}_{compression}_master.h5"
    parts = []
    for n in (1, 2):
        with h5py.File(DATA / "hdf5" / f"{dtype}_{compression}_data_00000{n}.h5", "r") as f:
            parts.append(f["/entry/data/data"][()])
    expected = np.concatenate(parts)
    with norvexa.open(master) as series:
        assert (series.first, series.last, len(series)) == (1, 5, 5)
        frames = list(series)
        assert [frame.dtype for frame in frames] == [expected.dtype] * 5
        np.testing.assert_array_equal(np.stack([frame.data for frame in frames]), expected)
        chunk = series.stored(4)
        assert chunk.compression == compression
        assert (chunk.width, chunk.height, chunk.dtype) == (19, 13, np.dtype(dtype))
        np.testing.assert_array_equal(norvexa.Image(chunk).data, expected[3])
        assert norvexa.Image(chunk).metadata.count_time == pytest.approx(0.1)
        # Slices take image numbers, across the data files, clipped like numpy's.
        np.testing.assert_array_equal(series[2:5], expected[1:4])
        np.testing.assert_array_equal(series[:], expected)
        np.testing.assert_array_equal(series[4:99], expected[3:])
        assert series[3:3].shape == (0, 13, 19) and series[3:3].dtype == expected.dtype
    np.testing.assert_array_equal(norvexa.read(master, 2).data, expected[2])


def test_hdf5_header_items_match_h5py():
    master = DATA / "hdf5" / "uint32_bslz4_master.h5"
    names = ["count_time", "frame_time", "x_pixel_size", "detector_distance", "sensor_thickness",
             "threshold_energy", "bit_depth_readout", "description", "detector_number",
             "sensor_material", "beam/incident_wavelength", "detectorSpecific/nimages",
             "detectorSpecific/pixel_mask"]
    with h5py.File(master, "r") as f:
        want = {name.split("/")[-1]: f["/entry/instrument/" + (name if name.startswith("beam") else
                                                               "detector/" + name)][()]
                for name in names}
    with norvexa.open(master) as series:
        frame = series[1]
    np.testing.assert_array_equal(frame.pixel_mask.data, want.pop("pixel_mask"))
    want["wavelength"] = want.pop("incident_wavelength")
    items = frame.metadata.to_dict()
    for name, value in want.items():
        value = value.decode() if isinstance(value, bytes) else value
        assert items[name] == (pytest.approx(value) if isinstance(value, float) else value), name


def test_series_errors_and_closing():
    series = norvexa.open(DATA / "hdf5" / "int32_bslz4_master.h5")
    with pytest.raises(norvexa.OutOfRangeException, match="Image number 6 out of range"):
        series[6]
    with pytest.raises(IndexError, match="Image number -1 out of range"):
        series.stored(-1)
    with series:
        assert series[1].data[0, 0] == -1
    assert series.closed
    for use in (lambda: series[1], lambda: len(series), lambda: series.first, lambda: list(series)):
        with pytest.raises(norvexa.RuntimeException, match=r"Image series .*int32_bslz4_master.h5 is closed"):
            use()
    with pytest.raises(ValueError, match="the step must be 1"):
        series[1:5:2]
    with pytest.raises(norvexa.RuntimeException, match="is closed"):
        series[1:3]
    series.close()  # closing twice is harmless
    with pytest.raises(norvexa.OutOfRangeException, match="Image index 5 out of range"):
        norvexa.read(DATA / "hdf5" / "int32_none_master.h5", 5)


@pytest.mark.parametrize("dtype", ["int32", "uint16", "uint32", "float32"])
def test_written_cbf_and_tiff_read_back_in_fabio(tmp_path, dtype):
    rng = np.random.default_rng(3)
    array = rng.integers(0, 60000, (97, 103)).astype(dtype)
    image = norvexa.Image(array)
    image.metadata.wavelength = 1.5
    norvexa.write(image, tmp_path / "frame.tif")
    np.testing.assert_array_equal(fabio.open(str(tmp_path / "frame.tif")).data, array)
    norvexa.write(image, str(tmp_path / "frame.cbf"))
    cbf = fabio.open(str(tmp_path / "frame.cbf"))
    np.testing.assert_array_equal(cbf.data, array.astype(np.int32))
    assert norvexa.read(tmp_path / "frame.cbf").metadata.wavelength == pytest.approx(1.5)
    with pytest.raises(norvexa.UnknownFormatException, match="File format is NONE"):
        norvexa.write(image, tmp_path / "frame.png")


def test_hdf5_writer_copies_stored_chunks_to_h5py(tmp_path):
    source = DATA / "hdf5" / "uint32_bslz4_master.h5"
    target = tmp_path / "copy_master.h5"
    with norvexa.open(source) as series, norvexa.Hdf5Writer(target, 2, header=series) as writer:
        expected = [series[n].data.copy() for n in range(series.first, series.last + 1)]
        for n in range(series.first, series.last + 1):
            writer.write(series.stored(n))
    with pytest.raises(norvexa.RuntimeException, match="DHdfWriter not open"):
        writer.write(norvexa.Image(expected[0]))
    files = sorted(p.name for p in tmp_path.iterdir())
    assert files == ["copy_master.h5"] + [f"copy_master_data_00000{i}.h5" for i in (1, 2, 3)]
    with h5py.File(target, "r") as f:
        assert f["/entry/instrument/detector/count_time"][()] == pytest.approx(0.1)
    got = []
    for name in files[1:]:
        with h5py.File(tmp_path / name, "r") as f:
            got.extend(f["/entry/data/data"][()])
    np.testing.assert_array_equal(np.stack(got), np.stack(expected))


@pytest.mark.parametrize("compression", ["bslz4", "lz4", "none"])
def test_hdf5_writer_compresses_images(tmp_path, compression):
    frames = [np.arange(i, i + 600, dtype=np.uint16).reshape(20, 30) for i in range(3)]
    with norvexa.Hdf5Writer(tmp_path / "run.h5", 0, compression=compression) as writer:
        for frame in frames:
            writer.write(norvexa.Image(frame))
    with h5py.File(tmp_path / "run.h5", "r") as f:
        np.testing.assert_array_equal(f["/entry/data/data_000001"][()], np.stack(frames))
    with norvexa.open(tmp_path / "run.h5") as series:
        assert series.stored(1).compression == compression


def test_hdf5_writer_refusals(tmp_path):
    with pytest.raises(norvexa.BadParameterException, match="Number of images per file must not be negative"):
        norvexa.Hdf5Writer(tmp_path / "a.h5", -1)
    with pytest.raises(ValueError, match='Unknown compression "zip"'):
        norvexa.Hdf5Writer(tmp_path / "a.h5", 1, compression="zip")
    with pytest.raises(TypeError, match="header must be"):
        norvexa.Hdf5Writer(tmp_path / "a.h5", 1, header=42)
    with norvexa.Hdf5Writer(tmp_path / "b.h5", 1) as writer:
        with pytest.raises(TypeError, match="takes an Image or a StoredChunk"):
            writer.write(np.zeros((2, 2)))


def test_numbered_file_series(tmp_path):
    for number in (1, 2, 3):
        norvexa.write(norvexa.Image(np.full((5, 6), number, np.int32)), tmp_path / f"run_{number:05d}.cbf")
    with norvexa.open(tmp_path / "run_00002.cbf") as series:
        assert (series.first, series.last, len(series)) == (1, 3, 3)
        assert [frame.data[0, 0] for frame in series] == [1, 2, 3]
        np.testing.assert_array_equal(series[2:4][:, 0, 0], [2, 3])
        chunk = series.stored(3)
        assert chunk.compression == "none"
        with norvexa.Hdf5Writer(tmp_path / "from_cbf.h5", 0) as writer:
            writer.write(chunk)  # plain pixels: compressed by the writer
    norvexa.write(norvexa.Image(np.zeros((5, 7), np.int32)), tmp_path / "run_00004.cbf")
    with norvexa.open(tmp_path / "run_00001.cbf") as series, \
            pytest.raises(norvexa.BadParameterException, match=r"Image 4 of .* is 7x5 .*unlike image 3: 6x5"):
        series[3:5]
    with h5py.File(tmp_path / "from_cbf.h5", "r") as f:
        np.testing.assert_array_equal(f["/entry/data/data_000001"][0], np.full((5, 6), 3))
