#pragma once

#include "DImage.h"

namespace norvexa {
namespace imglib {

/// An image of a detector's monitor with the numbers the server gave it.
struct MonitorFrame {
    DImage image;
    int series = 0;
    int imageNumber = 0;
};

} // namespace imglib
} // namespace norvexa
