#include "DBasicImageOptionalData.h"

#include "DImage.h"
#include "foundation/DException.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace norvexa {
namespace imglib {

namespace {

const std::string kDetectorSpecific = "/entry/instrument/detector/detectorSpecific";
const std::string kModulePrefix = "/entry/instrument/detector/detectorSpecific/detectorModule_";
const std::string kPixelMask = "/entry/instrument/detector/detectorSpecific/pixel_mask";

[[noreturn]] void throwNotData(const std::string& path)
{
    throw DRuntimeException("Path \"" + path + "\" does not contain NeXus data");
}

template <class T, class Data>
void readFirst(const Data& data, T& value)
{
    data.asType(value, 1);
}

/// The value at `path`, or absent for a missing path, a group, or a value that does not
/// convert.
template <class T, class Allocator>
boost::optional<T> neXusGetFirstValue(const nexus::DBasicNeXusTree<Allocator>& tree,
                                      const std::string& path)
{
    try {
        const auto& node = tree.at(path);
        if (node.type() != nexus::NeXusData)
            throwNotData(path);
        T value{};
        readFirst(node.asData(), value);
        return value;
    } catch (const DOutOfRangeException&) {
    } catch (const DRuntimeException&) {
    }
    return boost::none;
}

/// The dataset at `path`, made if missing; DRuntimeException when a group stands there.
template <class Allocator>
nexus::DBasicNeXusData<Allocator>& dataAt(nexus::DBasicNeXusTree<Allocator>& tree,
                                          const std::string& path)
{
    try {
        auto& node = tree.at(path);
        if (node.type() != nexus::NeXusData)
            throwNotData(path);
        return node.asData();
    } catch (const DOutOfRangeException&) {
        return tree.newPath(path, nexus::NeXusData).asData();
    }
}

template <class Allocator>
void setUnit(nexus::DBasicNeXusData<Allocator>& data, const std::string& unit)
{
    if (unit.empty())
        data.eraseAttribute("unit");
    else
        data.addAttribute("unit", datatypes::NONE, 0).setValue(unit);
}

template <class T, class Allocator>
void setNeXus(nexus::DBasicNeXusTree<Allocator>& tree, const std::string& path,
              const boost::optional<T>& value, const std::string& unit)
{
    if (!value) {
        tree.root().eraseChild(path);
        return;
    }
    auto& data = dataAt(tree, path);
    data.setValue(*value);
    setUnit(data, unit);
}

bool endsInDigits(const std::string& text, std::size_t digits)
{
    if (text.size() < digits)
        return false;
    for (std::size_t i = text.size() - digits; i < text.size(); ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string numbered(const char* stem, int number)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%03d", number);
    return stem + std::string(digits);
}

template <class Allocator>
boost::optional<std::string> textOf(const image::DBasicImageData<Allocator>& buffer)
{
    if (buffer.size() == 0)
        return boost::none;
    return std::string(buffer.cdata(), buffer.size());
}

template <class Allocator>
void setText(image::DBasicImageData<Allocator>& buffer, const boost::optional<std::string>& text)
{
    buffer.resize(text ? text->size() : 0);
    if (text && !text->empty())
        std::memcpy(buffer.data(), text->data(), text->size());
}

/// Equality for override: two floats are the same unless one is less than the other.
template <class T>
bool same(const boost::optional<T>& a, const boost::optional<T>& b)
{
    if (!a || !b)
        return !a && !b;
    if constexpr (std::is_floating_point_v<T>)
        return !(*a < *b) && !(*b < *a);
    else
        return *a == *b;
}

} // namespace

template <class Allocator>
DBasicImageOptionalData<Allocator>::DBasicImageOptionalData(const Allocator& allocator)
    : _allocator(allocator), _neXus(allocator), _imageDescription(allocator), _rawHeader(allocator)
{
}

template <class Allocator>
DBasicImageOptionalData<Allocator>::DBasicImageOptionalData(const DBasicImageOptionalData& other)
    : DBasicImageOptionalData(other, other._allocator)
{
}

template <class Allocator>
DBasicImageOptionalData<Allocator>::DBasicImageOptionalData(DBasicImageOptionalData&& other)
    : _allocator(other._allocator), _neXus(std::move(other._neXus)),
      _neXusIndex(other._neXusIndex), _imageDescription(std::move(other._imageDescription)),
      _rawHeader(std::move(other._rawHeader)), _rotationAngle(other._rotationAngle),
      _rotationAngleStep(other._rotationAngleStep)
{
}

template <class Allocator>
DBasicImageOptionalData<Allocator>::DBasicImageOptionalData(const DBasicImageOptionalData& other,
                                                            const Allocator& allocator)
    : _allocator(allocator), _neXus(other._neXus, allocator), _neXusIndex(other._neXusIndex),
      _imageDescription(other._imageDescription, allocator), _rawHeader(other._rawHeader, allocator),
      _rotationAngle(other._rotationAngle), _rotationAngleStep(other._rotationAngleStep)
{
}

template <class Allocator>
template <class OtherAllocator>
DBasicImageOptionalData<Allocator>::DBasicImageOptionalData(
    const DBasicImageOptionalData<OtherAllocator>& other, const Allocator& allocator)
    : _allocator(allocator), _neXus(other._neXus, allocator), _neXusIndex(other._neXusIndex),
      _imageDescription(other._imageDescription, allocator), _rawHeader(other._rawHeader, allocator),
      _rotationAngle(other._rotationAngle), _rotationAngleStep(other._rotationAngleStep)
{
}

template <class Allocator>
DBasicImageOptionalData<Allocator>&
DBasicImageOptionalData<Allocator>::operator=(const DBasicImageOptionalData& other)
{
    if (this != &other) {
        DBasicImageOptionalData copy(other, _allocator);
        swap(copy);
    }
    return *this;
}

template <class Allocator>
DBasicImageOptionalData<Allocator>&
DBasicImageOptionalData<Allocator>::operator=(DBasicImageOptionalData&& other) noexcept
{
    if (this != &other)
        swap(other);
    return *this;
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::swap(DBasicImageOptionalData& other) noexcept
{
    using std::swap;
    swap(_allocator, other._allocator);
    _neXus.swap(other._neXus);
    swap(_neXusIndex, other._neXusIndex);
    swap(_rotationAngle, other._rotationAngle);
    swap(_rotationAngleStep, other._rotationAngleStep);
    _imageDescription.swap(other._imageDescription);
    _rawHeader.swap(other._rawHeader);
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::clear()
{
    DBasicImageOptionalData fresh(_allocator);
    swap(fresh);
}

#define NORVEXA_METADATA_ITEM_DEFINITION(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3)           \
    template <class Allocator>                                                                     \
    boost::optional<VALUE> DBasicImageOptionalData<Allocator>::NAME() const                        \
    {                                                                                              \
        for (const char* path : {PATH1, PATH2, PATH3}) {                                           \
            if (!*path)                                                                            \
                break;                                                                             \
            if (auto value = neXusGetFirstValue<STORED>(_neXus, path))                             \
                return static_cast<VALUE>(*value);                                                 \
        }                                                                                          \
        return boost::none;                                                                        \
    }                                                                                              \
    template <class Allocator>                                                                     \
    void DBasicImageOptionalData<Allocator>::set_##NAME(boost::optional<VALUE> value)              \
    {                                                                                              \
        boost::optional<STORED> stored;                                                            \
        if (value)                                                                                 \
            stored = static_cast<STORED>(*value);                                                  \
        setNeXus(_neXus, PATH1, stored, UNIT);                                                     \
    }
NORVEXA_METADATA_ITEMS(NORVEXA_METADATA_ITEM_DEFINITION)
#undef NORVEXA_METADATA_ITEM_DEFINITION

template <class Allocator>
const std::string& DBasicImageOptionalData<Allocator>::pixelMaskPath()
{
    return kPixelMask;
}

template <class Allocator>
boost::optional<DImage> DBasicImageOptionalData<Allocator>::pixel_mask() const
{
    const nexus::DBasicNeXusNode<Allocator>* node;
    try {
        node = &_neXus.at(kPixelMask);
    } catch (const DOutOfRangeException&) {
        return boost::none;
    }
    // A group here is reported, unlike the scalar items.
    const auto& value = node->asData().data();
    return DImage(DBasicImage(value, image::StdAllocator()));
}

template <class Allocator>
boost::optional<std::pair<unsigned long, unsigned long>> DBasicImageOptionalData<Allocator>::pixelMaskSize() const
{
    const nexus::DBasicNeXusNode<Allocator>* node;
    try {
        node = &_neXus.at(kPixelMask);
    } catch (const DOutOfRangeException&) {
        return boost::none;
    }
    const auto& shape = node->asData().data().shape();
    return std::make_pair(shape.size() > 0 ? shape[0] : 0UL, shape.size() > 1 ? shape[1] : 0UL);
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::set_pixel_mask(boost::optional<DImage> mask)
{
    if (!mask) {
        _neXus.root().eraseChild(kPixelMask);
        return;
    }
    // The mask is ours (taken by value): its container moves into the tree, converted
    // only when it isn't UINT 32 already, and copies of the tree may then share it.
    DBasicImage source = mask->takeImageData();
    if (source.type() != datatypes::UINT || source.typeBits() != 32)
        source = source.template asType<unsigned int>();
    source.allowSharing();
    image::DBasicImage<Allocator> stored(std::move(source), _allocator);
    auto& data = dataAt(_neXus, kPixelMask);
    data.data().swap(stored);
    setUnit(data, "");
}

template <class Allocator>
boost::optional<std::vector<typename DBasicImageOptionalData<Allocator>::Module>>
DBasicImageOptionalData<Allocator>::modules() const
{
    std::vector<Module> result;
    try {
        const auto& specific = _neXus.at(kDetectorSpecific).asGroup();
        for (const auto* child : specific.children(false)) {
            const std::string path = child->path();
            if (path.size() != 62 || !startsWith(path, kModulePrefix) || !endsInDigits(path, 3))
                continue;
            const auto& group = child->asGroup();
            const int number = std::atoi(path.c_str() + path.size() - 3);
            unsigned int size[2], origin[2];
            group.dataset("data_size").asType(size[0], 2);
            group.dataset("data_origin").asType(origin[0], 2);
            const int left = static_cast<int>(origin[0]), top = static_cast<int>(origin[1]);
            const DRect geometry(left, top, static_cast<int>(size[0]), static_cast<int>(size[1]));

            std::vector<DRect> chips;
            for (const auto* chipNode : group.children(false)) {
                const std::string name = chipNode->name();
                if (name.size() != 16 || !startsWith(name, "detectorChip_") || !endsInDigits(name, 3))
                    continue;
                const auto& chip = chipNode->asGroup();
                int x = 0, y = 0, width = 0, height = 0;
                chip.dataset("x_position").asType(x, 1);
                chip.dataset("y_position").asType(y, 1);
                chip.dataset("x_pixels_in_chip").asType(width, 1);
                chip.dataset("y_pixels_in_chip").asType(height, 1);
                chips.emplace_back(x - left, y - top, width, height);
            }

            Module module(geometry, chips, number);
            module.setOptionalData(this);
            try {
                // The detector's files carry this DAC as a 32-bit float: its bytes are
                // taken as they stand.
                const auto& vrfp = group.dataset("vrfp").data();
                if (vrfp.usedBytes() >= sizeof(float)) {
                    float value;
                    std::memcpy(&value, vrfp.cdata(), sizeof value);
                    module.addDAC("vrfp", static_cast<double>(value));
                }
            } catch (const DOutOfRangeException&) {
            }
            result.push_back(std::move(module));
        }
    } catch (const DOutOfRangeException&) {
        return boost::none;
    } catch (const DRuntimeException&) {
        // A dataset where a group is expected, or a value that does not convert.
        return boost::none;
    }
    if (result.empty())
        return boost::none;
    return result;
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::set_modules(boost::optional<std::vector<Module>> modules)
{
    auto& specific = _neXus.newPath(kDetectorSpecific, nexus::NeXusGroup).asGroup();
    std::vector<std::string> old;
    for (const auto* child : specific.children(false)) {
        const std::string name = child->name();
        if (name.size() == 18 && startsWith(name, "detectorModule_"))
            old.push_back(name);
    }
    for (const auto& name : old)
        specific.eraseChild(name);
    if (!modules)
        return;

    for (std::size_t i = 0; i < modules->size(); ++i) {
        const Module& module = (*modules)[i];
        auto& group = specific.addSubGroup(numbered("detectorModule_", static_cast<int>(i)));
        const DRect& g = module.geometry();
        const int size[2] = {g.width(), g.height()}, origin[2] = {g.left(), g.top()};
        group.addDataset("data_size", datatypes::NONE, 0).setValue(size[0], 2);
        group.addDataset("data_origin", datatypes::NONE, 0).setValue(origin[0], 2);
        for (int c = 0; c < module.numberOfChips(); ++c) {
            auto& chip = group.addSubGroup(numbered("detectorChip_", c));
            const DRect r = module.absoluteChipGeometry(c);
            chip.addDataset("x_position", datatypes::NONE, 0).setValue(r.left());
            chip.addDataset("y_position", datatypes::NONE, 0).setValue(r.top());
            chip.addDataset("x_pixels_in_chip", datatypes::NONE, 0).setValue(r.width());
            chip.addDataset("y_pixels_in_chip", datatypes::NONE, 0).setValue(r.height());
        }
        for (int d = 0; d < module.numberOfDACs(); ++d)
            group.addDataset(module.dacName(d), datatypes::NONE, 0).setValue(module.dacValue(d));
        const std::vector<int> table = module.countrate_correction_lookup_table();
        if (!table.empty())
            group.addDataset("countrate_correction_lookup_table", datatypes::NONE, 0)
                .setValue(table[0], table.size());
    }
}

template <class Allocator>
boost::optional<std::string> DBasicImageOptionalData<Allocator>::imageDescription() const
{
    return textOf(_imageDescription);
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::setImageDescription(boost::optional<std::string> text)
{
    setText(_imageDescription, text);
}

template <class Allocator>
boost::optional<std::string> DBasicImageOptionalData<Allocator>::rawHeader() const
{
    return textOf(_rawHeader);
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::setRawHeader(boost::optional<std::string> text)
{
    setText(_rawHeader, text);
}

template <class Allocator>
void DBasicImageOptionalData<Allocator>::override(DBasicImageOptionalData& other) const
{
    if (&other == this)
        return;
#define NORVEXA_OVERRIDE(NAME)                                                                     \
    if (const auto mine = NAME(); mine && !same(mine, other.NAME()))                               \
        other.set_##NAME(mine);
    NORVEXA_OVERRIDE(beam_center_x)
    NORVEXA_OVERRIDE(beam_center_y)
    NORVEXA_OVERRIDE(bit_depth_readout)
    NORVEXA_OVERRIDE(count_time)
    NORVEXA_OVERRIDE(data_collection_date)
    NORVEXA_OVERRIDE(description)
    NORVEXA_OVERRIDE(detector_number)
    NORVEXA_OVERRIDE(frame_time)
    NORVEXA_OVERRIDE(saturation_value)
    NORVEXA_OVERRIDE(sensor_material)
    NORVEXA_OVERRIDE(sensor_thickness)
    NORVEXA_OVERRIDE(threshold_energy)
    NORVEXA_OVERRIDE(gain_setting)
    NORVEXA_OVERRIDE(number_of_excluded_pixels)
    NORVEXA_OVERRIDE(wavelength)
    NORVEXA_OVERRIDE(x_pixel_size)
    NORVEXA_OVERRIDE(y_pixel_size)
    NORVEXA_OVERRIDE(detector_distance)
    NORVEXA_OVERRIDE(rotation_angle)
    NORVEXA_OVERRIDE(rotation_angle_step)
    NORVEXA_OVERRIDE(filter_transmission)
    NORVEXA_OVERRIDE(mode_register)
    NORVEXA_OVERRIDE(countrate_correction_bunch_mode)
    NORVEXA_OVERRIDE(efficiency_correction_applied)
    NORVEXA_OVERRIDE(countrate_correction_applied)
    NORVEXA_OVERRIDE(beam_flux)
#undef NORVEXA_OVERRIDE
    // Not compared: present here means set there.
    if (auto mine = modules())
        other.set_modules(std::move(mine));
    if (auto mine = imageDescription())
        other.setImageDescription(mine);
    if (auto mine = rawHeader())
        other.setRawHeader(mine);
}

template class DBasicImageOptionalData<image::StdAllocator>;
template class DBasicImageOptionalData<image::ShmAllocator>;
template DBasicImageOptionalData<image::StdAllocator>::DBasicImageOptionalData(
    const DBasicImageOptionalData<image::ShmAllocator>&, const image::StdAllocator&);
template DBasicImageOptionalData<image::ShmAllocator>::DBasicImageOptionalData(
    const DBasicImageOptionalData<image::StdAllocator>&, const image::ShmAllocator&);

} // namespace imglib
} // namespace norvexa
