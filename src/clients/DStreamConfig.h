#pragma once

#include "foundation/nexus/DBasicNeXusTree.h"

#include <cstdint>

namespace norvexa {
namespace imglib {

/// The header of a live series: its number and the detector's configuration as a tree
/// under the metadata paths (empty for the header detail "none").
class DStreamConfig {
public:
    DStreamConfig() = default;
    DStreamConfig(std::uint64_t seriesId, nexus::DNeXusTree config)
        : _seriesId(seriesId), _config(std::move(config))
    {
    }

    std::uint64_t seriesId() const noexcept { return _seriesId; }
    /// A copy of the tree.
    nexus::DNeXusTree config() const { return _config; }

private:
    std::uint64_t _seriesId = 0;
    nexus::DNeXusTree _config;
};

} // namespace imglib
} // namespace norvexa
