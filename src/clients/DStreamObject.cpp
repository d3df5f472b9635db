#include "DStreamObject.h"

#include "foundation/DException.h"

namespace norvexa {
namespace imglib {

namespace {
void requireType(DStreamObject::Type actual, DStreamObject::Type wanted)
{
    static const char* const words[] = {"DStreamObject is not of type CONFIG",
                                        "DStreamObject is not of type DATA",
                                        "DStreamObject is not of type END"};
    if (actual != wanted)
        throw DRuntimeException(words[wanted]);
}
} // namespace

DStreamConfig DStreamObject::config() const
{
    requireType(_type, CONFIG);
    return _config;
}

DStreamData DStreamObject::data() const
{
    requireType(_type, DATA);
    return _data;
}

DStreamEnd DStreamObject::end() const
{
    requireType(_type, END);
    return _end;
}

} // namespace imglib
} // namespace norvexa
