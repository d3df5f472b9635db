#include "TestHelpers.h"

#include "DBasicImageOptionalData.h"
#include "DImage.h"
#include "DMersenneTwister.h"
#include "foundation/DException.h"

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

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
