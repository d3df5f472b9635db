"""The exception tree: every class under norvexa.Error with its built-in base, and the
library's texts unchanged on the way to Python."""

import inspect
import os
import pathlib

import numpy as np
import pytest

import norvexa

DATA = pathlib.Path(os.environ.get("NORVEXA_DATA_DIR", pathlib.Path(__file__).parents[2] / "data"))

# Class, the built-in it also derives from (None: only norvexa.Error).
TREE = [
    (norvexa.RuntimeException, None),
    (norvexa.NoFileAccessException, OSError),
    (norvexa.ImageCorruptedException, None),
    (norvexa.UnknownFormatException, None),
    (norvexa.OutOfRangeException, IndexError),
    (norvexa.BadParameterException, ValueError),
    (norvexa.NotImplementedException, NotImplementedError),
    (norvexa.TimeoutException, TimeoutError),
    (norvexa.HttpException, None),
    (norvexa.TerminateException, None),
    (norvexa.MessageQueueException, None),
]


def test_tree_is_complete_and_based_as_documented():
    in_module = {c for _, c in inspect.getmembers(norvexa, inspect.isclass)
                 if issubclass(c, BaseException) and c is not norvexa.Error}
    assert in_module == {c for c, _ in TREE}
    assert norvexa.Error.__bases__ == (Exception,)
    for cls, builtin in TREE:
        assert cls.__module__ == "norvexa"
        assert cls.__bases__ == ((norvexa.Error, builtin) if builtin else (norvexa.Error,)), cls
        assert str(cls("text")) == "text"


def raisers(tmp_path):
    image = norvexa.Image(np.zeros((4, 4), np.int32))
    closed = norvexa.open(DATA / "hdf5" / "int32_none_master.h5")
    closed.close()
    cut = tmp_path / "cut.cbf"
    cut.write_bytes((DATA / "cbf" / "cbflib_small.cbf").read_bytes()[:400])
    return [
        (norvexa.Error, "DImage::medianFilter: m and n must be odd", lambda: image.median_filter(2, 3)),
        (norvexa.RuntimeException, "Mask has the wrong shape",
         lambda: image.mean_filter(3, 3, mask=np.zeros((2, 2), bool))),
        (norvexa.RuntimeException, "Image series .* is closed", lambda: closed[1]),
        (norvexa.NoFileAccessException, "absent.cbf", lambda: norvexa.read(tmp_path / "absent.cbf")),
        (norvexa.ImageCorruptedException, r"Image .*cut\.cbf is corrupted\. Magic number not found\.", lambda: norvexa.read(cut)),
        (norvexa.UnknownFormatException, r"Format of .*x\.png not supported\.",
         lambda: norvexa.read(tmp_path / "x.png")),
        (norvexa.OutOfRangeException, "Slicing parameters outside image borders",
         lambda: image.slice_extract(0, 1, 5, 0, 1, 1)),
        (norvexa.BadParameterException, "Spline orders must lie between 1 and the number of coefficients",
         lambda: norvexa.read(DATA / "cbf" / "cbflib_module.cbf").spline_fit(1, 2, 1, 2, 0)),
    ]


def test_library_failures_arrive_with_class_and_text(tmp_path):
    for cls, text, call in raisers(tmp_path):
        with pytest.raises(cls, match=text) as info:
            call()
        assert type(info.value) is cls, (cls, info.value)
