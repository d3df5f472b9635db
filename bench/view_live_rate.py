#!/usr/bin/python3
"""Live benchmark of the viewer: images displayed per second in headless Chromium while the
detector simulator streams 2463 x 2527 bitshuffle-LZ4 frames as fast as it can.

    bench/view_live_rate.py VIEW_TOOL DETECTOR_SIM [IMAGES]

VIEW_TOOL is the program whose "view" subcommand serves the page (build/apps/norvexa_view_dev
or the norvexa command). Prints the rates and checks that every received image was
displayed or skipped."""

import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "view"))


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
            seconds = received_at - t0
            print("frames 2463 x 2527 uint32, bitshuffle-LZ4, %d in the series" % images)
            print("received %d in %.2f s: %.1f/s" % (counts["received"], seconds, counts["received"] / seconds))
            print("displayed by the page %d (server counted %d): %.1f/s" %
                  (drawn, counts["displayed"], (drawn - drawn0) / seconds))
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
