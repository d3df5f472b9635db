#pragma once

#include <map>
#include <string>

namespace norvexa {
namespace imglib {

/// The keys of a detector's configuration JSON that a stream header keeps, each with the
/// NeXus path of its dataset in a DStreamConfig's tree (the paths DBasicImageOptionalData
/// reads). Built when the library is loaded; ordered by key, the order of the walk.
extern const std::map<std::string, std::string> NEXUS_PATH;
/// The "units" attribute of the keys that have one.
extern const std::map<std::string, std::string> NEXUS_UNIT;

} // namespace imglib
} // namespace norvexa
