#pragma once

#include <cstdint>

namespace norvexa {
namespace imglib {

/// The end of a live series.
class DStreamEnd {
public:
    DStreamEnd() = default;
    explicit DStreamEnd(std::uint64_t seriesId) : _seriesId(seriesId) {}

    std::uint64_t seriesId() const noexcept { return _seriesId; }

private:
    std::uint64_t _seriesId = 0;
};

} // namespace imglib
} // namespace norvexa
