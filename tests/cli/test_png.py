"""png: pictures of the right size with the mask's colours where the mask says."""

import numpy as np
import pytest
from PIL import Image

from conftest import GAP_COLUMNS, GAP_ROWS, HEIGHT, WIDTH, frames, run, write_master


@pytest.fixture(scope="module")
def master(tmp_path_factory):
    directory = tmp_path_factory.mktemp("png")
    return write_master(directory, "run", frames(2), per_file=2)


def picture(path):
    with Image.open(path) as image:
        assert image.format == "PNG"
        return np.asarray(image.convert("RGB"))


def test_gap_and_defect_colours_come_from_the_mask(master, tmp_path):
    out = tmp_path / "frame.png"
    result = run("png", master, "--frame", "2", "-o", out)
    assert result.returncode == 0, result.stderr
    rgb = picture(out)
    assert rgb.shape == (HEIGHT, WIDTH, 3)
    assert (rgb[:, GAP_COLUMNS] == 0).all() and (rgb[GAP_ROWS, :] == 0).all()  # gaps: black
    assert tuple(rgb[10, 20]) == (64, 128, 0)  # the defect: hdr's green
    assert rgb[50, 50].any() and tuple(rgb[101, 300]) != tuple(rgb[50, 50])  # background, spot


def test_max_size_bins_by_maximum_and_legend_widens(master, tmp_path):
    out = tmp_path / "small.png"
    result = run("png", master, "--max-size", "300", "--table", "grey-reversed", "--legend", "-o", out)
    assert result.returncode == 0, result.stderr
    rgb = picture(out)
    binned_width, binned_height = -(-WIDTH // 4), -(-HEIGHT // 4)  # a factor of 4 brings 981 under 300
    assert rgb.shape[0] == binned_height and rgb.shape[1] > binned_width
    # The spot at (row 100, column 300) survives in its bin: white, the top of the reversed grey.
    assert tuple(rgb[100 // 4, 300 // 4]) == (255, 255, 255)
