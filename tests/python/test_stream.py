"""Stream against the simulator's live stream; Ctrl-C and threading.Event during a wait."""

import signal
import socket
import threading
import time

import numpy as np
import pytest

import norvexa
from simulator_process import Simulator, free_port, python_child, wait_until


@pytest.fixture
def sim(tmp_path):
    simulator = Simulator(tmp_path)
    simulator.put("/detector/api/1.0.0/config/frame_time", 0.001)
    simulator.put("/detector/api/1.0.0/config/count_time", 0.001)
    simulator.put("/stream/api/1.4.0/config/mode", "enabled")
    yield simulator
    simulator.stop()


def acquire(sim, images):
    det = norvexa.Detector("127.0.0.1", sim.port)
    assert wait_until(lambda: det.status() == "idle", 10)
    det.set_nimages(images)
    det.arm()
    det.trigger()


def test_a_series_arrives_as_header_images_and_end(sim, tmp_path):
    with norvexa.Stream("127.0.0.1", sim.stream_port, rest_port=sim.port) as stream:
        stream.set_enabled(False)
        assert not stream.enabled()
        stream.set_enabled(True)
        time.sleep(0.2)  # the socket connects in the background
        acquire(sim, 3)
        header, *images, end = stream.messages(timeout=10)
        assert stream.dropped() == 0
    assert stream.closed
    assert isinstance(header, norvexa.StreamHeader) and isinstance(end, norvexa.StreamEnd)
    assert header.series_id == end.series_id
    assert header.config["/entry/instrument/detector/description"] == "Norvexa simulated detector"
    assert header.units["/entry/instrument/detector/count_time"] == "s"
    assert [i.image_id for i in images] == [1, 2, 3]
    chunk = images[0].data
    assert (chunk.width, chunk.height, chunk.compression) == (64, 48, "bslz4")
    frames = [norvexa.Image(i.data).data for i in images]
    np.testing.assert_array_equal(images[0].image().data, frames[0])

    # The chunks go into a file as they came; h5py with the Debian filters reads them back.
    h5py = pytest.importorskip("h5py")
    path = tmp_path / "live.h5"
    with norvexa.Hdf5Writer(path, 0, header=header.metadata) as writer:
        for image in images:
            writer.write(image.data)
    with h5py.File(path) as f:
        stored = f["/entry/data/data_000001"][()]
        assert f["/entry/instrument/detector/count_time"][()] == pytest.approx(0.001, rel=1e-3)
    np.testing.assert_array_equal(stored, np.stack(frames))


def test_compressed_and_plain_images_decode_alike(sim):
    frames = {}
    with norvexa.Stream("127.0.0.1", sim.stream_port) as stream:
        time.sleep(0.2)
        for encoding in ("<", "lz4<", "bs32-lz4<"):
            sim.put("/stream/api/1.4.0/config/encoding", encoding)
            acquire(sim, 2)
            frames[encoding] = [m.image().data for m in stream.messages(timeout=10)
                                if isinstance(m, norvexa.StreamImage)]
        with pytest.raises(norvexa.RuntimeException, match="no REST control"):
            stream.set_header_detail("none")
    assert len(frames["<"]) == 2 and frames["<"][0].dtype == np.uint32
    for encoding in ("lz4<", "bs32-lz4<"):
        np.testing.assert_array_equal(np.stack(frames[encoding]), np.stack(frames["<"]))


def test_waits_end_by_timeout_and_by_event():
    stream = norvexa.Stream("127.0.0.1", free_port())  # nobody sends there
    start = time.monotonic()
    with pytest.raises(norvexa.TimeoutException) as late:
        stream.pop(timeout=0.2)
    assert 0.2 <= late.value.time < 3 and time.monotonic() - start < 3

    stop = threading.Event()
    threading.Timer(0.2, stop.set).start()
    start = time.monotonic()
    with pytest.raises(norvexa.TerminateException, match="Operation aborted"):
        next(stream.messages(abort=stop))
    assert time.monotonic() - start < 3
    with pytest.raises(norvexa.BadParameterException, match="timeout must be"):
        stream.messages(timeout=0)
    stream.close()
    with pytest.raises(norvexa.RuntimeException, match="is closed"):
        stream.pop(timeout=1)


CTRL_C_CHILD = """
import time, norvexa
{setup}
print("waiting", flush=True)
try:
    {wait}
except KeyboardInterrupt:
    print(time.monotonic(), flush=True)  # one clock for both processes
    raise
"""


@pytest.mark.parametrize("setup, wait", [
    ('stream = norvexa.Stream("127.0.0.1", {port})', "for message in stream.messages(): pass"),
    ('queue = norvexa.MessageQueue("pytest_ctrl_c_{port}")', "queue.receive()"),
    ('detector = norvexa.Detector("127.0.0.1", {port})', "detector.status()"),
], ids=["stream", "queue", "detector"])
def test_ctrl_c_ends_a_blocking_wait_with_keyboard_interrupt(setup, wait):
    # A server that takes connections and never answers, for the detector's request.
    silent = socket.socket()
    silent.bind(("127.0.0.1", 0))
    silent.listen()
    port = silent.getsockname()[1]
    child = python_child(CTRL_C_CHILD.format(setup=setup.format(port=port), wait=wait))
    try:
        assert child.stdout.readline() == "waiting\n", child.stderr.read()
        time.sleep(0.3)  # into the wait
        sent = time.monotonic()
        child.send_signal(signal.SIGINT)
        child.wait(10)
        raised = float(child.stdout.readline())
    finally:
        if child.poll() is None:
            child.kill()
            child.wait()
        silent.close()
    stderr = child.stderr.read()
    assert child.returncode != 0
    assert stderr.rstrip().endswith("KeyboardInterrupt"), stderr
    # About 100 ms; the bound leaves room for a loaded machine.
    assert raised - sent < 1, raised - sent
