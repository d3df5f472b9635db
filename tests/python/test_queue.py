"""MessageQueue between this process (the main side) and a child Python process."""

import os
import threading

import numpy as np
import pytest

import norvexa
from simulator_process import python_child

# The peer answers every text with its upper case and sends every object back as it came.
PEER = """
import norvexa
with norvexa.MessageQueue({name!r}) as queue:
    print("open", flush=True)
    queue.send(queue.receive().upper())
    queue.send(queue.receive_image())
    queue.send(queue.receive_drawing_list())
    queue.send(queue.receive_pixels())
    queue.receive()  # "bye": the main side closes first
"""


@pytest.fixture
def watchdog():  # ends any wait after 30 s, so a lost peer fails the test
    event = threading.Event()
    timer = threading.Timer(30, event.set)
    timer.start()
    yield event
    timer.cancel()


def test_texts_images_drawings_and_pixels_cross_to_another_process(watchdog):
    name = f"pytest_{os.getpid()}"
    queue = norvexa.MessageQueue(name)
    peer = python_child(PEER.format(name=name))
    try:
        assert peer.stdout.readline() == "open\n", peer.stderr.read()
        queue.send("show frame 42", abort=watchdog)
        assert queue.receive(abort=watchdog) == "SHOW FRAME 42"

        frame = norvexa.Image(np.arange(4148 * 3, dtype=np.uint32).reshape(3, 4148))
        frame.metadata.count_time = 0.1
        queue.send(frame, abort=watchdog)
        back = queue.receive_image(abort=watchdog)
        np.testing.assert_array_equal(back.data, frame.data)
        assert back.metadata.to_dict() == frame.metadata.to_dict()

        spots = norvexa.DrawingList([norvexa.DrawingEllipse(120, 340, 6, 6, 0, 255, 64, 0),
                                     norvexa.DrawingString(130, 340, "peak 1")])
        queue.send(spots, abort=watchdog)
        assert queue.receive_drawing_list(abort=watchdog) == spots

        peaks = np.array([(1, 2, 3.5), (-4, 5, norvexa.PIXEL_INVALID)], dtype=norvexa.pixel_dtype)
        queue.send(peaks[::-1], abort=watchdog)  # a strided view goes as its values
        np.testing.assert_array_equal(queue.receive_pixels(abort=watchdog), peaks[::-1])
        queue.send("bye", abort=watchdog)
        assert peer.wait(30) == 0, peer.stderr.read()
    finally:
        if peer.poll() is None:
            peer.kill()
            peer.wait()
        queue.close()


def test_what_the_queue_refuses():
    with norvexa.MessageQueue(f"pytest_refuse_{os.getpid()}") as queue:
        with pytest.raises(norvexa.MessageQueueException, match=r"Maximum message length exceeded \(4096 characters\)"):
            queue.send("x" * 4097)
        for bad in (np.zeros(3, np.float64), np.zeros((2, 2), norvexa.pixel_dtype)):
            with pytest.raises(TypeError, match="pixel_dtype"):
                queue.send(bad)
        stop = threading.Event()
        threading.Timer(0.2, stop.set).start()
        with pytest.raises(norvexa.TerminateException, match="Operation aborted"):
            queue.receive_image(abort=stop)  # nobody sends: only the event ends it
    assert queue.closed
    with pytest.raises(norvexa.MessageQueueException, match="is not open"):
        queue.send("late")
