"""record against the simulator (norvexa sim), both as child processes on 127.0.0.1."""

import json
import signal
import subprocess
import time
import urllib.request

import h5py
import pytest

from conftest import TOOL, leftovers, one_line_failure, run


class Simulator:
    """`norvexa sim` on free ports; its first two lines name them."""

    def __init__(self):
        self.process = subprocess.Popen([TOOL, "sim", "--port", "0", "--stream-port", "0"],
                                        stdout=subprocess.PIPE, text=True)
        self.rest = int(self.process.stdout.readline().rsplit(":", 1)[1])
        self.stream = int(self.process.stdout.readline().rsplit(":", 1)[1])

    def put(self, interface, version, name, value):
        url = f"http://127.0.0.1:{self.rest}/{interface}/api/{version}/config/{name}"
        data = json.dumps({"value": value}).encode()
        urllib.request.urlopen(urllib.request.Request(url, data=data, method="PUT"), timeout=30).read()

    def record(self, out, *args, timeout=30):
        return [TOOL, "record", f"127.0.0.1:{self.stream}", str(out), "--arm", "--trigger", "--rest-port",
                str(self.rest), "--timeout", str(timeout), *map(str, args)]

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(timeout=20) == 0


@pytest.fixture
def sim():
    simulator = Simulator()
    yield simulator
    simulator.close()


def frames_in(master):
    with h5py.File(master) as f:
        return sum(f["entry/data"][name].shape[0] for name in f["entry/data"])


def test_one_series_in_one_command(sim, tmp_path):
    sim.put("detector", "1.0.0", "frame_time", 0.01)
    result = subprocess.run(sim.record(tmp_path / "live_master.h5", "--series", "1", "--images", "5",
                                       "--images-per-file", "2"), capture_output=True, text=True, timeout=60)
    assert result.returncode == 0 and result.stderr == "", result.stderr
    assert len(result.stdout.splitlines()) == 1 and "5 images in" in result.stdout  # its summary only
    assert leftovers(tmp_path) == [f"live_data_00000{k}.h5" for k in (1, 2, 3)] + ["live_master.h5"]
    assert frames_in(tmp_path / "live_master.h5") == 5
    with h5py.File(tmp_path / "live_master.h5") as f:
        assert f["entry/instrument/detector/detectorSpecific/nimages"][()] == 5


def test_sigint_in_mid_series_keeps_what_came(sim, tmp_path):
    sim.put("detector", "1.0.0", "frame_time", 0.1)
    process = subprocess.Popen(sim.record(tmp_path / "cut_master.h5", "--images", "200"),
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    # Interrupted once the first images are in its (hidden) staging directory.
    deadline = time.monotonic() + 30
    while not list(tmp_path.glob(".cut_master.h5.*/cut_data_000001.h5")) and time.monotonic() < deadline:
        time.sleep(0.05)
    time.sleep(0.5)
    process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=30)
    assert process.returncode == 0, err
    assert "(interrupted)" in out
    received = int(out.split(": ", 1)[1].split(" image")[0])
    assert 1 <= received < 200
    assert frames_in(tmp_path / "cut_master.h5") == received
    assert not [name for name in leftovers(tmp_path) if name.startswith(".")]


def test_lost_frames_are_reported(sim, tmp_path):
    sim.put("detector", "1.0.0", "frame_time", 0.01)
    sim.put("stream", "1.4.0", "drop_every", 3)
    result = subprocess.run(sim.record(tmp_path / "gaps_master.h5", "--series", "1", "--images", "7"),
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 1
    assert "5 images in" in result.stdout and "2 lost (3, 6)" in result.stdout
    assert "2 images lost" in result.stderr and len(result.stderr.splitlines()) == 1
    assert frames_in(tmp_path / "gaps_master.h5") == 5


def test_refused_connection(tmp_path):
    import socket
    with socket.socket() as s:  # a port that was free a moment ago
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    result = run("record", f"127.0.0.1:{port}", tmp_path / "x_master.h5", timeout=30)
    assert result.returncode == 1 and "Connection refused" in result.stderr
    assert leftovers(tmp_path) == []


def test_a_series_without_its_end(sim, tmp_path):
    """Closed at the timeout with what came, and the timeout is a failure."""
    sim.put("detector", "1.0.0", "frame_time", 0.01)
    sim.put("stream", "1.4.0", "stop_before_end", True)
    result = subprocess.run(sim.record(tmp_path / "open_master.h5", "--images", "2", timeout=2),
                            capture_output=True, text=True, timeout=60)
    one_line_failure(result, "No message for 2 s")
    assert "2 images in" in result.stdout and "(no end of series)" in result.stdout
    assert frames_in(tmp_path / "open_master.h5") == 2


def test_a_malformed_message_is_reported_and_skipped(sim, tmp_path):
    sim.put("detector", "1.0.0", "frame_time", 0.01)
    sim.put("stream", "1.4.0", "malformed", "json")
    result = subprocess.run(sim.record(tmp_path / "bad_master.h5", "--series", "1", "--images", "3"),
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 1
    assert "3 images in" in result.stdout
    lines = result.stderr.splitlines()
    assert len(lines) == 2 and "ORVIK stream" in lines[0] and "1 malformed" in lines[1]
    assert frames_in(tmp_path / "bad_master.h5") == 3
