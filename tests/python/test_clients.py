"""Detector, FileWriter and Monitor against the project's detector simulator."""

import concurrent.futures
import pathlib
import re
import threading
import time

import pytest

import norvexa
from simulator_process import Simulator, wait_until


@pytest.fixture
def sim(tmp_path):
    simulator = Simulator(tmp_path)
    simulator.put("/detector/api/1.0.0/config/frame_time", 0.001)
    simulator.put("/detector/api/1.0.0/config/count_time", 0.001)
    yield simulator
    simulator.stop()


def acquire(detector, images):
    detector.set_nimages(images)
    detector.arm()
    detector.trigger()
    assert wait_until(lambda: detector.status() == "idle", 10)


def test_getters_return_values_with_their_limits(sim):
    det = norvexa.Detector("127.0.0.1", sim.port)
    det.set_count_time(0.25)
    assert det.count_time() == norvexa.Ranged(0.25, 1e-5, 3600.0)
    value, low, high = det.photon_energy()
    assert (low, high) == (2500.0, 30000.0) and low <= value <= high
    det.set_nimages(7)
    assert det.nimages() == norvexa.Ranged(7, 1, 1000000) and isinstance(det.nimages().value, int)
    det.set_element("Mo")
    assert det.element().value == "Mo"
    assert det.trigger_mode().allowed == frozenset({"exte", "exts", "inte", "ints"})
    det.set_pixel_mask_applied(False)
    assert det.pixel_mask_applied() is False
    assert (det.description(), det.detector_number()) == ("Norvexa simulated detector", "SIM-0001")


@pytest.mark.parametrize("call, text", [
    (lambda d: d.set_count_time(5000.0), "count_time: value 5000 out of range [1e-05, 3600]"),
    (lambda d: d.set_element("Xx"), 'element: value Xx is not among the allowed values'),
    (lambda d: d.trigger(), "Command trigger not allowed in state idle"),
])
def test_a_refusal_carries_the_status_and_the_text(sim, call, text):
    with pytest.raises(norvexa.HttpException) as refused:
        call(norvexa.Detector("127.0.0.1", sim.port))
    assert (refused.value.status, str(refused.value)) == (400, text)


def test_file_writer_lists_fetches_and_removes(sim, tmp_path):
    det = norvexa.Detector("127.0.0.1", sim.port)
    writer = norvexa.FileWriter("127.0.0.1", sim.port)
    det.arm()
    assert det.status() == "ready"
    det.disarm()
    acquire(det, 2)
    assert wait_until(lambda: len(writer.list_files()) >= 2, 10)
    names = writer.list_files()
    master = next(n for n in names if n.endswith("_master.h5"))
    size = writer.download(master, tmp_path)
    assert size == (tmp_path / master).stat().st_size > 0
    writer.remove(master)
    assert master not in writer.list_files()
    with pytest.raises(norvexa.HttpException, match="not found") as missing:
        writer.remove(master)
    assert missing.value.status == 404


def test_monitor_hands_out_images_and_times_out(sim):
    det = norvexa.Detector("127.0.0.1", sim.port)
    monitor = norvexa.Monitor("127.0.0.1", sim.port)
    monitor.set_buffer_size(3)
    with pytest.raises(norvexa.TimeoutException):
        monitor.next(timeout_ms=50)
    acquire(det, 2)
    frame = monitor.monitor_all(timeout_ms=2000)
    assert (frame.series, frame.image_number) == (1, 2)
    assert frame.image.data.shape == (48, 64)
    assert monitor.monitor(timeout_ms=2000).data.shape == (48, 64)
    monitor.clear()
    with pytest.raises(norvexa.TimeoutException):
        monitor.monitor(timeout_ms=50)


def test_an_event_calls_off_a_slow_request(tmp_path):
    slow = Simulator(tmp_path, "--delay-ms", "20000")
    try:
        det = norvexa.Detector("127.0.0.1", slow.port)
        stop = threading.Event()
        threading.Timer(0.2, stop.set).start()
        start = time.monotonic()
        with pytest.raises(norvexa.TerminateException, match="Operation aborted"):
            det.status(abort=stop)
        assert time.monotonic() - start < 5
        # Set before the call: nothing is sent.
        with pytest.raises(norvexa.TerminateException):
            det.arm(abort=stop)
    finally:
        slow.stop()


def test_threads_share_one_client(sim):
    det = norvexa.Detector("127.0.0.1", sim.port)
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda _: det.count_time().value, range(40), timeout=30))
    assert results == [0.001] * 40


def test_readme_section_runs_as_written(sim, tmp_path, monkeypatch, capsys):
    readme = (pathlib.Path(__file__).parents[2] / "README.md").read_text()
    section = readme.split("## Detectors, live streams and queues in Python", 1)[1].split("\n## ", 1)[0]
    (code,) = re.findall(r"```python\n(.*?)```", section, re.S)
    # The simulator of the test listens on free ports, not on the ones of the text.
    code = code.replace("8080", str(sim.port)).replace("9999", str(sim.stream_port))
    monkeypatch.chdir(tmp_path)
    scope = {"__name__": "__tour__"}
    exec(compile(code, "README.md (detectors, streams and queues)", "exec"), scope)
    printed = capsys.readouterr().out.splitlines()
    assert printed[0] == "Ranged(value=0.01, min=1e-05, max=3600.0)"
    assert printed[2:] == ["400 count_time: value 5000 out of range [1e-05, 3600]", "Operation aborted"]
    assert scope["last"].data.shape == scope["frame"].data.shape == (48, 64)
    with norvexa.open(tmp_path / "live.h5") as live:
        assert len(live) == 3
