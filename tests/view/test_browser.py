"""The viewer's page in headless Chromium: a fixture series and the simulator's live stream.

Screenshots of each state go to $NORVEXA_VIEW_ARTEFACTS."""

import os
import sys
import tempfile

import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

sys.path.insert(0, os.path.dirname(__file__))
from viewer_harness import Simulator, chromium, viewer, wait_until  # noqa: E402

MASTER = os.path.join(os.environ["NORVEXA_DATA_DIR"], "hdf5", "uint32_bslz4_master.h5")
ARTEFACTS = os.environ.get("NORVEXA_VIEW_ARTEFACTS", tempfile.mkdtemp(prefix="norvexa-view-"))


@pytest.fixture(scope="module")
def browser():
    os.makedirs(ARTEFACTS, exist_ok=True)
    driver = chromium()
    yield driver
    driver.quit()


def shoot(browser, name):
    browser.save_screenshot(os.path.join(ARTEFACTS, name))


def state(browser, name):
    return browser.execute_script("return window.viewer[arguments[0]];", name)


def header_rows(browser):
    """The header panel as {name: text}; read in one go, as the page rebuilds it."""
    return browser.execute_script("""
        const rows = {};
        for (const tr of document.querySelectorAll('#header tr')) rows[tr.cells[0].textContent] = tr.cells[1].textContent;
        return rows;""")


def wait_for_image(browser, number):
    """Until the page has drawn image `number` and its header says so."""
    def drawn():
        return (state(browser, "image") == number and not state(browser, "busy") and
                not state(browser, "dirty") and header_rows(browser).get("image") == str(number))
    wait_until(drawn, 20, "image %d drawn" % number)


# Reads the canvas at the centres of frame pixels, and the library's colours of the same
# pixels: the server's picture of the whole frame at one picture pixel per frame pixel
# (the server tests prove that picture equal to DColorMap::rgb).
COMPARE_SCRIPT = """
const [points, done] = [arguments[0], arguments[arguments.length - 1]];
const v = window.viewer;
const q = 'image=' + v.image + '&x=0&y=0&w=' + v.frameWidth + '&h=' + v.frameHeight + '&sw=' + v.frameWidth +
          '&sh=' + v.frameHeight + '&low=' + v.limits.low + '&high=' + v.limits.high + '&loghigh=' + v.limits.logHigh;
fetch('/api/render?' + q).then((r) => r.blob()).then(createImageBitmap).then((bitmap) => {
  const library = new OffscreenCanvas(bitmap.width, bitmap.height).getContext('2d');
  library.drawImage(bitmap, 0, 0);
  const page = document.getElementById('frame').getContext('2d');
  done(points.map(([x, y]) => {
    const sx = Math.floor((x + 0.5 - v.left) / v.scale), sy = Math.floor((y + 0.5 - v.top) / v.scale);
    const canvas = document.getElementById('frame');
    if (sx < 0 || sy < 0 || sx >= canvas.width || sy >= canvas.height) return null;
    return [Array.from(page.getImageData(sx, sy, 1, 1).data.slice(0, 3)),
            Array.from(library.getImageData(x, y, 1, 1).data.slice(0, 3))];
  }));
}).catch((e) => done(String(e)));
"""

POINTS = [(0, 0), (18, 12), (10, 3), (4, 9), (3, 2), (7, 5), (9, 6), (15, 11)]


def canvas_colours(browser):
    pairs = browser.execute_async_script(COMPARE_SCRIPT, POINTS)
    assert isinstance(pairs, list), pairs
    return {point: pair for point, pair in zip(POINTS, pairs) if pair}


def test_series_frame_slider_and_pointer(browser):
    with viewer(MASTER) as v:
        browser.get(v.url)
        wait_for_image(browser, 1)
        assert state(browser, "frameWidth") == 19 and state(browser, "frameHeight") == 13
        colours = canvas_colours(browser)
        for point, (page, library) in colours.items():
            assert page == library, "canvas at frame pixel %s" % (point,)
        # The mask's colours: a gap row in black, the defective pixel in its colour.
        assert colours[(9, 6)][0] == [0, 0, 0]
        assert colours[(3, 2)][0] == [0, 0, 0]
        assert colours[(7, 5)][0] == [0x40, 0x80, 0x00]
        wait_until(lambda: browser.find_element(By.ID, "ticks").text, 10, "tick labels")
        shoot(browser, "series_image1.png")

        # Two steps of the slider's keys: image 3, and its header agrees.
        slider = browser.find_element(By.ID, "slider")
        slider.send_keys(Keys.RIGHT)
        slider.send_keys(Keys.RIGHT)
        wait_for_image(browser, 3)
        assert "image 3" in browser.find_element(By.ID, "imageNumber").text
        assert header_rows(browser)["count_time"] == "0.1 s"
        for point, (page, library) in canvas_colours(browser).items():
            assert page == library, "image 3, canvas at frame pixel %s" % (point,)

        # The pointer over frame pixel (10, 3) of image 3, then over the gap.
        canvas = browser.find_element(By.ID, "frame")
        left, top, scale = (state(browser, k) for k in ("left", "top", "scale"))
        readout = browser.find_element(By.ID, "readout")
        for (x, y), text in (((10, 3), "value %d" % (3000 + 3 * 37 + 10 * 3)), ((12, 6), "(gap)")):
            sx, sy = (x + 0.5 - left) / scale, (y + 0.5 - top) / scale
            ActionChains(browser).move_to_element_with_offset(
                canvas, int(sx - canvas.size["width"] / 2), int(sy - canvas.size["height"] / 2)).perform()
            wait_until(lambda: text in readout.text and readout.text.startswith("x %d y %d" % (x, y)), 10,
                       "the readout of (%d, %d)" % (x, y))
        shoot(browser, "series_image3_pointer.png")

        # Zoom in on the wheel: fewer frame pixels per screen pixel, still the library's colours.
        before = state(browser, "scale")
        browser.execute_script("""
            const c = document.getElementById('frame'), r = c.getBoundingClientRect();
            for (let i = 0; i < 4; ++i)
                c.dispatchEvent(new WheelEvent('wheel', {deltaY: -100, clientX: r.left + r.width / 2,
                                                         clientY: r.top + r.height / 2, bubbles: true}));""")
        wait_until(lambda: state(browser, "scale") < before and not state(browser, "busy")
                   and not state(browser, "dirty"), 10, "the zoomed picture")
        colours = canvas_colours(browser)
        assert (10, 3) in colours and (0, 0) not in colours
        for point, (page, library) in colours.items():
            assert page == library, "zoomed in, canvas at frame pixel %s" % (point,)
        shoot(browser, "series_image3_zoomed.png")


def test_live_stream_shows_new_frames(browser, tmp_path):
    with Simulator(512, 256, str(tmp_path)) as simulator, \
            viewer("127.0.0.1:%d" % simulator.stream_port) as v:
        browser.get(v.url)
        wait_until(lambda: state(browser, "live"), 10, "the live page")
        shoot(browser, "live_waiting.png")
        simulator.series(40, 0.05)
        first = wait_until(lambda: state(browser, "drawnFrames") >= 2 and state(browser, "sequence"), 20,
                           "two live images drawn")
        wait_until(lambda: state(browser, "sequence") >= first + 5, 20, "newer live images")
        # A second series is followed too.
        counts = wait_until(lambda: (state(browser, "counts") or {}).get("seriesEnded") and state(browser, "counts"),
                            30, "the end of the first series")
        simulator.series(10, 0.05)
        wait_until(lambda: state(browser, "series") == counts["series"] + 1, 20, "the second series drawn")
        end = wait_until(lambda: (state(browser, "counts") or {}).get("seriesEnded") and
                         state(browser, "counts")["received"] == 50 and state(browser, "counts"), 30,
                         "the second series' end")
        assert end["received"] == end["displayed"] + end["skipped"] + end["waiting"]
        assert end["errors"] == 0
        shoot(browser, "live_series2.png")
