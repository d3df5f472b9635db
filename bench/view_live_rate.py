#!/usr/bin/python3
"""Live benchmark of the viewer: images displayed per second in headless Chromium while the
detector simulator streams 2463 x 2527 bitshuffle-LZ4 frames as fast as it can.

    bench/view_live_rate.py VIEW_TOOL DETECTOR_SIM [IMAGES]

VIEW_TOOL is the program whose "view" subcommand serves the page (build/apps/norvexa/norvexa). Prints the rates and checks that every received image was
displayed or skipped."""

import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "view"))


def cpu_seconds(match):
    """CPU seconds used so far by the processes whose command line contains `match`."""
    total = 0.0
    tick = os.sysconf("SC_CLK_TCK")
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/cmdline" % pid, "rb") as f:
                if match.encode() not in f.read():
                    continue
            with open("/proc/%s/stat" % pid) as f:
                fields = f.read().rsplit(")", 1)[1].split()
            total += (int(fields[11]) + int(fields[12])) / tick
        except OSError:
            continue
    return total


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    os.environ["NORVEXA_VIEW_TOOL"] = sys.argv[1]
    os.environ["NORVEXA_DETECTOR_SIM"] = sys.argv[2]
    images = int(sys.argv[3]) if len(sys.argv) > 3 else 300
    from viewer_harness import Simulator, chromium, viewer, wait_until

    browser = chromium(1920, 1080)
    try:
        with tempfile.TemporaryDirectory() as area, Simulator(2463, 2527, area) as simulator, \
                viewer("127.0.0.1:%d" % simulator.stream_port) as v:
            simulator.put("stream", "config", "encoding", "bs32-lz4<")
            browser.get(v.url)
            wait_until(lambda: browser.execute_script("return window.viewer.live"), 20, "the live page")
            state = lambda: browser.execute_script(  # noqa: E731
                "return [window.viewer.drawnFrames, window.viewer.counts];")
            profile = browser.capabilities["chrome"]["userDataDir"]
            viewer_match = "127.0.0.1:%d" % simulator.stream_port
            cpu0 = (cpu_seconds(viewer_match), cpu_seconds(profile))
            simulator.series(images, 1e-4)
            start = time.monotonic()
            drawn0 = None
            while time.monotonic() - start < 300:
                drawn, counts = state()
                if drawn0 is None and drawn:
                    drawn0, t0 = drawn, time.monotonic()
                if counts and counts["received"] == images and counts["seriesEnded"]:
                    break
                time.sleep(0.1)
            received_at = time.monotonic()
            time.sleep(1.5)  # the last image on its way to the page
            drawn, counts = state()
            cpu = (cpu_seconds(viewer_match) - cpu0[0], cpu_seconds(profile) - cpu0[1])
            seconds = received_at - t0
            print("frames 2463 x 2527 uint32, bitshuffle-LZ4, %d in the series" % images)
            print("received %d in %.2f s: %.1f/s" % (counts["received"], seconds, counts["received"] / seconds))
            print("displayed by the page %d (server counted %d): %.1f/s" %
                  (drawn, counts["displayed"], (drawn - drawn0) / seconds))
            print("CPU per displayed image: viewer %.0f ms (receiving every image included), Chromium %.0f ms" %
                  (1000 * cpu[0] / counts["displayed"], 1000 * cpu[1] / max(1, drawn)))
            print("load average %.1f on %d cores" % (os.getloadavg()[0], os.cpu_count()))
            print("skipped %d, waiting %d, bad messages %d" % (counts["skipped"], counts["waiting"], counts["errors"]))
            accounted = counts["displayed"] + counts["skipped"] + counts["waiting"]
            print("every received image displayed or skipped: %s (%d of %d)" %
                  ("yes" if accounted == counts["received"] else "NO", accounted, counts["received"]))
            browser.save_screenshot(os.path.join(tempfile.gettempdir(), "view_live_rate.png"))
            print("screenshot: " + os.path.join(tempfile.gettempdir(), "view_live_rate.png"))
    finally:
        browser.quit()


if __name__ == "__main__":
    main()
