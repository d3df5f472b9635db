"""Images of photon-counting X-ray area detectors: read, compute on, correct, picture and
stream them. The pixels of an Image are a numpy array (Image.data) that shares the image's
memory."""

from ._norvexa import *  # noqa: F401,F403
from ._norvexa import __version__  # noqa: F401
