"""`norvexa view` as a command: its URL on standard output, one line on standard error and a
non-zero exit for a target it can't open, usage errors, and a clean end on SIGTERM."""

import os
import signal
import subprocess
import sys
import urllib.request

import pytest

sys.path.insert(0, os.path.dirname(__file__))
from viewer_harness import viewer  # noqa: E402

TOOL = os.environ["NORVEXA_VIEW_TOOL"]
MASTER = os.path.join(os.environ["NORVEXA_DATA_DIR"], "hdf5", "uint32_bslz4_master.h5")


def run(*args):
    return subprocess.run([TOOL, "view", *args], capture_output=True, text=True, timeout=30)


def test_serves_until_sigterm():
    with viewer(MASTER) as v:
        assert v.url.startswith("http://127.0.0.1:") and v.url.endswith("/")
        with urllib.request.urlopen(v.url, timeout=10) as page:
            assert b"/view.js" in page.read()
        v.process.send_signal(signal.SIGTERM)
        assert v.process.wait(timeout=10) == 0


@pytest.mark.parametrize("args, status, text", [
    (["/no/such/run_00001.cbf"], 1, "norvexa view: "),
    ([MASTER, "--port", "70000"], 2, "--port"),
    ([MASTER, "--bind", "10.255.255.1", "--port", "0"], 1, "Cannot listen on 10.255.255.1"),
    ([], 2, "TARGET"),
])
def test_failures(args, status, text):
    result = run(*args)
    assert result.returncode == status
    assert text in result.stderr
    assert result.stdout == ""
    if status == 1:
        assert len(result.stderr.strip().splitlines()) == 1, result.stderr
