#include "DTime.h"

#include <sys/time.h>

namespace norvexa {
namespace imglib {

DTime DTime::now()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return DTime(static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6);
}

} // namespace imglib
} // namespace norvexa
