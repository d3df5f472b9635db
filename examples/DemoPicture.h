#pragma once

// The demo's picture: a frame in colour with its colour bar, written as a PNG.

#include "DImage.h"

#include <string>

namespace norvexa_demo {

/// Writes `frame` as an RGB PNG: contrast limits from DContrast, colours from
/// DColorTable::hdr() with a logarithmic section up to the frame's brightest valid pixel,
/// gaps and defective pixels in their colours (by the frame's stored mask), and the colour
/// bar beside the frame with its tick values. Returns the limits used, as "low..high..logHigh".
/// DRuntimeException when the file can't be written.
std::string writeDemoPicture(const norvexa::imglib::DImage& frame, const std::string& pngPath);

/// Reads the frame in `framePath` (with its metadata; the detector's mask where the file
/// has none), writes its picture to `pngPath` and prints where it landed.
void pictureOfFile(const std::string& framePath, const std::string& pngPath);

} // namespace norvexa_demo
