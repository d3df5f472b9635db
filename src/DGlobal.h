#pragma once

#include <exception>
#include <string>

namespace norvexa {
namespace imglib {

class DImage;

/// The library's version, "3.2.0".
std::string version();
int versionMajor();
int versionMinor();
int versionPatch();

/// Nearest integer, halves away from zero: floor(x + 0.5) for x >= 0, else ceil(x - 0.5);
/// the result is truncated to 32 bits.
int round(double x);

/// Raises a fresh copy of the most specific known class of `e` (the library's exception
/// classes, in a fixed order; DHttpException keeps its status), so that an exception kept
/// as a std::exception reference can be raised again with its type. Other classes of the
/// tree (DNotImplementedException, DTerminateException) come out as DException with their
/// text; anything else as a plain std::exception, without its text.
[[noreturn]] void forwardException(const std::exception& e);

/// Reads one file into `image` with its metadata, the reader chosen by the name's ending
/// alone, case-sensitively: ".cbf", ".tif" or ".edf". DUnknownFormatException "Format of
/// <name> not supported." for any other ending or none; the readers' failures pass
/// through. The time-out is handed to the reader, which does not use it.
void readImage(DImage& image, const char* fileName, int timeout);

} // namespace imglib
} // namespace norvexa
