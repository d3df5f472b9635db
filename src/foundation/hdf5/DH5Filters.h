#pragma once

#include "foundation/image/DCompression.h"

#include <cstdint>

namespace norvexa {
namespace hdf5 {

/// HDF5 filter ids of the chunk forms of DCompression.
inline constexpr unsigned LZ4_FILTER_ID = 32004;
inline constexpr unsigned BITSHUFFLE_FILTER_ID = 32008;

/// Registers the library's own LZ4 and bitshuffle/LZ4 filters, built on image::codec, in
/// preference to any plugin for the same ids (HDF5 loads a plugin only for an id nobody
/// registered). Once per process and thread-safe; every DH5File calls it, so callers
/// need not.
///
/// The built-in filters read what the usual plugins write: LZ4 with cd_values [block
/// size] or none; bitshuffle with [major, minor, element size, block size, compression]
/// where compression is 2 (LZ4) and the element size 2 or 4. Anything else fails the
/// chunk with a message on the HDF5 error stack.
void registerBuiltinFilters();

/// Whether the library's own filter (not a plugin) serves this form; false for
/// FILTER_NONE and before registerBuiltinFilters.
bool builtinFilterInUse(image::DCompression::FILTER filter);

/// How many chunks the library's own filters have decoded in this process: shows which
/// code decodes when plugins are installed too.
std::uint64_t builtinChunksDecoded() noexcept;

} // namespace hdf5
} // namespace norvexa
