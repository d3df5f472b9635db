"""Programs and a headless browser for the viewer's browser tests and its live benchmark."""

import json
import os
import select
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

# Chromium's background services reach for the network, which is closed here.
CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update", "--disable-sync"]


def wait_until(condition, timeout, what):
    """Polls `condition` until it gives something true; AssertionError after `timeout` seconds."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("timed out after %g s waiting for %s" % (timeout, what))
        time.sleep(0.05)


class Program:
    """A child process whose first line of output names its URL; ended by SIGTERM."""

    def __init__(self, argv, timeout=20):
        self.process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        ready, _, _ = select.select([self.process.stdout], [], [], timeout)
        line = self.process.stdout.readline() if ready else ""
        if "http://" not in line:
            self.close()
            raise AssertionError("%s did not start: %r" % (argv[0], line))
        self.url = line[line.index("http://"):].strip()

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def viewer(target):
    """`norvexa view TARGET` on a free port; the program comes from CTest."""
    return Program([os.environ["NORVEXA_VIEW_TOOL"], "view", target, "--port", "0"])


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Simulator(Program):
    """The project's detector simulator with its stream on a free port, files and monitor off."""

    def __init__(self, width, height, data_dir):
        self.stream_port = free_port()
        super().__init__([os.environ["NORVEXA_DETECTOR_SIM"], "--port", "0", "--width", str(width),
                          "--height", str(height), "--stream-port", str(self.stream_port),
                          "--data-dir", data_dir])
        self.put("stream", "config", "mode", "enabled")
        self.put("filewriter", "config", "mode", "disabled")
        self.put("monitor", "config", "mode", "disabled")

    def put(self, interface, kind, name, value=None):
        body = json.dumps({"value": value}).encode() if value is not None else b""
        request = urllib.request.Request("%s/%s/api/1.8.0/%s/%s" % (self.url.rstrip("/"), interface, kind, name),
                                         data=body, method="PUT", headers={"Content-Type": "application/json"})
        # "arm" computes the frames of the series: seconds for large ones on a busy machine.
        with urllib.request.urlopen(request, timeout=120) as reply:
            return reply.read()

    def idle(self):
        with urllib.request.urlopen(self.url.rstrip("/") + "/detector/api/1.8.0/status/state", timeout=10) as r:
            return json.loads(r.read())["value"] == "idle"

    def series(self, images, frame_time):
        """Arms and triggers a series; returns at once, the images follow."""
        wait_until(self.idle, 30, "the detector to be idle")
        self.put("detector", "config", "frame_time", frame_time)
        self.put("detector", "config", "count_time", frame_time * 0.9)
        self.put("detector", "config", "nimages", images)
        self.put("detector", "command", "arm")
        self.put("detector", "command", "trigger")


def chromium(width=1280, height=860):
    """Headless Chromium from Debian with a fresh profile; the caller quits it."""
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + tempfile.mkdtemp(prefix="norvexa-view-chromium-"),
                                  "--window-size=%d,%d" % (width, height)]:
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_page_load_timeout(30)
    driver.set_script_timeout(30)
    return driver
