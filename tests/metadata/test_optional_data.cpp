#include "MetadataText.h"
#include "SharedSegment.h"
#include "TestHelpers.h"

#include "DBasicImageOptionalData.h"
#include "DImage.h"
#include "DMersenneTwister.h"
#include "foundation/DException.h"

#include <cmath>
#include <limits>
#include <regex>

using namespace norvexa;
using namespace norvexa::imglib;
using image::ShmAllocator;
using image::StdAllocator;
using norvexa_test::everything;

namespace {

const std::string kCountTime = "/entry/instrument/detector/count_time";

std::string unitOf(const DImageOptionalData& data, const std::string& path)
{
    for (const auto* attribute : data.neXus().at(path).asData().attributes())
        if (attribute->name() == "unit") {
            std::string unit;
            attribute->asData().asType(unit, 1);
            return unit;
        }
    return "<none>";
}

DImageModule moduleAt(int left, int top, int number)
{
    std::vector<DRect> chips = {DRect(0, 0, 10, 20), DRect(12, 0, 10, 20)};
    DImageModule module(DRect(left, top, 22, 20), chips, number);
    module.setVrf(-0.25);
    module.set_countrate_correction_lookup_table({0, 1, 3, 7});
    return module;
}

// Every path the metadata reads, and a few of their parents, so that random trees put
// groups, texts, arrays and empty values exactly where items are looked for.
const char* const kPaths[] = {
    "/entry/instrument/detector/count_time",
    "/entry/instrument/detector/beam_center_x",
    "/entry/instrument/detector/description",
    "/entry/instrument/detector/detectorSpecific/nimages",
    "/entry/instrument/detector/detectorSpecific/pixel_mask",
    "/entry/instrument/beam/incident_wavelength",
    "/entry/instrument/monochromator/wavelength",
    "/entry/instrument/detector/detectorSpecific/countrate_correction_count_cutoff",
    "/entry/instrument/detector/detectorSpecific/detectorModule_000",
    "/entry/instrument/detector/detectorSpecific/detectorModule_000/data_size",
    "/entry/instrument/detector/detectorSpecific/detectorModule_000/data_origin",
    "/entry/instrument/detector/detectorSpecific/detectorModule_000/vrfp",
    "/entry/instrument/detector/detectorSpecific/detectorModule_000/detectorChip_000/x_position",
    "/entry/instrument/detector/detectorSpecific/detectorModule_001/data_size",
    "/entry/instrument/detector/detectorSpecific/detectorModule_1",
    "/entry/instrument/detector/efficiency_correction_applied",
    "/entry/instrument/detector/detectorSpecific",
    "/entry/instrument/detector",
};

void putRandomValue(nexus::DBasicNeXusData<image::StdAllocator>& data, DMersenneTwister& rng)
{
    switch (rng.rand() % 7) {
    case 0: data.setValue(std::string(rng.rand() % 5, 'x')); break;
    case 1: data.setValue(static_cast<float>(rng.rand() % 100) - 50.0f); break;
    case 2: {
        const int values[] = {static_cast<int>(rng.rand() % 9), 3, -1};
        data.setValue(values[0], rng.rand() % 4);
        break;
    }
    case 3: data.setValue(static_cast<unsigned long long>(rng.rand())); break;
    case 4: data.data() = image::DBasicImage<image::StdAllocator>(image::StdAllocator(), datatypes::FLOAT, 16); break;
    case 5: data.data().setType(datatypes::CHAR); data.data().setTypeBits(8); data.data().resize1D(rng.rand() % 3); break;
    default: break; // left empty
    }
}

} // namespace

TEST(OptionalData, ANewObjectKnowsNothing)
{
    EXPECT_TRUE(std::regex_match(everything(DImageOptionalData()), std::regex("(\\w+=-;)+index=0;modules=0")))
        << everything(DImageOptionalData());
    EXPECT_FALSE(DImageOptionalData().pixel_mask());
}

TEST(OptionalData, SettersWriteTheTreeWithTheirUnitsAndStoredTypes)
{
    DImageOptionalData data;
    data.set_count_time(1.5f);
    EXPECT_EQ(*data.count_time(), 1.5f);
    EXPECT_EQ(unitOf(data, kCountTime), "s");
    EXPECT_EQ(data.neXus().at(kCountTime).asData().data().type(), datatypes::FLOAT);
    data.set_count_time(boost::none);
    EXPECT_THROW(data.neXus().at(kCountTime), DOutOfRangeException);
    EXPECT_NO_THROW(data.neXus().at("/entry/instrument/detector")) << "the groups above stay";

    data.set_nimages(5);
    const auto& nimages = data.neXus().at("/entry/instrument/detector/detectorSpecific/nimages").asData().data();
    EXPECT_EQ(nimages.type(), datatypes::UINT);
    EXPECT_EQ(nimages.typeBits(), 32u);
    data.set_number_of_excluded_pixels(-3);
    EXPECT_EQ(*data.number_of_excluded_pixels(), -3);
    EXPECT_EQ(data.neXus().at("/entry/instrument/detector/detectorSpecific/number_of_excluded_pixels")
                  .asData().data().type(), datatypes::INT);
    data.set_description(std::string("frame"));
    EXPECT_EQ(*data.description(), "frame");
    data.set_efficiency_correction_applied(true);
    EXPECT_TRUE(*data.efficiency_correction_applied());
    data.set_wavelength(1.0f);
    EXPECT_EQ(unitOf(data, "/entry/instrument/beam/incident_wavelength"), "A");

    // A unit left by somebody else goes when the item has none.
    auto& center = data.neXus().newPath("/entry/instrument/detector/beam_center_x", nexus::NeXusData).asData();
    center.addAttribute("unit", datatypes::NONE, 0).setValue(std::string("pixel"));
    data.set_beam_center_x(1.0f);
    EXPECT_EQ(unitOf(data, "/entry/instrument/detector/beam_center_x"), "<none>");
}

TEST(OptionalData, GettersFallBackAndNeverRaise)
{
    DImageOptionalData data;
    auto& tree = data.neXus();
    tree.newPath("/entry/instrument/monochromator/wavelength", nexus::NeXusData).asData().setValue(0.8f);
    EXPECT_EQ(*data.wavelength(), 0.8f);
    tree.newPath("/entry/instrument/beam/wavelength", nexus::NeXusData).asData().setValue(0.9);
    EXPECT_FLOAT_EQ(*data.wavelength(), 0.9f) << "the second path comes before the third";
    data.set_wavelength(1.2f);
    EXPECT_EQ(*data.wavelength(), 1.2f);
    tree.newPath("/entry/instrument/detector/detectorSpecific/detectorModule_000/countrate_correction_count_cutoff",
                 nexus::NeXusData).asData().setValue(12345u);
    EXPECT_EQ(*data.saturation_value(), 12345);

    // A group, a text and an empty value where a number is expected all read as absent.
    tree.newPath(kCountTime, nexus::NeXusGroup);
    EXPECT_FALSE(data.count_time());
    EXPECT_THROW_MSG(data.set_count_time(2.0f), DRuntimeException,
                     "Path \"/entry/instrument/detector/count_time\" does not contain NeXus data");
    tree.newPath("/entry/instrument/detector/frame_time", nexus::NeXusData).asData().setValue(std::string("fast"));
    EXPECT_FALSE(data.frame_time());
    tree.newPath("/entry/instrument/detector/sensor_thickness", nexus::NeXusData);
    EXPECT_FALSE(data.sensor_thickness());
    tree.newPath("/entry/instrument/detector/description", nexus::NeXusData).asData().setValue(3);
    EXPECT_FALSE(data.description());

    tree.newPath("/entry/instrument/detector/detectorSpecific/pixel_mask/inside", nexus::NeXusData);
    EXPECT_THROW_MSG(data.pixel_mask(), DRuntimeException,
                     "Path \"/entry/instrument/detector/detectorSpecific/pixel_mask\" does not contain NeXus data");
}

TEST(OptionalData, TextsAndMask)
{
    DImageOptionalData data;
    data.setImageDescription(std::string(""));
    EXPECT_FALSE(data.imageDescription()) << "an empty text reads back as absent";
    data.setImageDescription(std::string("one frame"));
    EXPECT_EQ(*data.imageDescription(), "one frame");

    DImage mask(4, 3, 0);
    mask.setPixel<int>(1, 1, 1);
    mask.setPixel<int>(3, 2, 8);
    data.set_pixel_mask(mask);
    const auto back = data.pixel_mask();
    ASSERT_TRUE(back);
    EXPECT_EQ(std::make_tuple(back->type(), back->typeBits(), back->width(), back->pixel<int>(1, 1, 0),
                              back->pixel<int>(3, 2, 0)),
              std::make_tuple(datatypes::UINT, 32ul, 4, 1, 8));
    data.set_pixel_mask(boost::none);
    EXPECT_FALSE(data.pixel_mask());
}

TEST(OptionalData, ModulesAreRenumberedAndDroppedWholeWhenOneIsIncomplete)
{
    DImageOptionalData data;
    data.set_modules(std::vector<DImageModule>{moduleAt(0, 0, 3), moduleAt(100, 50, 7)});
    auto modules = data.modules();
    ASSERT_TRUE(modules);
    ASSERT_EQ(modules->size(), 2u);
    EXPECT_EQ((*modules)[0].moduleNumber(), 0);
    EXPECT_EQ((*modules)[1].moduleNumber(), 1);
    EXPECT_EQ((*modules)[1].geometry(), DRect(100, 50, 22, 20));
    ASSERT_EQ((*modules)[1].numberOfChips(), 2);
    EXPECT_EQ((*modules)[1].chip(1), DRect(12, 0, 10, 20)) << "chips are relative to their module";
    EXPECT_EQ((*modules)[1].absoluteChipGeometry(1), DRect(112, 50, 10, 20));
    // "vrfp" goes in as a double and comes out as the float of its first four bytes.
    const double written = -0.25;
    float lowBytes;
    std::memcpy(&lowBytes, &written, sizeof lowBytes);
    ASSERT_EQ((*modules)[0].numberOfDACs(), 1);
    EXPECT_EQ((*modules)[0].dacValue(0), static_cast<double>(lowBytes));
    const std::string table = "/entry/instrument/detector/detectorSpecific/detectorModule_001/countrate_correction_lookup_table";
    EXPECT_EQ(data.neXus().at(table).asData().data().size(), 4u);

    // A file writes "vrfp" as a 32-bit float, which reads as it stands.
    data.neXus().at("/entry/instrument/detector/detectorSpecific/detectorModule_000/vrfp").asData().setValue(-0.15f);
    EXPECT_FLOAT_EQ(static_cast<float>(data.modules()->front().vrf()), -0.15f);

    // Groups that are not modules are passed over; one incomplete module takes the list away.
    data.neXus().newPath("/entry/instrument/detector/detectorSpecific/detectorModule_x", nexus::NeXusGroup);
    EXPECT_EQ(data.modules()->size(), 2u);
    data.neXus().root().eraseChild("/entry/instrument/detector/detectorSpecific/detectorModule_001/data_size");
    EXPECT_FALSE(data.modules());
    data.set_modules(boost::none);
    EXPECT_FALSE(data.modules());
    EXPECT_NO_THROW(data.neXus().at("/entry/instrument/detector/detectorSpecific/detectorModule_x"))
        << "only names of module length are erased";
}

TEST(OptionalData, OverrideLaysKnownItemsOverTheOther)
{
    DImageOptionalData file, caller;
    caller.set_count_time(0.5f);
    caller.set_frame_time(1.0f);
    caller.set_nimages(10);
    file.set_frame_time(2.0f);
    file.set_threshold_energy(std::numeric_limits<float>::quiet_NaN());
    caller.set_threshold_energy(8000.0f);
    file.set_nimages(99);
    file.set_polarisation(0.99f);
    file.neXus().newPath("/entry/instrument/beam/wavelength", nexus::NeXusData).asData().setValue(0.7f);
    file.setRawHeader(std::string("header"));
    file.set_modules(std::vector<DImageModule>{moduleAt(0, 0, 0)});

    file.override(caller);
    EXPECT_EQ(*caller.count_time(), 0.5f) << "absent in the file: the caller's value stays";
    EXPECT_EQ(*caller.frame_time(), 2.0f);
    EXPECT_EQ(*caller.threshold_energy(), 8000.0f) << "a NaN never replaces a value";
    EXPECT_EQ(*caller.nimages(), 10) << "nimages is not carried over";
    EXPECT_FALSE(caller.polarisation());
    EXPECT_EQ(*caller.wavelength(), 0.7f);
    EXPECT_NO_THROW(caller.neXus().at("/entry/instrument/beam/incident_wavelength"))
        << "a fall-back value lands on the first path";
    EXPECT_EQ(*caller.rawHeader(), "header");
    EXPECT_EQ(caller.modules()->size(), 1u);

    const std::string before = everything(caller);
    caller.override(caller);
    EXPECT_EQ(everything(caller), before);
}

TEST(OptionalData, CopiesMovesAndTheSharedForm)
{
    DImageOptionalData data;
    data.set_count_time(0.1f);
    data.set_detector_number(std::string("E-32-0101"));
    data.set_modules(std::vector<DImageModule>{moduleAt(0, 0, 0), moduleAt(30, 0, 1)});
    data.setImageDescription(std::string("desc"));
    data.set_rotation_angle_step(0.1f);
    data.setNeXusIndex(4);
    const std::string all = everything(data);

    DImageOptionalData copy(data);
    copy.set_count_time(9.0f);
    EXPECT_EQ(*data.count_time(), 0.1f) << "copies share no node";
    DImageOptionalData assigned;
    assigned = data;
    EXPECT_EQ(everything(assigned), all);
    DImageOptionalData moved(std::move(assigned));
    EXPECT_EQ(everything(moved), all);
    DImageOptionalData target;
    target.set_count_time(3.0f);
    target = std::move(moved);
    EXPECT_EQ(everything(target), all);
    EXPECT_EQ(*moved.count_time(), 3.0f) << "the source receives the old contents";
    target.clear();
    EXPECT_EQ(everything(target), everything(DImageOptionalData()));

    norvexa_test::SharedSegment shm(1 << 20);
    auto* shared = shm.segment.construct<DBasicImageOptionalData<ShmAllocator>>("metadata")(data, shm.allocator());
    EXPECT_EQ(everything(*shared), all);
    EXPECT_EQ(everything(DImageOptionalData(*shared, StdAllocator())), all);
    shm.segment.destroy_ptr(shared);
}

TEST(ImageMetadata, WhatKeepsBeingTheSameExposureKeepsItsMetadata)
{
    DImage frame(4, 4, 2);
    frame.optionalData().set_count_time(0.5f);
    DImage other(4, 4, 3);
    other.optionalData().set_count_time(1.0f);

    EXPECT_FALSE((frame + other).optionalData().count_time()) << "a sum is no exposure";
    EXPECT_FALSE((frame * 2.0f).optionalData().count_time());
    EXPECT_FALSE((-frame).optionalData().count_time());
    EXPECT_FALSE(DImage(frame, 0.0f).optionalData().count_time());
    EXPECT_EQ(*frame.asType<float>().optionalData().count_time(), 0.5f);
    EXPECT_EQ(*DImage(frame, datatypes::FLOAT, 8).optionalData().count_time(), 0.5f);
    EXPECT_EQ(*DImage(frame).optionalData().count_time(), 0.5f);
    EXPECT_FALSE(DImage(frame.imageData()).optionalData().count_time());
    EXPECT_EQ(*DImage(frame.imageData(), frame.optionalData()).optionalData().count_time(), 0.5f);

    frame += other;
    frame *= 2;
    EXPECT_EQ(*frame.optionalData().count_time(), 0.5f) << "in place keeps it";
    frame.resize(2, 2);
    EXPECT_EQ(*frame.optionalData().count_time(), 0.5f);

    DImage moved(std::move(frame));
    EXPECT_EQ(*moved.optionalData().count_time(), 0.5f);
    moved.swap(other);
    EXPECT_EQ(*moved.optionalData().count_time(), 1.0f);
    moved.setOptionalData(moved.optionalData());
    EXPECT_EQ(*moved.optionalData().count_time(), 1.0f);
    moved.clear();
    EXPECT_FALSE(moved.optionalData().count_time());
}

TEST(MetadataShapes, NoTreeShapeMakesAGetterRaiseOrCrash)
{
    DMersenneTwister rng(20261123);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        DImageOptionalData data;
        auto& tree = data.neXus();
        for (int n = rng.rand() % 12; n > 0; --n) {
            const std::string path = kPaths[rng.rand() % (sizeof kPaths / sizeof *kPaths)];
            try {
                if (rng.rand() % 3 == 0)
                    tree.newPath(path, nexus::NeXusGroup);
                else
                    putRandomValue(tree.newPath(path, nexus::NeXusData).asData(), rng);
            } catch (const DRuntimeException&) {
                // a dataset in the way, or a group where a value was asked for
            }
        }

        const auto readEveryItem = [&data] {
#define NORVEXA_READ(NAME, VALUE, STORED, UNIT, PATH1, PATH2, PATH3) (void)data.NAME();
            NORVEXA_METADATA_ITEMS(NORVEXA_READ)
#undef NORVEXA_READ
            (void)data.modules();
        };
        EXPECT_NO_THROW(readEveryItem());
        try {
            data.pixel_mask();
        } catch (const DRuntimeException&) {
            // a group at the mask's path is reported, as documented
        }

        DImageOptionalData other;
        other.set_count_time(1.0f);
        try {
            data.override(other);
        } catch (const DRuntimeException&) {
            ADD_FAILURE() << "override onto a plain object must not fail";
        }
        const DImageOptionalData copy(data);
        EXPECT_EQ(copy.neXus().size(), data.neXus().size());
    }
}
