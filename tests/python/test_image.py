"""norvexa.Image: the zero-copy view, construction from arrays, metadata and the pixel
operations, checked against numpy and scipy."""

import gc
import os
import pathlib

import numpy as np
import pytest
import scipy.ndimage

import norvexa

DATA = pathlib.Path(os.environ.get("NORVEXA_DATA_DIR", pathlib.Path(__file__).parents[2] / "data"))
NUMERIC = ["bool", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32", "uint64",
           "float32", "float64"]
PIXEL_DTYPES = NUMERIC + ["S1"]


def sample(dtype, height=13, width=19, seed=1):
    rng = np.random.default_rng(seed)
    dtype = np.dtype(dtype)
    if dtype.kind == "b":
        return rng.integers(0, 2, (height, width)).astype(bool)
    if dtype.kind == "S":
        return rng.integers(32, 127, (height, width)).astype(np.uint8).view("S1")
    if dtype.kind == "f":
        return (rng.standard_normal((height, width)) * 100).astype(dtype)
    info = np.iinfo(dtype)
    return rng.integers(max(info.min, -10**6), min(info.max, 10**6), (height, width),
                        endpoint=True).astype(dtype)


@pytest.mark.parametrize("dtype", PIXEL_DTYPES)
def test_array_round_trip_and_zero_copy(dtype):
    array = sample(dtype)
    image = norvexa.Image(array)
    assert (image.width, image.height, image.shape) == (19, 13, (13, 19))
    assert image.dtype == np.dtype(dtype)
    view = image.data
    assert view.dtype == np.dtype(dtype) and view.shape == (13, 19)
    np.testing.assert_array_equal(view, array)
    # A copy on entry, a view on the way out.
    assert not np.shares_memory(view, array)
    assert np.shares_memory(view, image.data)
    view[3, 5] = array[0, 0] if dtype != "bool" else not array[3, 5]
    assert image.copy().data[3, 5] == view[3, 5]  # the write reached the C++ image


def test_view_outlives_its_image():
    view = norvexa.Image(np.arange(12, dtype=np.int32).reshape(3, 4)).data
    gc.collect()
    np.testing.assert_array_equal(view, np.arange(12).reshape(3, 4))
    image = norvexa.Image(np.zeros((2, 2), np.uint16))
    view = image.data
    del image
    gc.collect()
    view[:] = 7  # writes into the image that the view keeps alive
    assert view.base is not None and isinstance(view.base, norvexa.Image)
    assert view.base.copy().data.sum() == 28


def test_strided_and_byte_swapped_arrays_are_copied_by_value():
    base = np.arange(60, dtype=">i4").reshape(6, 10)
    image = norvexa.Image(base[::2, 1::3])
    assert image.dtype == np.dtype("int32")
    np.testing.assert_array_equal(image.data, base[::2, 1::3])
    assert norvexa.Image([[1, 2], [3, 4]]).dtype == np.dtype("int64")


@pytest.mark.parametrize("bad", [np.float16, np.complex64, object, "U2", "M8[s]"])
def test_other_dtypes_raise_type_error_naming_the_accepted_ones(bad):
    with pytest.raises(TypeError, match=r"bool, S1 \(char\), int8, .*float64; got"):
        norvexa.Image(np.zeros((2, 2), dtype=bad))


def test_dimensions_other_than_two_raise_value_error():
    with pytest.raises(ValueError, match="2-D array; got 3 dimensions"):
        norvexa.Image(np.zeros((2, 2, 2), np.int32))
    with pytest.raises(ValueError, match="got 1 dimensions"):
        norvexa.Image(np.zeros(4, np.int32))


def test_empty_image():
    image = norvexa.Image(np.zeros((0, 5), np.float32))
    assert image.data.size == 0 and image.dtype == np.dtype("float32")


# Every typed item of the metadata, with a value of its type.
ITEMS = {
    "beam_center_x": 231.5, "beam_center_y": 97.25, "bit_depth_readout": 32, "count_time": 0.5,
    "data_collection_date": "2026-11-24T03:00:00", "description": "Test Detector",
    "detector_number": "T-1", "frame_time": 0.25, "saturation_value": 1048500,
    "sensor_material": "Si", "sensor_thickness": 0.00045, "threshold_energy": 6400.0,
    "gain_setting": "autog", "number_of_excluded_pixels": 321, "wavelength": 1.0332,
    "x_pixel_size": 0.000172, "y_pixel_size": 0.000172, "detector_distance": 0.25,
    "filter_transmission": 0.5, "beam_flux": 125000.5, "polarisation": 0.99,
    "mode_register": 3, "nimages": 5, "countrate_correction_bunch_mode": "/opt/ratecorr",
    "efficiency_correction_applied": True, "countrate_correction_applied": False,
    "rotation_angle": 10.0, "rotation_angle_step": 0.1,
}


def test_metadata_items_read_none_assign_and_list():
    image = norvexa.Image(np.zeros((4, 4), np.int32))
    metadata = image.metadata
    assert all(getattr(metadata, name) is None for name in ITEMS)
    assert metadata.to_dict() == {}
    for name, value in ITEMS.items():
        setattr(metadata, name, value)
    for name, value in ITEMS.items():
        got = getattr(image.metadata, name)
        assert got == pytest.approx(value, rel=1e-6) if isinstance(value, float) else got == value
    assert set(metadata.to_dict()) == set(ITEMS)
    metadata.count_time = None
    assert image.metadata.count_time is None and "count_time" not in metadata.to_dict()
    # The live view survives its image; a copy of the image carries the items.
    del image
    gc.collect()
    assert metadata.wavelength == pytest.approx(1.0332)
    with pytest.raises(TypeError):
        metadata.count_time = "long"


def test_metadata_travels_with_copies_and_conversions():
    image = norvexa.Image(np.ones((3, 3), np.uint16))
    image.metadata.count_time = 0.1
    assert image.as_type("float32").metadata.count_time == pytest.approx(0.1)
    assert image.copy().metadata.count_time == pytest.approx(0.1)
    other = norvexa.Image(np.ones((3, 3), np.uint16))
    other.metadata = image.metadata
    assert other.metadata.count_time == pytest.approx(0.1)


def test_pixel_mask():
    image = norvexa.Image(np.zeros((4, 5), np.int32))
    assert image.pixel_mask is None
    mask = np.zeros((4, 5), np.uint8)
    mask[1, 2] = 1
    image.pixel_mask = mask
    assert image.pixel_mask.dtype == np.dtype("uint32")
    np.testing.assert_array_equal(image.pixel_mask.data, mask)
    np.testing.assert_array_equal(image.metadata.pixel_mask.data, mask)
    image.pixel_mask = None
    assert image.pixel_mask is None


@pytest.mark.parametrize("dtype", ["int32", "uint16", "float64"])
def test_filters_match_scipy_inside_the_borders(dtype):
    array = sample(dtype, 40, 50)
    if array.dtype.kind in "iu":
        array %= 7000  # integer window sums wrap in the pixel's type: stay below that
    image = norvexa.Image(array)
    inner = (slice(2, -2), slice(2, -2))
    median = image.median_filter(5, 5)
    assert median.dtype == np.dtype(dtype)
    np.testing.assert_array_equal(median.data[inner],
                                  scipy.ndimage.median_filter(array, size=5)[inner])
    mean = image.mean_filter(3, 3).data
    expected = scipy.ndimage.uniform_filter(array.astype(np.float64), size=3)[1:-1, 1:-1]
    if dtype == "float64":
        np.testing.assert_allclose(mean[1:-1, 1:-1], expected, rtol=1e-9)
    else:  # integer means truncate
        assert np.all(np.abs(mean[1:-1, 1:-1] - expected) < 1)
    variance = norvexa.Image(array.astype(np.float64)).variance_filter(3, 3).data[1:-1, 1:-1]
    windows = np.lib.stride_tricks.sliding_window_view(array.astype(np.float64), (3, 3))
    np.testing.assert_allclose(variance, windows.var(axis=(2, 3), ddof=1), rtol=1e-9)


def test_masked_filter_leaves_excluded_pixels_out():
    array = np.arange(25, dtype=np.int32).reshape(5, 5)
    mask = np.zeros((5, 5), bool)
    mask[2, 2] = True
    result = norvexa.Image(array).mean_filter(3, 3, mask=mask).data
    assert result[2, 2] == 0
    assert result[1, 1] == (array[0:3, 0:3].sum() - 12) // 8
    with pytest.raises(norvexa.RuntimeException, match="Mask has the wrong shape"):
        norvexa.Image(array).mean_filter(3, 3, mask=np.zeros((4, 5), bool))
    with pytest.raises(norvexa.Error, match="m and n must be odd"):
        norvexa.Image(array).median_filter(2, 3)


def test_statistics_with_rect_mask_and_limits():
    array = sample("float64", 30, 40)
    image = norvexa.Image(array)
    mask = np.zeros(array.shape, np.int32)
    mask[5:8, :] = 1
    rect = (3, 4, 20, 10)  # x, y, width, height
    region = array[4:14, 3:23]
    kept = region[np.logical_not(mask[4:14, 3:23])]
    assert image.mean(rect=rect, mask=mask) == pytest.approx(kept.mean())
    assert image.variance(rect=rect, mask=mask) == pytest.approx(kept.var(ddof=1))
    assert image.rms(rect=rect, mask=mask) == pytest.approx(kept.std(ddof=1))
    assert image.mean(low=0, high=50) == pytest.approx(array[(array >= 0) & (array <= 50)].mean())
    odd = np.arange(1, 10, dtype=np.uint32).reshape(3, 3)[::-1]
    assert norvexa.Image(odd).median() == 5 and isinstance(norvexa.Image(odd).median(), int)
    assert norvexa.Image(array).median(rect=(0, 0, 3, 1)) == pytest.approx(np.median(array[0, :3]))
    for bad in ((1, 2, 3), (1, 2, 3, 4.5), (1, 2, 3, 2**40), 7):
        with pytest.raises(TypeError, match=r"rect must be a tuple \(x, y, width, height\)"):
            image.mean(rect=bad)


def test_regions_cuts_masks_and_conversions():
    array = np.arange(-20, 100, dtype=np.int16).reshape(10, 12)
    image = norvexa.Image(array)
    np.testing.assert_array_equal(image.extract((2, 3, 4, 5)).data, array[3:8, 2:6])
    np.testing.assert_array_equal(image.extract((10, 8, 5, 5)).data, array[8:, 10:])
    np.testing.assert_array_equal(image.slice_extract(11, -2, 3, 0, 3, 3).data, array[0:9:3, 11:5:-2])
    with pytest.raises(norvexa.OutOfRangeException, match="Slicing parameters outside image borders"):
        image.slice_extract(0, 1, 13, 0, 1, 1)

    below, inside, above = image.number_of_pixels_in_interval(50, 0, rect=(0, 0, 12, 5))
    part = array[:5]
    assert (below, inside, above) == ((part < 0).sum(), ((part >= 0) & (part <= 50)).sum(), (part > 50).sum())
    mask = image.create_mask(0, 50)
    assert mask.dtype == np.dtype("uint32")
    np.testing.assert_array_equal(mask.data, (array >= 0) & (array <= 50))
    np.testing.assert_array_equal(image.create_mask(0.5, 50.5, inside=False).data, (array < 1) | (array > 50))

    cut = image.copy()
    cut.low_cut(0)
    cut.high_cut(60)
    np.testing.assert_array_equal(cut.data, np.clip(array, 0, 60))
    limits = norvexa.Image(np.full(array.shape, 5, np.int16))
    cut.high_cut(limits)
    assert cut.data.max() == 5
    with pytest.raises(norvexa.RuntimeException, match="Image sizes do not coincide"):
        cut.low_cut(norvexa.Image(np.zeros((2, 2), np.int16)))

    filled = image.copy()
    filled.fill(7, rect=(0, 0, 3, 2), mask=np.eye(10, 12, dtype=bool))
    expected = array.copy()
    expected[0:2, 0:3] = 7
    expected[0, 0], expected[1, 1] = array[0, 0], array[1, 1]
    np.testing.assert_array_equal(filled.data, expected)
    filled.slice_fill(-3, 0, 2, 6, 9, -1, 2)
    assert (filled.data[9, 0:12:2] == -3).all() and (filled.data[8, 0:12:2] == -3).all()
    filled.slice_fill(norvexa.Image(np.ones((2, 3), np.float32)), 11, -1, 0, 1)
    assert (filled.data[0:2, 9:12] == 1).all()

    floats = image.as_type(np.float32)
    assert floats.dtype == np.dtype("float32")
    np.testing.assert_array_equal(floats.data, array.astype(np.float32))
    with pytest.raises(TypeError, match="as_type takes a dtype of"):
        image.as_type(np.complex64)
    inverse = norvexa.Image(np.array([[2.0, 0.0, -4.0]])).inverse(8)
    np.testing.assert_array_equal(inverse.data, [[4.0, 0.0, -2.0]])


def test_spline_fit_reproduces_a_smooth_background():
    image = norvexa.read(DATA / "cbf" / "cbflib_module.cbf")  # one module in its metadata
    assert image.metadata.module_rects == [(0, 0, 487, 195)]
    y, x = np.mgrid[0:195, 0:487]
    plane = 1000 + x + 2 * y
    image.data[:] = plane
    fit = image.spline_fit(6, 4, 6, 4, 4)
    assert fit.shape == image.shape and fit.dtype == np.dtype("int32")
    assert np.abs(fit.data[5:-5, 5:-5] - plane[5:-5, 5:-5]).max() <= 1
    with pytest.raises(norvexa.BadParameterException,
                       match="Spline orders must lie between 1 and the number of coefficients"):
        image.spline_fit(nx=3, kx=4)
    assert norvexa.Image(np.ones((20, 20), np.float32)).spline_fit().shape == (0, 0)  # no modules


def test_pickle_and_asarray():
    import pickle
    image = norvexa.Image(sample("uint32", 6, 7))
    image.metadata.count_time = 0.5
    image.metadata.description = "pickled"
    image.pixel_mask = np.eye(6, 7, dtype=np.uint32)
    back = pickle.loads(pickle.dumps(image))
    np.testing.assert_array_equal(back.data, image.data)
    assert back.metadata.to_dict() == image.metadata.to_dict()
    np.testing.assert_array_equal(back.pixel_mask.data, np.eye(6, 7))
    assert np.shares_memory(np.asarray(image), image.data)
    assert np.asarray(image, dtype=np.float64).dtype == np.float64
