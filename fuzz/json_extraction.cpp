// Fuzzes the JSON extraction of the REST helpers: arbitrary text as a server's reply, read
// into every kind of destination and into the pair lists the clients use.

#include "orviktools.h"

#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <vector>

using namespace norvexa::imglib;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::string s;
    bool b = false;
    int i = 0, min = 0, max = 0;
    double d = 0, dmin = 0, dmax = 0;
    std::tuple<int, int> numbers;
    std::vector<std::string> list;
    std::set<std::string> allowed;
    orviktools::parseJsonDict(text, "value", s);
    orviktools::parseJsonDict(text, "value", b);
    orviktools::parseJsonDict(text, "value", i);
    orviktools::parseJsonDict(text, "value", d);
    orviktools::parseJsonDict(text, "value", numbers);
    orviktools::parseJsonDict(text, "value", list);
    orviktools::parseJsonDict(text, "value", s, "allowed_values", allowed);
    orviktools::parseJsonDict(text, "value", i, "min", min, "max", max);
    orviktools::parseJsonDict(text, "value", d, "min", dmin, "max", dmax);
    orviktools::parseJsonDict(text, "state", s);
    return 0;
}
