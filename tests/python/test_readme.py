"""The README's Python tour, executed as written, from a directory that looks like the
clone's root (its data/ beside the files the tour writes)."""

import os
import pathlib
import re

import numpy as np

ROOT = pathlib.Path(__file__).parents[2]
DATA = pathlib.Path(os.environ.get("NORVEXA_DATA_DIR", ROOT / "data"))


def tour():
    readme = (ROOT / "README.md").read_text()
    section = readme.split("## A short tour in Python", 1)[1].split("\n## ", 1)[0]
    blocks = re.findall(r"```python\n(.*?)```", section, re.S)
    assert len(blocks) == 1
    return blocks[0]


def test_python_tour_runs_as_written(tmp_path, monkeypatch, capsys):
    (tmp_path / "data").symlink_to(DATA.resolve())
    monkeypatch.chdir(tmp_path)
    scope = {"__name__": "__tour__"}
    exec(compile(tour(), "README.md (Python tour)", "exec"), scope)
    printed = capsys.readouterr().out.splitlines()
    assert printed[0] == "5 1 5"
    assert printed[-1].startswith("NoFileAccessException ")
    assert scope["rgba"].shape == (512, 512, 4) and scope["rgba"].dtype == np.uint8
    assert scope["pixels"][0, 0] == 0 and scope["frame"].data[0, 0] == 0
    np.testing.assert_array_equal(scope["again"].data, scope["counts"].data)
    # The copy holds the five images, then the stored chunk.
    import norvexa
    with norvexa.open("copy_master.h5") as copy:
        assert len(copy) == 6
        np.testing.assert_array_equal(copy[6].data, scope["second"].data)
