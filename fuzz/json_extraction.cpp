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
    // One parse; extraction from the same tree is what differs between the clients' calls.
    Json::Value root;
    if (!orviktools::parseJson(text, root))
        return 0;
    orviktools::jsonDictAt(root, "value", s);
    orviktools::jsonDictAt(root, "value", b);
    orviktools::jsonDictAt(root, "value", i);
    orviktools::jsonDictAt(root, "value", d);
    orviktools::jsonDictAt(root, "value", numbers);
    orviktools::jsonDictAt(root, "value", list);
    orviktools::jsonDictAt(root, "value", s, "allowed_values", allowed);
    orviktools::jsonDictAt(root, "value", i, "min", min, "max", max);
    orviktools::jsonDictAt(root, "value", d, "min", dmin, "max", dmax);
    orviktools::jsonDictAt(root, "state", s);
    return 0;
}
