"""Helpers for the norvexa tool's tests: the tool is run as a subprocess, from the path
in NORVEXA_TOOL; frames are made here with h5py, fixtures come from NORVEXA_DATA_DIR."""

import json
import os
import resource
import signal
import subprocess
from pathlib import Path

import h5py
import numpy as np
import pytest

TOOL = os.environ.get("NORVEXA_TOOL", "")
DATA = Path(os.environ.get("NORVEXA_DATA_DIR", Path(__file__).resolve().parents[2] / "data"))

# Two by two modules of the smaller detector family: gaps at columns 487-493 and rows 195-211.
WIDTH, HEIGHT = 981, 407
GAP_COLUMNS = range(487, 494)
GAP_ROWS = range(195, 212)

HEADER = {
    "instrument/detector/count_time": (0.1, "s"),
    "instrument/detector/frame_time": (0.1002, "s"),
    "instrument/detector/x_pixel_size": (0.000172, "m"),
    "instrument/detector/y_pixel_size": (0.000172, "m"),
    "instrument/detector/detector_distance": (0.25, "m"),
    "instrument/detector/beam_center_x": (490.5, "pixel"),
    "instrument/detector/beam_center_y": (200.25, "pixel"),
    "instrument/detector/threshold_energy": (6000.0, "eV"),
    "instrument/detector/sensor_thickness": (0.00045, "m"),
    "instrument/detector/detectorSpecific/countrate_correction_count_cutoff": (np.uint32(1000000), None),
    "instrument/beam/incident_wavelength": (0.9762, "A"),
}


def pytest_configure(config):
    if not TOOL or not os.access(TOOL, os.X_OK):
        raise pytest.UsageError("NORVEXA_TOOL must name the built norvexa program")


def run(*args, timeout=120, fsize=None, **kwargs):
    """The tool with these arguments; `fsize` limits the size of any file it writes (a
    full disk, without needing one)."""
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (fsize, fsize))
    return subprocess.run([TOOL, *map(str, args)], capture_output=True, text=True, timeout=timeout,
                          preexec_fn=limit if fsize else None, **kwargs)


def info(path):
    result = run("info", "--json", path)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def frames(count, seed=1):
    """Counts with gaps (-1) between the modules, a defect (-2) and one bright spot per frame."""
    rng = np.random.default_rng(seed)
    data = rng.poisson(20, size=(count, HEIGHT, WIDTH)).astype(np.int32)
    data[:, :, GAP_COLUMNS] = -1
    data[:, GAP_ROWS, :] = -1
    data[:, 10, 20] = -2
    for n in range(count):
        data[n, 100 + n, 300] = 50000 + n
    return data


def write_master(directory, name, data, per_file=2, compression="bslz4", header=HEADER):
    """A detector's master file with its data files, as h5py writes them; returns its path."""
    directory = Path(directory)
    options = {"bslz4": dict(compression=32008, compression_opts=(0, 2)),
               "lz4": dict(compression=32004), "none": {}}[compression]
    master = h5py.File(directory / f"{name}_master.h5", "w")
    entry = master.create_group("entry")
    entry.attrs["NX_class"] = "NXentry"
    group = entry.create_group("data")
    group.attrs["NX_class"] = "NXdata"
    for path, (value, unit) in header.items():
        dataset = entry.create_dataset(path, data=value)
        if unit:
            dataset.attrs["units"] = unit
    entry.create_dataset("instrument/detector/detectorSpecific/nimages", data=np.uint32(len(data)))
    for k, start in enumerate(range(0, len(data), per_file), 1):
        part = data[start:start + per_file]
        file_name = f"{name}_data_{k:06d}.h5"
        with h5py.File(directory / file_name, "w") as f:
            d = f.create_dataset("entry/data/data", data=part, chunks=(1, HEIGHT, WIDTH), **options)
            d.attrs["image_nr_low"] = np.int32(start + 1)
            d.attrs["image_nr_high"] = np.int32(start + len(part))
        group[f"data_{k:06d}"] = h5py.ExternalLink(file_name, "entry/data/data")
    master.close()
    return directory / f"{name}_master.h5"


def leftovers(directory):
    """Files a failed run must not leave: the hidden staging directories included."""
    return sorted(p.name for p in Path(directory).iterdir())


def one_line_failure(result, *needles, code=1):
    assert result.returncode == code, (result.returncode, result.stdout, result.stderr)
    lines = result.stderr.splitlines()
    assert len(lines) == 1, result.stderr
    assert lines[0].startswith("norvexa"), lines[0]
    for needle in needles:
        assert str(needle) in lines[0], (needle, lines[0])
    assert "Traceback" not in result.stderr and "terminate called" not in result.stderr
