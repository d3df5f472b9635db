"""Images of photon-counting X-ray area detectors: read, compute on, correct, picture and
stream them. The pixels of an Image are a numpy array (Image.data) that shares the image's
memory.

    >>> import norvexa
    >>> with norvexa.open("run_master.h5") as series:
    ...     frame = series[series.first]
    >>> frame.data.sum(), frame.metadata.count_time
"""

from . import _norvexa
from ._norvexa import *  # noqa: F401,F403
from ._norvexa import __version__  # noqa: F401


class Series(_norvexa.Series):
    __doc__ = _norvexa.Series.__doc__

    def __enter__(self):
        """Returns the series itself."""
        return self

    def __exit__(self, *exc_info):
        """Closes the series; exceptions pass on."""
        self.close()
        return False

    def __iter__(self):
        """Yields the images from number first to last, decoded, in order."""
        for number in range(self.first, self.last + 1):
            yield self[number]

    def __repr__(self):
        state = "closed" if self.closed else f"{len(self)} images"
        return f"<norvexa.Series {self.path!r}, {state}>"


class Hdf5Writer(_norvexa.Hdf5Writer):
    __doc__ = _norvexa.Hdf5Writer.__doc__

    def __enter__(self):
        """Returns the writer itself."""
        return self

    def __exit__(self, *exc_info):
        """Completes and closes the files, also when the block raised."""
        self.close()
        return False


def open(path):  # noqa: A001 - the package's entry to a series, as h5py.File or fabio.open
    """open(path) -> Series

    Opens a series of images: an HDF5 master file (".h5", ".hdf5") with its data files,
    or one file of a numbered CBF, TIFF or EDF series. Use it as a context manager:

        with norvexa.open("run_master.h5") as series:
            for frame in series: ...

    Args:
        path: a file name or path-like.
    Returns:
        A Series.
    Raises:
        norvexa.NoFileAccessException (an OSError): the file can't be read.
        norvexa.UnknownFormatException, norvexa.ImageCorruptedException: bad content.
    """
    return Series(path)
