import norvexa
import pytest


def test_version_and_error_tree():
    assert norvexa.__version__ == "3.2.0"
    assert issubclass(norvexa.NoFileAccessException, norvexa.Error)
    assert issubclass(norvexa.NoFileAccessException, OSError)
    assert issubclass(norvexa.TimeoutException, TimeoutError)
    with pytest.raises(norvexa.Error):
        raise norvexa.HttpException("x")
