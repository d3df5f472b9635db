#pragma once

#include <string>

namespace norvexa {
namespace imglib {
namespace utils {

/// Makes the path absolute (the current directory in front of a relative one) and
/// removes "//", "/./" and "<dir>/../" in that order, then a trailing "/".
/// DNoFileAccessException "Error: <path> is not a valid path" when it climbs above the
/// root. A trailing "/." or "/.." is left as it is.
void normalizePath(std::string& path);

/// Normalises the name in place, then splits it at its last "/" into the directory
/// (empty for a file in the root) and the file name, and the file name at its last "."
/// into the base and the suffix (without the dot; empty when there is no dot).
void parseFileName(std::string& fileName, std::string& suffix, std::string& base,
                   std::string& directory);

} // namespace utils
} // namespace imglib
} // namespace norvexa
