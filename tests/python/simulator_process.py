"""The project's detector simulator as a child process on 127.0.0.1, for the tests of the
clients and the stream, and a way to run a Python snippet in a child process."""

import gc
import json
import os
import pathlib
import select
import socket
import subprocess
import sys
import time
import urllib.request

import pytest

REPO = pathlib.Path(__file__).resolve().parents[2]


def simulator_path():
    path = os.environ.get("NORVEXA_DETECTOR_SIM", REPO / "build" / "simulator" / "norvexa_detector_sim")
    if not os.path.exists(path):
        pytest.skip("the detector simulator is not built (set NORVEXA_DETECTOR_SIM)")
    return str(path)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Simulator:
    """norvexa_detector_sim with small frames, a fast frame time and its stream on a free
    port; stopped by stop()."""

    def __init__(self, tmp_path, *options):
        self.stream_port = free_port()
        args = [simulator_path(), "--port", "0", "--width", "64", "--height", "48",
                "--data-dir", str(tmp_path / "area"), "--stream-port", str(self.stream_port),
                *options]
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], 10)
        line = self.process.stdout.readline() if ready else ""
        if "listening on http://127.0.0.1:" not in line:
            self.stop()
            raise RuntimeError("simulator did not start: " + line + self.process.stderr.read())
        self.port = int(line.rsplit(":", 1)[1])

    def put(self, path, value):
        request = urllib.request.Request(
            f"http://127.0.0.1:{self.port}{path}", method="PUT",
            data=json.dumps({"value": value}).encode(), headers={"Content-Type": "application/json"})
        urllib.request.urlopen(request, timeout=5).close()

    def stop(self):
        # Clients that a test's traceback still holds keep connections open, and the
        # server waits for them before it exits.
        gc.collect()
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


def wait_until(condition, seconds=10, step=0.01):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(step)
    return False


def python_child(code, **kwargs):
    """A child Debian python3 running `code` with this process's norvexa on its path."""
    import norvexa
    root = str(pathlib.Path(norvexa.__file__).resolve().parents[1])
    env = dict(os.environ, PYTHONPATH=root + os.pathsep + os.environ.get("PYTHONPATH", ""))
    return subprocess.Popen([sys.executable, "-c", code], env=env, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, **kwargs)
