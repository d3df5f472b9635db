"""Every failure: its exit status, one line on standard error naming the input and the
library's message, and no file under a final name (nor a staging directory) left behind."""

import signal
import subprocess
import time

import pytest

from conftest import DATA, TOOL, frames, leftovers, one_line_failure, run, write_master


@pytest.fixture(scope="module")
def master(tmp_path_factory):
    return write_master(tmp_path_factory.mktemp("errors"), "run", frames(3), per_file=3)


def test_damaged_and_unknown_inputs(tmp_path):
    damaged = tmp_path / "in" / "damaged_00001.cbf"
    damaged.parent.mkdir()
    damaged.write_bytes((DATA / "cbf" / "writer_module.cbf").read_bytes()[:50000])
    unknown = tmp_path / "in" / "frame.xyz"
    unknown.write_bytes(b"not an image")
    out = tmp_path / "out"
    out.mkdir()
    for source in (damaged, unknown):
        for args in (["convert", source, out / "x_#####.cbf"], ["png", source, "-o", out / "x.png"],
                     ["info", source]):
            one_line_failure(run(*args), source)
    one_line_failure(run("info", tmp_path / "missing.cbf"), "missing.cbf", "No such file")
    assert leftovers(out) == []


def test_missing_data_file_of_a_master(tmp_path):
    source = DATA / "hdf5" / "missing_last_master.h5"
    for out in ("x_#####.cbf", "x_master.h5"):
        result = run("convert", source, tmp_path / out)
        one_line_failure(result, source)
    # Images 1 to 3 were written before image 4 failed: none of them stays.
    assert leftovers(tmp_path) == []


@pytest.mark.parametrize("out", ["run_#####.cbf", "run_#####.tif", "run_master.h5", "run.png"])
def test_full_disk_leaves_nothing(master, tmp_path, out):
    args = ["png", master, "-o"] if out.endswith(".png") else ["convert", master]
    result = run(*args, tmp_path / out, fsize=200000)  # each file would be larger
    one_line_failure(result, tmp_path)
    assert leftovers(tmp_path) == []


@pytest.mark.parametrize("args", [
    ["convert"],
    ["convert", "a.cbf", "b.jpg"],
    ["convert", "{master}", "{tmp}/no_number.cbf"],
    ["convert", "{master}", "{tmp}/x_##.cbf", "--range", "3:1"],
    ["convert", "{master}", "{tmp}/x_##.cbf", "--range", "one:two"],
    ["convert", "{master}", "{tmp}/x.h5", "--compression", "zip"],
    ["png", "{master}"],
    ["png", "{master}", "-o", "{tmp}/x.png", "--table", "jet"],
    ["png", "{master}", "-o", "{tmp}/x.png", "--low", "5", "--high", "5"],
    ["record", "127.0.0.1:99999", "{tmp}/x_master.h5"],
    ["record", "[::1", "{tmp}/x_master.h5"],
    ["record", "127.0.0.1:9999", "{tmp}/x.cbf"],
    ["record", "127.0.0.1", "{tmp}/x_master.h5", "--trigger"],
    ["nonsense"],
    [],
])
def test_usage_errors_exit_2(master, tmp_path, args):
    args = [a.format(master=master, tmp=tmp_path) for a in args]
    one_line_failure(run(*args), code=2)
    assert leftovers(tmp_path) == []


@pytest.mark.parametrize("args, needles", [
    (["convert", "{master}", "{tmp}/no/x_#####.cbf"], ["{tmp}/no"]),
    (["convert", "{master}", "{tmp}/x_##.cbf", "--range", "2:9"], ["{master}", "1..3"]),
    (["png", "{master}", "--frame", "7", "-o", "{tmp}/x.png"], ["{master}", "Image 7"]),
])
def test_outside_the_series_or_nowhere_to_write(master, tmp_path, args, needles):
    one_line_failure(run(*[a.format(master=master, tmp=tmp_path) for a in args]),
                     *[n.format(master=master, tmp=tmp_path) for n in needles])
    assert leftovers(tmp_path) == []


def test_ctrl_c_in_mid_conversion_leaves_nothing(tmp_path):
    source = write_master(tmp_path, "long", frames(40, seed=3), per_file=40)
    out = tmp_path / "out"
    out.mkdir()
    process = subprocess.Popen([TOOL, "convert", str(source), str(out / "x_#####.tif")],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    deadline = time.monotonic() + 60
    while not list(out.glob(".x_#####.tif.*/x_00002.tif")) and time.monotonic() < deadline:
        time.sleep(0.02)
    process.send_signal(signal.SIGINT)
    _, err = process.communicate(timeout=60)
    assert process.returncode == 1 and "Interrupted" in err and len(err.splitlines()) == 1
    assert leftovers(out) == []
