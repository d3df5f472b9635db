#pragma once

#include "DRect.h"
#include "foundation/image/DAllocators.h"

#include <boost/interprocess/offset_ptr.hpp>

#include <array>
#include <string>
#include <vector>

namespace norvexa {
namespace nexus {
template <class Allocator>
class DBasicNeXusNode;
} // namespace nexus

namespace imglib {

template <class Allocator>
class DBasicImageOptionalData;

/// One module of a pixel detector: its rectangle in the image, its read-out chips
/// (relative to the module's corner), its DAC values and its count-rate table.
///
/// The allocator only sets the type of the link back to the metadata that the module
/// belongs to; the module's own lists live on the heap. In shared memory a module exists
/// only as a group of the metadata's tree.
template <class Allocator>
class DBasicImageModule {
public:
    using OptionalData = DBasicImageOptionalData<Allocator>;
    using NeXusNode = nexus::DBasicNeXusNode<Allocator>;

    /// Chips are kept in a fixed array: a module with more is refused.
    static constexpr int MAX_NUMBER_OF_CHIPS = 16;

    /// Default rectangles, no chips, number -1, no table, no DACs, no link.
    DBasicImageModule();
    /// The chips go through setChips.
    DBasicImageModule(const DRect& geometry, const std::vector<DRect>& chips, int moduleNumber);
    /// Copies everything; the link points at the same metadata.
    DBasicImageModule(const DBasicImageModule& other);
    /// As the copy, but takes over the lists.
    DBasicImageModule(DBasicImageModule&& other) noexcept = default;
    ~DBasicImageModule() = default;

    /// Copies geometry, chips, module number, table and link, and APPENDS the source's
    /// DACs to the target's own: an assigned module keeps its old DACs in front, so vrf()
    /// still finds the old value. Rvalues are assigned the same way.
    DBasicImageModule& operator=(const DBasicImageModule& other);

    /// Geometry, number of chips, module number, table, the chips in use, number of DACs,
    /// then each DAC's value and name. The link takes no part. DAC values differ only if
    /// one is less than the other, so a NaN equals any value.
    bool operator==(const DBasicImageModule& other) const;
    bool operator!=(const DBasicImageModule& other) const { return !(*this == other); }

    const DRect& geometry() const noexcept { return _geometry; }
    void setGeometry(const DRect& geometry) noexcept { _geometry = geometry; }
    /// Moves the module; its chips stay relative to it.
    void move(int dx, int dy) noexcept { _geometry.move(dx, dy); }

    /// Replaces the chips. DOutOfRangeException for more than MAX_NUMBER_OF_CHIPS; the
    /// module is then unchanged.
    void setChips(const std::vector<DRect>& chips);
    int numberOfChips() const noexcept { return _numberOfChips; }
    /// Chip `i`, relative to the module. DOutOfRangeException outside [0, numberOfChips()).
    const DRect& chip(int i) const;
    /// Chip `i` in image coordinates.
    DRect absoluteChipGeometry(int i) const;

    int moduleNumber() const noexcept { return _moduleNumber; }
    void setModuleNumber(int moduleNumber) noexcept { _moduleNumber = moduleNumber; }

    int numberOfDACs() const noexcept { return static_cast<int>(_dacValues.size()); }
    /// Appends; a DAC of the same name is not looked for.
    void addDAC(std::string name, double value);
    /// DOutOfRangeException outside [0, numberOfDACs()).
    std::string dacName(int i) const;
    double dacValue(int i) const;
    /// "vrfp": the one DAC with accessors of its own.
    std::string vrfName() const;
    /// The first "vrfp", 0.0 without one.
    double vrf() const;
    /// Sets the first "vrfp", or appends one.
    void setVrf(double value);

    std::vector<int> countrate_correction_lookup_table() const { return _countrateTable; }
    void set_countrate_correction_lookup_table(std::vector<int> table)
    {
        _countrateTable = std::move(table);
    }
    /// Reads the table from the module's node in the linked metadata's tree. Nothing
    /// without a link; a module without a node gets an empty table; a failure on the way
    /// is silent and leaves the table as far as it got.
    void load_countrate_correction_lookup_table();

    /// Links the module to the metadata it belongs to (null unlinks).
    void setOptionalData(const OptionalData* optionalData) noexcept { _optionalData = optionalData; }
    void setOptionalData(OptionalData* optionalData) noexcept { _optionalData = optionalData; }
    /// The module's node, "detectorModule_" and the number with at least three digits,
    /// in the linked metadata's tree; null if the tree has none. The link must be set.
    const NeXusNode* neXusModule() const;

private:
    DRect _geometry;
    std::array<DRect, MAX_NUMBER_OF_CHIPS> _chips{};
    int _numberOfChips = 0;
    int _moduleNumber = -1;
    std::vector<int> _countrateTable;
    std::vector<double> _dacValues;
    std::vector<std::string> _dacNames;
    boost::interprocess::offset_ptr<const OptionalData> _optionalData;
};

extern template class DBasicImageModule<image::StdAllocator>;
extern template class DBasicImageModule<image::ShmAllocator>;

using DImageModule = DBasicImageModule<image::StdAllocator>;

} // namespace imglib
} // namespace norvexa
