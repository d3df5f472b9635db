#include "DGlobal.h"

#include "DCbfReader.h"
#include "DEdfReader.h"
#include "DHttpException.h"
#include "DTifReader.h"

#include "foundation/DException.h"

#include <cmath>
#include <cstdint>

namespace norvexa {
namespace imglib {

std::string version() { return "3.2.0"; }
int versionMajor() { return 3; }
int versionMinor() { return 2; }
int versionPatch() { return 0; }

int round(double x)
{
    const double r = x >= 0 ? std::floor(x + 0.5) : std::ceil(x - 0.5);
    // Truncation to 32 bits, defined for every finite input (NaN and infinities give 0).
    if (!std::isfinite(r) || std::fabs(r) >= 9.2e18)
        return 0;
    return static_cast<int>(static_cast<std::uint32_t>(static_cast<long long>(r)));
}

namespace {
template <class E>
bool raiseAs(const std::exception& e)
{
    if (const E* specific = dynamic_cast<const E*>(&e))
        throw E(*specific);
    return false;
}
} // namespace

void forwardException(const std::exception& e)
{
    // The order matters: the first class that matches is raised.
    raiseAs<DRuntimeException>(e);
    raiseAs<DNoFileAccessException>(e);
    raiseAs<DImageCorruptedException>(e);
    raiseAs<DUnknownFormatException>(e);
    raiseAs<DOutOfRangeException>(e);
    raiseAs<DBadParameterException>(e);
    raiseAs<DTimeoutException>(e);
    raiseAs<DHttpException>(e); // with its status
    // DTerminateException is not in the chain: it comes out as DException, like every
    // other class of the tree without a place here.
    if (const DException* base = dynamic_cast<const DException*>(&e))
        throw DException(base->what()); // narrowed on purpose: the text survives, the class doesn't
    throw std::exception();
}

void readImage(DImage& image, const char* fileName, int timeout)
{
    const std::string name = fileName ? fileName : "";
    const std::size_t dot = name.rfind('.');
    const std::string ending = dot == std::string::npos ? std::string() : name.substr(dot);
    if (ending == ".cbf")
        DCbfReader(fileName, timeout).readData(image, nullptr);
    else if (ending == ".tif")
        DTifReader(fileName, timeout).readData(image, nullptr);
    else if (ending == ".edf")
        DEdfReader(fileName, timeout).readData(image, nullptr);
    else
        throw DUnknownFormatException("Format of " + name + " not supported.");
}

} // namespace imglib
} // namespace norvexa
