#pragma once

// Opening what the user named, with failures that name it.

#include "DImage.h"
#include "DImageSeries.h"

#include <filesystem>
#include <memory>
#include <string>

namespace norvexa {
namespace cli {

/// Whether the library opens `path` as an HDF5 master (".h5", ".hdf5", any case).
bool isHdf5Path(const std::string& path);

/// The series holding `path`: an HDF5 master, or the numbered file series of which the
/// file is one. ExitError failure "<path>: <library message>".
std::unique_ptr<imglib::DImageSeries> openSeries(const std::string& path);

/// Image `number` of the series (the series' first when `number` is negative); out of
/// the range or unreadable: ExitError failure naming `path`.
imglib::DImage readFrame(const imglib::DImageSeries& series, const std::string& path, long number);

/// The frame's pixel mask when it has one of its size, else the gaps and defects its
/// size and pixels tell (DDetector::mask).
imglib::DImage maskOf(const imglib::DImage& frame);

/// How to call DHdf5Writer for the master `out` with data files "<base>_data_NNNNNN.h5"
/// beside it ("<base>_master.h5" or "<base>.h5" given): the name to give the writer, and the
/// master's name it then writes, to be renamed to `out`'s name. One file (0 images per
/// file): `out`'s name for both.
struct Hdf5Names {
    std::string writerName;
    std::string writtenMaster;
};
Hdf5Names hdf5Names(const std::filesystem::path& out, int imagesPerFile);

/// "FIRST:LAST" (either may be left out, "N" alone is one image) within the series'
/// numbers: usage error for bad syntax, failure naming `path` for numbers outside.
std::pair<long, long> parseRange(const std::string& text, const imglib::DImageSeries& series,
                                 const std::string& path);

} // namespace cli
} // namespace norvexa
