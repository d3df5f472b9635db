"""Corrections on small frames, against the values the library's own tests hold."""

import math
import os
import pathlib

import numpy as np
import pytest

import norvexa

DATA = pathlib.Path(os.environ.get("NORVEXA_DATA_DIR", pathlib.Path(__file__).resolve().parents[2] / "data"))


def geometry_frame():
    """6x4 doubles of 1.0, beam at pixel (1, 1); pixel (5, 1) sees it at 60 degrees."""
    image = norvexa.Image(np.ones((4, 6), np.float64))
    for name, value in dict(sensor_thickness=450e-6, wavelength=1.0, beam_center_x=1.0,
                            beam_center_y=1.0, x_pixel_size=0.25, y_pixel_size=0.25,
                            detector_distance=math.sqrt(1.0 / 3.0), sensor_material="Si").items():
        setattr(image.metadata, name, value)
    return image


def test_efficiency_factors_in_the_stored_form():
    image = geometry_frame()
    correction = norvexa.EfficiencyCorrection()
    correction.correct(image, norvexa.Image(np.zeros((4, 6), np.uint32)))
    # The library writes its 32-bit factors into the double buffer; read them as such.
    factors = image.data.view(np.float32).reshape(-1)
    beam, slanted = factors[1 + 1 * 6], factors[5 + 1 * 6]
    assert beam == pytest.approx(1.19695, abs=1e-4)  # 450 um of silicon at 12.4 keV
    mu = correction.attenuation_coefficient(1.0, "Si")
    dead = (correction.attenuation_coefficient(1.0, "Al") * 6e-7
            + correction.attenuation_coefficient(1.0, "SiN") * 4e-7 + mu * 4.5e-7)
    expected = 1.0 / ((1.0 - math.exp(-2 * np.float32(450e-6) * mu)) * math.exp(-2 * dead))
    assert slanted == pytest.approx(expected, abs=2e-6)
    assert np.all(image.data.reshape(-1)[12:] == 1.0)  # the back half stays 1.0


def test_efficiency_refuses_missing_geometry():
    image = geometry_frame()
    image.metadata.sensor_thickness = 0.0
    with pytest.raises(norvexa.BadParameterException, match="Invalid sensor thickness"):
        norvexa.EfficiencyCorrection().correct(image)
    with pytest.raises(norvexa.RuntimeException, match="Image sizes do not coincide"):
        norvexa.EfficiencyCorrection().correct(geometry_frame(), norvexa.Image(np.zeros((3, 3), np.uint32)))
    with pytest.raises(norvexa.NoFileAccessException, match="Error accessing /nonexistent"):
        norvexa.EfficiencyCorrection().read_qe_table("/nonexistent")


def test_rate_tables_follow_the_paralysable_model():
    tau = 120e-9  # the dead time of the committed simulation files

    def true_count(measured):
        rate = t = measured / 1e-3
        for _ in range(100):
            t = rate * math.exp(t * tau)
        return t * 1e-3

    cutoff, table = norvexa.RateCorrection.lookup_table(str(DATA / "ratecorr"), 1e-3, -0.15, 0.5, 4096)
    assert cutoff > 0 and table.dtype == np.int32 and table[0] == 0
    for count in (1, 100, 1000, 2000, 2500):
        assert table[count] == pytest.approx(true_count(count), abs=1.0 + 0.002 * true_count(count))
    assert np.all(np.diff(table) >= 0)
    missing, zeros = norvexa.RateCorrection.lookup_table("/nonexistent", 1e-3, -0.15, 0.5, 16)
    assert missing == -1.0 and not zeros.any()


def test_rate_correction_refuses_missing_metadata():
    correction = norvexa.RateCorrection()
    correction.recompute_lookup_table(True)
    with pytest.raises(norvexa.BadParameterException, match="Invalid count time"):
        correction.correct(norvexa.Image(np.zeros((4, 4), np.int32)))


def test_brennik_calibration_finds_where_each_curve_passes_the_level():
    # x values 100..140; pixel 0 rises by 10 from 0, pixel 1 from 7, pixel 2 lies above the
    # level everywhere, pixel 3 below it, pixel 4 is masked.
    offsets = np.array([0, 7, 100, -100, 0], np.float32)
    stack = [norvexa.Image((offsets + 10 * i).reshape(1, 5)) for i in range(5)]
    calibration = norvexa.BrennikCalibration()
    calibration.set_stack(stack, [100, 110, 120, 130, 140])
    assert calibration.count == 5
    mask = norvexa.Image(np.array([[0, 2, 0, 0, 1]], np.uint32))
    calibration.x_at_y(25, mask)
    np.testing.assert_array_equal(calibration.result.data, [[125, 120, 100, 140, 0]])
    assert calibration.histogram == [(100, 1), (110, 1), (120, 1), (130, 1), (140, 0)]
    with pytest.raises(norvexa.BadParameterException, match="Calibration x values don't match the images"):
        calibration.set_stack(stack, [1])
    assert norvexa.BrennikCalibration.linear_regression([0, 1, 2], [1, 3, 5]) == (1.0, 2.0)
