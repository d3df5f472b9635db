"""color_map, contrast, legend and the PNG of an Image."""

import io

import numpy as np
import pytest
from PIL import Image as PngImage

import norvexa


def ramp():
    return norvexa.Image(np.arange(0, 400, dtype=np.int32).reshape(20, 20))


def test_color_map_is_rgba_bytes_in_order():
    image = ramp()
    rgba = norvexa.color_map(image, 0, 399, table="grey")
    assert rgba.shape == (20, 20, 4) and rgba.dtype == np.uint8 and (rgba[..., 3] == 255).all()
    # The grey table runs from white down to black: grey levels, falling with the value.
    assert (rgba[..., 0] == rgba[..., 1]).all() and (rgba[..., 1] == rgba[..., 2]).all()
    assert rgba[0, 0, 0] == 255 and rgba[-1, -1, 0] < 5
    assert np.all(np.diff(rgba[..., 0].ravel().astype(int)) <= 0)
    # The red and blue ends of the heat table tell R from B.
    middle = norvexa.color_map(image, 0, 399, table="heat")[10, 0]
    assert middle[0] > middle[2]
    reverse = norvexa.color_map(image, 0, 399, table="grey", reverse=True)
    assert reverse[0, 0, 0] < 5 and reverse[-1, -1, 0] == 255


def test_color_map_mask_rect_and_saturation():
    image = ramp()
    mask = np.zeros((20, 20), np.uint32)
    mask[0, :] = 1  # gap: black
    rgba = norvexa.color_map(image, 0, 399, table="grey", mask=mask)
    assert (rgba[0, :, :3] == 0).all() and (rgba[0, :, 3] == 255).all()
    image.pixel_mask = mask  # the frame's own mask when none is given
    np.testing.assert_array_equal(norvexa.color_map(image, 0, 399, table="grey"), rgba)
    part = norvexa.color_map(image, 0, 399, table="grey", rect=(5, 2, 3, 4))
    np.testing.assert_array_equal(part, rgba[2:6, 5:8])
    with pytest.raises(norvexa.OutOfRangeException, match="Rectangle outside the frame"):
        norvexa.color_map(image, 0, 399, rect=(18, 0, 3, 3))
    saturated = norvexa.color_map(ramp(), 0, 399, table="grey", saturation_value=390)
    assert not (saturated[-1, -1] == rgba[-1, -1]).all()
    with pytest.raises(ValueError, match='Unknown colour table "jet"'):
        norvexa.color_map(image, 0, 1, table="jet")


def test_color_map_log_section_uses_the_bright_part():
    image = norvexa.Image(np.array([[10, 100, 1000, 10000]], np.int32))
    linear = norvexa.color_map(image, 0, 100)
    logarithmic = norvexa.color_map(image, 0, 100, log_high=10000)
    np.testing.assert_array_equal(linear[0, :2], logarithmic[0, :2])
    assert (linear[0, 2] == linear[0, 3]).all()  # both at the top of the linear table
    assert not (logarithmic[0, 2] == logarithmic[0, 3]).all()


def test_contrast_and_legend():
    rng = np.random.default_rng(0)
    image = norvexa.Image(rng.poisson(100, (200, 200)).astype(np.int32))
    low, high = norvexa.contrast(image, 3, 10000)
    assert 60 < low < 100 < high < 140
    bar, ticks = norvexa.legend(10, 256, 0, 100)
    assert bar.shape == (256, 10, 4) and ticks and all(0 <= row < 256 for row in ticks)
    assert (bar[:, 0] == bar[:, 9]).all()  # the same colour along a row
    _, log_ticks = norvexa.legend(10, 256, 0, 100, log_high=10000)
    assert max(log_ticks.values()) > 100


def test_repr_png_is_the_grey_picture_of_the_frame():
    png = PngImage.open(io.BytesIO(ramp()._repr_png_()))
    assert (png.format, png.mode, png.size) == ("PNG", "RGBA", (20, 20))
    assert np.asarray(png).shape == (20, 20, 4)
