"""info and convert on committed fixtures and on frames made here."""

import json

import fabio
import h5py
import numpy as np
import pytest

from conftest import DATA, frames, info, leftovers, run, write_master

# The items a CBF header carries and the library reads back.
CBF_ITEMS = ["count_time", "frame_time", "x_pixel_size", "y_pixel_size", "detector_distance",
             "beam_center_x", "beam_center_y", "threshold_energy", "sensor_thickness",
             "saturation_value", "wavelength"]


def test_info_reports_header_units_and_statistics_of_a_master():
    master = DATA / "hdf5" / "uint32_bslz4_master.h5"
    got = info(master)
    assert (got["width"], got["height"], got["first"], got["last"]) == (19, 13, 1, 5)
    assert got["pixel_type"] == "UINT 32"
    meta = got["metadata"]
    assert meta["count_time"] == {"value": pytest.approx(0.1), "unit": "s"}
    assert meta["wavelength"]["unit"] == "A" and meta["wavelength"]["value"] == pytest.approx(1.0332)
    assert meta["description"]["value"] == "Test Detector 1M"
    assert meta["nimages"]["value"] == 5
    with h5py.File(master) as f:
        mask = f["entry/instrument/detector/detectorSpecific/pixel_mask"][()]
        pixels = f["entry/data/data_000001"][0].astype(float)
    valid = pixels[mask == 0]
    stats = got["statistics"]
    assert stats["excluded_pixels"] == np.count_nonzero(mask)
    assert (stats["min"], stats["max"]) == (valid.min(), valid.max())
    assert stats["mean"] == pytest.approx(valid.mean())


def test_one_json_line_per_input():
    both = run("info", "--json", DATA / "cbf" / "fabio_small.cbf", DATA / "tiff" / "u16_13x11.tif")
    lines = both.stdout.splitlines()
    assert both.returncode == 0 and len(lines) == 2
    assert json.loads(lines[1])["pixel_type"] == "UINT 16"


@pytest.fixture(scope="module")
def master(tmp_path_factory):
    directory = tmp_path_factory.mktemp("master")
    data = frames(5)
    return write_master(directory, "run", data), data


def test_bslz4_master_to_cbf_keeps_pixels_and_header_items(master, tmp_path):
    path, data = master
    result = run("convert", path, tmp_path / "run_#####.cbf")
    assert result.returncode == 0 and result.stderr == "", result.stderr
    assert leftovers(tmp_path) == [f"run_{n:05d}.cbf" for n in range(1, 6)]
    for n in range(5):
        np.testing.assert_array_equal(fabio.open(str(tmp_path / f"run_{n + 1:05d}.cbf")).data, data[n])
    source, converted = info(path)["metadata"], info(tmp_path / "run_00003.cbf")["metadata"]
    for item in CBF_ITEMS:
        assert item in converted, item
        assert converted[item]["value"] == pytest.approx(source[item]["value"], rel=1e-5), item


def test_cbf_series_to_hdf5_reads_in_h5py(master, tmp_path):
    path, data = master
    assert run("convert", path, tmp_path / "cbf_#####.cbf").returncode == 0
    result = run("convert", tmp_path / "cbf_00001.cbf", tmp_path / "back_master.h5", "--images-per-file", "2")
    assert result.returncode == 0, result.stderr
    assert "back_data_000003.h5" in leftovers(tmp_path)
    with h5py.File(tmp_path / "back_master.h5") as f:
        got = np.concatenate([f["entry/data"][k][()] for k in sorted(f["entry/data"])])
        assert f["entry/instrument/detector/count_time"][()] == pytest.approx(0.1)
    np.testing.assert_array_equal(got, data)


@pytest.mark.parametrize("compression", ["bslz4", "lz4"])
def test_hdf5_to_hdf5_copies_the_stored_chunks(master, tmp_path, compression):
    path, data = master
    result = run("convert", path, tmp_path / "copy_master.h5", "--images-per-file", "0",
                 *(["--compression", compression] if compression != "bslz4" else []))
    assert result.returncode == 0, result.stderr
    with h5py.File(tmp_path / "copy_master.h5") as out:
        copied = out["entry/data/data_000001"]
        np.testing.assert_array_equal(copied[()], data)
        with h5py.File(path.parent / "run_data_000001.h5") as src:
            same = copied.id.read_direct_chunk((1, 0, 0))[1] == src["entry/data/data"].id.read_direct_chunk((1, 0, 0))[1]
        assert same == (compression == "bslz4")


def test_edf_to_tiff_number_widths_and_ranges(tmp_path):
    """Image numbers wider than the run of '#'; --range and --frame on a three-file master."""
    edf = DATA / "edf" / "i32_97x103.edf"
    assert run("convert", edf, tmp_path / "e_#.tif").returncode == 0
    assert leftovers(tmp_path) == ["e_103.tif"]  # the number in the name: 103
    np.testing.assert_array_equal(fabio.open(str(tmp_path / "e_103.tif")).data, fabio.open(str(edf)).data)
    master = DATA / "hdf5" / "three_files_master.h5"
    assert run("convert", master, tmp_path / "w_#.cbf", "--range", "7:").returncode == 0
    assert sorted(p.name for p in tmp_path.glob("w_*")) == ["w_7.cbf", "w_8.cbf"]
    got = info(master)
    one = json.loads(run("info", "--json", "--frame", "8", master).stdout)
    assert one["statistics"]["image"] == 8 and one["statistics"]["min"] > got["statistics"]["min"]
    with h5py.File(master) as f:
        assert one["statistics"]["max"] == f["entry/data/data_000003"][1].max()
