#pragma once

#include "DBasicImageModule.h"
#include "foundation/image/DAllocators.h"
#include "foundation/image/DBasicImageData.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <boost/optional.hpp>

#include <string>
#include <vector>

namespace norvexa {
namespace imglib {

class DImage;

/// The scalar items of the metadata: (name, value type, stored type, unit, read paths).
/// The setter writes the first path; the getter takes the first path that yields a value.
/// The unit goes into the dataset's attribute "unit"; an empty unit removes it.
#define NORVEXA_METADATA_ITEMS(X)                                                                  \
    X(beam_center_x, float, float, "", "/entry/instrument/detector/beam_center_x", "", "")        \
    X(beam_center_y, float, float, "", "/entry/instrument/detector/beam_center_y", "", "")        \
    X(bit_depth_readout, int, unsigned int, "", "/entry/instrument/detector/bit_depth_readout", "", "") \
    X(count_time, float, float, "s", "/entry/instrument/detector/count_time", "", "")             \
    X(data_collection_date, std::string, std::string, "",                                         \
      "/entry/instrument/detector/detectorSpecific/data_collection_date", "", "")                 \
    X(description, std::string, std::string, "", "/entry/instrument/detector/description", "", "") \
    X(detector_number, std::string, std::string, "", "/entry/instrument/detector/detector_number", "", "") \
    X(frame_time, float, float, "s", "/entry/instrument/detector/frame_time", "", "")             \
    X(saturation_value, int, unsigned int, "",                                                    \
      "/entry/instrument/detector/detectorSpecific/countrate_correction_count_cutoff",            \
      "/entry/instrument/detector/detectorSpecific/detectorModule_000/countrate_correction_count_cutoff", "") \
    X(sensor_material, std::string, std::string, "", "/entry/instrument/detector/sensor_material", "", "") \
    X(sensor_thickness, float, float, "m", "/entry/instrument/detector/sensor_thickness", "", "")  \
    X(threshold_energy, float, float, "eV", "/entry/instrument/detector/threshold_energy", "", "") \
    X(gain_setting, std::string, std::string, "", "/entry/instrument/detector/gain_setting", "", "") \
    X(number_of_excluded_pixels, int, int, "",                                                    \
      "/entry/instrument/detector/detectorSpecific/number_of_excluded_pixels", "", "")            \
    X(wavelength, float, float, "A", "/entry/instrument/beam/incident_wavelength",                \
      "/entry/instrument/beam/wavelength", "/entry/instrument/monochromator/wavelength")           \
    X(x_pixel_size, float, float, "m", "/entry/instrument/detector/x_pixel_size", "", "")         \
    X(y_pixel_size, float, float, "m", "/entry/instrument/detector/y_pixel_size", "", "")         \
    X(detector_distance, float, float, "m", "/entry/instrument/detector/detector_distance", "", "") \
    X(filter_transmission, float, float, "", "/entry/instrument/filter/transmission", "", "")     \
    X(beam_flux, float, float, "1/s", "/entry/instrument/beam/flux", "", "")                      \
    X(polarisation, float, float, "", "/entry/instrument/beam/final_polarisation", "", "")        \
    X(mode_register, int, unsigned int, "", "/entry/instrument/detector/detectorSpecific/mode_register", "", "") \
    X(nimages, int, unsigned int, "", "/entry/instrument/detector/detectorSpecific/nimages", "", "") \
    X(countrate_correction_bunch_mode, std::string, std::string, "",                              \
      "/entry/instrument/detector/detectorSpecific/countrate_correction_bunch_mode", "", "")      \
    X(efficiency_correction_applied, bool, bool, "",                                              \
      "/entry/instrument/detector/efficiency_correction_applied", "", "")                         \
    X(countrate_correction_applied, bool, bool, "",                                               \
      "/entry/instrument/detector/countrate_correction_applied", "", "")

/// The metadata of one image: every item may be absent. Nearly every item is a dataset
/// at a fixed path of a NeXus tree, read and written there, so that what a file or a
/// stream put into the tree is what the getters see, and what the setters store reaches
/// a file through the tree. Everything else in the tree stays reachable by neXus().
///
/// Getters never raise for a missing item, a group where data is expected or a value
/// that does not convert: they yield absent. Setters raise DRuntimeException "Path
/// \"<path>\" does not contain NeXus data" when a group stands at the item's path.
template <class Allocator>
class DBasicImageOptionalData {
public:
    using allocator_type = Allocator;
    using Tree = nexus::DBasicNeXusTree<Allocator>;
    using Module = DBasicImageModule<Allocator>;

    explicit DBasicImageOptionalData(const Allocator& allocator = Allocator());
    DBasicImageOptionalData(const DBasicImageOptionalData& other);
    DBasicImageOptionalData(DBasicImageOptionalData&& other);
    DBasicImageOptionalData(const DBasicImageOptionalData& other, const Allocator& allocator);
    template <class OtherAllocator>
    DBasicImageOptionalData(const DBasicImageOptionalData<OtherAllocator>& other,
                            const Allocator& allocator);
    ~DBasicImageOptionalData() = default;

    /// Builds a copy in this object's allocator and swaps it in.
    DBasicImageOptionalData& operator=(const DBasicImageOptionalData& other);
    /// Swaps: the source receives the old contents.
    DBasicImageOptionalData& operator=(DBasicImageOptionalData&& other) noexcept;
    void swap(DBasicImageOptionalData& other) noexcept;
    /// Back to a new object with the same allocator.
    void clear();

    Allocator allocator() const { return _allocator; }
    Tree& neXus() noexcept { return _neXus; }
    const Tree& neXus() const noexcept { return _neXus; }
    int neXusIndex() const noexcept { return _neXusIndex; }
    void setNeXusIndex(int index) noexcept { _neXusIndex = index; }

#define NORVEXA_METADATA_ITEM_DECLARATION(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3)          \
    boost::optional<VALUE> NAME() const;                                                           \
    void set_##NAME(boost::optional<VALUE> value);
    NORVEXA_METADATA_ITEMS(NORVEXA_METADATA_ITEM_DECLARATION)
#undef NORVEXA_METADATA_ITEM_DECLARATION

    /// Where the mask lies in the tree: "/entry/instrument/detector/detectorSpecific/pixel_mask".
    static const std::string& pixelMaskPath();
    /// The mask at ".../detectorSpecific/pixel_mask" as it is stored (UINT 32 when set
    /// here); absent when missing. A group at the path raises DRuntimeException.
    boost::optional<DImage> pixel_mask() const;
    /// Whether there is a mask, and its width and height, read in place without the copy
    /// that pixel_mask() makes; a group at the path raises as pixel_mask() does.
    boost::optional<std::pair<unsigned long, unsigned long>> pixelMaskSize() const;
    /// Stores the mask converted to UINT 32; absent erases it.
    void set_pixel_mask(boost::optional<DImage> mask);

    /// The modules under ".../detectorSpecific", in name order, linked to this object;
    /// absent when there is none or when one lacks a required dataset.
    boost::optional<std::vector<Module>> modules() const;
    /// Replaces the module groups, numbered by their position in the list.
    void set_modules(boost::optional<std::vector<Module>> modules);

    boost::optional<std::string> imageDescription() const;
    void setImageDescription(boost::optional<std::string> text);
    boost::optional<std::string> rawHeader() const;
    void setRawHeader(boost::optional<std::string> text);
    boost::optional<float> rotation_angle() const { return _rotationAngle; }
    void set_rotation_angle(boost::optional<float> value) { _rotationAngle = value; }
    boost::optional<float> rotation_angle_step() const { return _rotationAngleStep; }
    void set_rotation_angle_step(boost::optional<float> value) { _rotationAngleStep = value; }

    /// Lays what this object knows over `other`, item by item in a fixed order; what
    /// this object does not know stays as it is in `other`. nimages, polarisation,
    /// pixel_mask and neXusIndex are not carried over.
    void override(DBasicImageOptionalData& other) const;

private:
    template <class>
    friend class DBasicImageOptionalData;

    Allocator _allocator;
    Tree _neXus;
    int _neXusIndex = 0;
    image::DBasicImageData<Allocator> _imageDescription;
    image::DBasicImageData<Allocator> _rawHeader;
    boost::optional<float> _rotationAngle;
    boost::optional<float> _rotationAngleStep;
};

template <class Allocator>
inline void swap(DBasicImageOptionalData<Allocator>& a, DBasicImageOptionalData<Allocator>& b) noexcept
{
    a.swap(b);
}

using DImageOptionalData = DBasicImageOptionalData<image::StdAllocator>;

extern template class DBasicImageOptionalData<image::StdAllocator>;
extern template class DBasicImageOptionalData<image::ShmAllocator>;
extern template DBasicImageOptionalData<image::StdAllocator>::DBasicImageOptionalData(
    const DBasicImageOptionalData<image::ShmAllocator>&, const image::StdAllocator&);
extern template DBasicImageOptionalData<image::ShmAllocator>::DBasicImageOptionalData(
    const DBasicImageOptionalData<image::StdAllocator>&, const image::ShmAllocator&);

} // namespace imglib
} // namespace norvexa
