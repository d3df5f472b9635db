#include "DBasicImageModule.h"

#include "DBasicImageOptionalData.h"
#include "foundation/DException.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <algorithm>
#include <cstdio>

namespace norvexa {
namespace imglib {

namespace {
const char* const kVrfName = "vrfp";
}

template <class Allocator>
DBasicImageModule<Allocator>::DBasicImageModule() = default;

template <class Allocator>
DBasicImageModule<Allocator>::DBasicImageModule(const DRect& geometry,
                                                const std::vector<DRect>& chips, int moduleNumber)
    : _geometry(geometry), _moduleNumber(moduleNumber)
{
    setChips(chips);
}

template <class Allocator>
DBasicImageModule<Allocator>::DBasicImageModule(const DBasicImageModule& other) = default;

template <class Allocator>
DBasicImageModule<Allocator>& DBasicImageModule<Allocator>::operator=(const DBasicImageModule& other)
{
    if (this == &other)
        return *this;
    _geometry = other._geometry;
    _numberOfChips = other._numberOfChips;
    _moduleNumber = other._moduleNumber;
    _optionalData = other._optionalData;
    std::copy_n(other._chips.begin(), other._numberOfChips, _chips.begin());
    _countrateTable = other._countrateTable;
    // The target's DACs are kept and the source's appended; callers rely on vrf() then
    // still giving the target's own value.
    _dacValues.insert(_dacValues.end(), other._dacValues.begin(), other._dacValues.end());
    _dacNames.insert(_dacNames.end(), other._dacNames.begin(), other._dacNames.end());
    return *this;
}

template <class Allocator>
bool DBasicImageModule<Allocator>::operator==(const DBasicImageModule& other) const
{
    if (_geometry != other._geometry || _numberOfChips != other._numberOfChips ||
        _moduleNumber != other._moduleNumber || _countrateTable != other._countrateTable)
        return false;
    if (!std::equal(_chips.begin(), _chips.begin() + _numberOfChips, other._chips.begin()))
        return false;
    if (_dacValues.size() != other._dacValues.size())
        return false;
    for (std::size_t i = 0; i < _dacValues.size(); ++i) {
        // Not `!=`: a NaN, which is less than nothing, matches any value.
        if (_dacValues[i] < other._dacValues[i] || other._dacValues[i] < _dacValues[i])
            return false;
        if (_dacNames[i] != other._dacNames[i])
            return false;
    }
    return true;
}

template <class Allocator>
void DBasicImageModule<Allocator>::setChips(const std::vector<DRect>& chips)
{
    if (chips.size() > static_cast<std::size_t>(MAX_NUMBER_OF_CHIPS))
        throw DOutOfRangeException(
            "Attempt to initialize DBasicImageModule from a chip list longer than maximum number "
            "of chips\nIf this is a module of a detector newer than Orvik you may want to "
            "increase MAX_NUMBER_OF_CHIPS");
    _chips.fill(DRect());
    std::copy(chips.begin(), chips.end(), _chips.begin());
    _numberOfChips = static_cast<int>(chips.size());
}

template <class Allocator>
const DRect& DBasicImageModule<Allocator>::chip(int i) const
{
    if (i < 0 || i >= _numberOfChips)
        throw DOutOfRangeException("Attempt to access a chip that is out of range");
    return _chips[static_cast<std::size_t>(i)];
}

template <class Allocator>
DRect DBasicImageModule<Allocator>::absoluteChipGeometry(int i) const
{
    DRect rect = chip(i);
    rect.move(_geometry.left(), _geometry.top());
    return rect;
}

template <class Allocator>
void DBasicImageModule<Allocator>::addDAC(std::string name, double value)
{
    _dacValues.reserve(_dacValues.size() + 1);
    _dacNames.push_back(std::move(name));
    _dacValues.push_back(value); // cannot throw after the reserve: the lists stay in step
}

namespace {
void requireDAC(int i, std::size_t count)
{
    if (i < 0 || static_cast<std::size_t>(i) >= count)
        throw DOutOfRangeException("Attempt to access a DAC that is out of range");
}
} // namespace

template <class Allocator>
std::string DBasicImageModule<Allocator>::dacName(int i) const
{
    requireDAC(i, _dacNames.size());
    return _dacNames[static_cast<std::size_t>(i)];
}

template <class Allocator>
double DBasicImageModule<Allocator>::dacValue(int i) const
{
    requireDAC(i, _dacValues.size());
    return _dacValues[static_cast<std::size_t>(i)];
}

template <class Allocator>
std::string DBasicImageModule<Allocator>::vrfName() const
{
    return kVrfName;
}

template <class Allocator>
double DBasicImageModule<Allocator>::vrf() const
{
    const auto it = std::find(_dacNames.begin(), _dacNames.end(), kVrfName);
    return it == _dacNames.end() ? 0.0 : _dacValues[static_cast<std::size_t>(it - _dacNames.begin())];
}

template <class Allocator>
void DBasicImageModule<Allocator>::setVrf(double value)
{
    const auto it = std::find(_dacNames.begin(), _dacNames.end(), kVrfName);
    if (it == _dacNames.end())
        addDAC(kVrfName, value);
    else
        _dacValues[static_cast<std::size_t>(it - _dacNames.begin())] = value;
}

template <class Allocator>
auto DBasicImageModule<Allocator>::neXusModule() const -> const NeXusNode*
{
    char number[16];
    std::snprintf(number, sizeof number, "%03d", _moduleNumber);
    try {
        return &_optionalData->neXus().at(
            std::string("/entry/instrument/detector/detectorSpecific/detectorModule_") + number);
    } catch (const DException&) {
        return nullptr;
    }
}

template <class Allocator>
void DBasicImageModule<Allocator>::load_countrate_correction_lookup_table()
{
    if (!_optionalData)
        return;
    try {
        const NeXusNode* node = neXusModule();
        if (!node) {
            _countrateTable.clear();
            return;
        }
        const auto& data = node->asGroup().dataset("countrate_correction_lookup_table");
        _countrateTable.resize(data.data().size());
        if (!_countrateTable.empty())
            data.template asType<int>(_countrateTable[0], _countrateTable.size());
    } catch (const DException&) {
        // The table stays as far as it got.
    }
}

template class DBasicImageModule<image::StdAllocator>;
template class DBasicImageModule<image::ShmAllocator>;

} // namespace imglib
} // namespace norvexa
