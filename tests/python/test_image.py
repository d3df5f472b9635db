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
PIXEL_DTYPES = ["bool", "S1", "int8", "int16", "int32", "int64", "uint8", "uint16", "uint32",
                "uint64", "float32", "float64"]


def sample(dtype, height=13, width=19, seed=1):
    values = np.random.default_rng(seed).integers(-10**6, 10**6, (height, width))
    if np.dtype(dtype).kind == "S":
        return (values % 95 + 32).astype(np.uint8).view("S1")
    if np.dtype(dtype).kind == "f":
        return (values / 1e4).astype(dtype)
    return (values % 2).astype(bool) if dtype == "bool" else values.astype(dtype)  # wraps


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
    view = norvexa.Image(np.zeros((2, 2), np.uint16)).data
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
    assert norvexa.Image(np.zeros((0, 5), np.float32)).data.size == 0


@pytest.mark.parametrize("shape, dtype, error, text", [
    ((2, 2), np.float16, TypeError, r"bool, S1 \(char\), int8, .*float64; got"),
    ((2, 2), "U2", TypeError, r"bool, S1 \(char\), int8, .*float64; got"),
    ((2, 2, 2), np.int32, ValueError, "2-D array; got 3 dimensions"),
    ((4,), np.int32, ValueError, "got 1 dimensions"),
])
def test_other_dtypes_and_dimensions_are_refused(shape, dtype, error, text):
    with pytest.raises(error, match=text):
        norvexa.Image(np.zeros(shape, dtype=dtype))


# One item of each type: float, int, text, flag.
ITEMS = {"count_time": 0.5, "saturation_value": 1048500, "sensor_material": "Si",
         "efficiency_correction_applied": True, "countrate_correction_applied": False}


def test_metadata_items_survive_their_image_and_travel_with_copies():
    image = norvexa.Image(np.zeros((4, 4), np.uint16))
    metadata = image.metadata
    assert metadata.wavelength is None and metadata.to_dict() == {}
    for name, value in ITEMS.items():
        setattr(metadata, name, value)
    assert image.metadata.to_dict() == ITEMS
    for other in (image.as_type("float32"), image.copy()):
        assert other.metadata.to_dict() == ITEMS
    metadata.count_time = None
    assert "count_time" not in image.metadata.to_dict()
    del image
    gc.collect()
    assert metadata.saturation_value == 1048500  # the live view keeps its image alive
    with pytest.raises(TypeError):
        metadata.count_time = "long"


def test_pixel_mask_is_stored_as_uint32():
    image = norvexa.Image(np.zeros((4, 5), np.int32))
    image.pixel_mask = np.eye(4, 5, dtype=np.uint8)
    assert image.pixel_mask.dtype == np.dtype("uint32")
    np.testing.assert_array_equal(image.metadata.pixel_mask.data, np.eye(4, 5))


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
    mean = image.mean_filter(3, 3).data[1:-1, 1:-1]
    expected = scipy.ndimage.uniform_filter(array.astype(np.float64), size=3)[1:-1, 1:-1]
    assert np.all(np.abs(mean - expected) < (1e-9 if dtype == "float64" else 1))  # integers truncate
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
    assert image.median(rect=(0, 0, 3, 1)) == pytest.approx(np.median(array[0, :3]))
    for bad in ((1, 2, 3), (1, 2, 3, 4.5), 7):
        with pytest.raises(TypeError, match=r"rect must be a tuple \(x, y, width, height\)"):
            image.mean(rect=bad)


def test_regions_cuts_masks_and_conversions():
    array = np.arange(-20, 100, dtype=np.int16).reshape(10, 12)
    image = norvexa.Image(array)
    np.testing.assert_array_equal(image.extract((2, 3, 4, 5)).data, array[3:8, 2:6])
    np.testing.assert_array_equal(image.slice_extract(11, -2, 3, 0, 3, 3).data, array[0:9:3, 11:5:-2])

    below, inside, above = image.number_of_pixels_in_interval(50, 0, rect=(0, 0, 12, 5))
    part = array[:5]
    assert (below, inside, above) == ((part < 0).sum(), ((part >= 0) & (part <= 50)).sum(), (part > 50).sum())
    np.testing.assert_array_equal(image.create_mask(0, 50).data, (array >= 0) & (array <= 50))
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

    np.testing.assert_array_equal(image.as_type(np.float32).data, array.astype(np.float32))
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
    assert norvexa.Image(np.ones((20, 20), np.float32)).spline_fit().shape == (0, 0)  # no modules


def test_pickle_and_asarray():
    import pickle
    image = norvexa.Image(sample("uint32", 6, 7))
    image.metadata.description = "pickled"
    image.pixel_mask = np.eye(6, 7, dtype=np.uint32)
    back = pickle.loads(pickle.dumps(image))
    np.testing.assert_array_equal(back.data, image.data)
    assert back.metadata.to_dict() == image.metadata.to_dict()
    np.testing.assert_array_equal(back.pixel_mask.data, np.eye(6, 7))
    assert np.shares_memory(np.asarray(image), image.data)
