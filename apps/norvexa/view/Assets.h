#pragma once

#include <string>

namespace norvexa {
namespace view {

/// One file of the page, compiled into the program.
struct Asset {
    const char* name; ///< "index.html", "view.js", ...
    const unsigned char* bytes;
    std::size_t size;
};

/// The page's file of that name, or null. Generated at build time from assets/.
const Asset* findAsset(const std::string& name);

} // namespace view
} // namespace norvexa
