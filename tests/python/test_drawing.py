"""Drawing lists with their shapes, and pixel lists as numpy arrays."""

import pytest

import norvexa


def test_shapes_keep_their_fields():
    line = norvexa.DrawingLine(1, 2, 3, 4, red=5, green=6, blue=7, alpha=8)
    # By axis, as the library takes them: from (1, 3) to (2, 4).
    assert (line.x_begin, line.y_begin, line.x_end, line.y_end) == (1, 3, 2, 4)
    assert line.color == (5, 6, 7, 8)
    line.color = (9, 10, 11, 12)
    assert (line.red, line.alpha) == (9, 12)
    ellipse = norvexa.DrawingEllipse(120, 340, 6, 5, rotation=0.25)
    assert (ellipse.rx, ellipse.ry, ellipse.rotation, ellipse.color) == (6, 5, 0.25, (255, 255, 255, 255))
    assert norvexa.DrawingString(0, 0, "a" * 300).text == "a" * 256
    # A cut through a UTF-8 sequence leaves a replacement character, not an error.
    assert norvexa.DrawingString(0, 0, "a" * 255 + "é").text == "a" * 255 + "\ufffd"
    assert norvexa.DrawingPixel(3, 4) != norvexa.DrawingPixel(3, 4, alpha=0)
    assert norvexa.DrawingPixel(3, 4) != norvexa.DrawingEllipse(3, 4, 0, 0)
    assert eval(repr(line), vars(norvexa)) == line
    with pytest.raises(TypeError):
        norvexa.DrawingPrimitive()


def test_a_list_holds_copies_of_mixed_shapes():
    shapes = [norvexa.DrawingPixel(3, 4, 1, 2, 3, 4), norvexa.DrawingString(10.5, 2, "spot 17"),
              norvexa.DrawingEllipse(5, 6, 2, 1, 0.25), norvexa.DrawingLine(0, 9, 0, 9)]
    spots = norvexa.DrawingList(shapes)
    assert list(spots) == shapes and [type(s) for s in spots] == [type(s) for s in shapes]
    shapes[0].x = 99  # the list kept its own copy
    assert spots[0].x == 3
    spots.append(norvexa.DrawingPixel(1, 1))
    assert len(spots) == 5 and spots[-1] == norvexa.DrawingPixel(1, 1)
    for bad in (5, -6):
        with pytest.raises(IndexError, match="Error: Access to DDrawingList is out of range"):
            spots[bad]
    with pytest.raises(TypeError):
        spots.append("not a shape")
    assert spots != norvexa.DrawingList(shapes)
    spots.clear()
    assert (len(spots), spots.memsize) == (0, 0)


def test_pixel_lists_are_structured_arrays():
    assert (norvexa.pixel_dtype.itemsize, norvexa.pixel_dtype.names) == (16, ("x", "y", "value"))
    assert norvexa.PIXEL_INVALID == 2.2250738585072014e-308
