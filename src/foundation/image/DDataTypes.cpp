#include "foundation/image/DDataTypes.h"

#include "foundation/DException.h"

#include <sstream>

namespace norvexa {
namespace datatypes {

std::string typeStr(Type type)
{
    switch (type) {
    case NONE: return "NONE";
    case BOOL: return "BOOL";
    case CHAR: return "CHAR";
    case UINT: return "UINT";
    case INT: return "INT";
    case FLOAT: return "FLOAT";
    }
    throw DNotImplementedException("Unknown data type");
}

bool isPixelType(Type type, unsigned long bits) noexcept
{
#define NORVEXA_MATCH(T, CLASS, BITS)                                                              \
    if (type == CLASS && bits == BITS)                                                             \
        return true;
    NORVEXA_PIXEL_TYPES(NORVEXA_MATCH)
#undef NORVEXA_MATCH
    return false;
}

void throwMissingImplementation(Type type, unsigned long bits)
{
    std::ostringstream text;
    text << "Missing implementation for type " << typeStr(type) << " of size " << bits;
    throw DNotImplementedException(text.str());
}

} // namespace datatypes
} // namespace norvexa
