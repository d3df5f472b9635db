#include "RectPrinter.h"
#include "TestHelpers.h"

#include "DBasicImageModule.h"
#include "DBasicImageOptionalData.h"
#include "foundation/DException.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

const char* const kTooManyChips =
    "Attempt to initialize DBasicImageModule from a chip list longer than maximum number of "
    "chips\nIf this is a module of a detector newer than Orvik you may want to increase "
    "MAX_NUMBER_OF_CHIPS";

std::vector<DRect> chipRow(int count, int top = 0)
{
    std::vector<DRect> chips;
    for (int i = 0; i < count; ++i)
        chips.emplace_back(61 * i, top, 60, 97);
    return chips;
}

// Every field of a module, to build modules that differ in one.
struct Fields {
    DRect geometry{100, 200, 487, 195};
    std::vector<DRect> chips = chipRow(3);
    int number = 7;
    std::vector<int> table{0, 1, 3, 6};
    std::vector<std::pair<std::string, double>> dacs{{"vcmp", 1.5}, {"vrfp", -0.15}};
};

DImageModule build(const Fields& fields)
{
    DImageModule module(fields.geometry, fields.chips, fields.number);
    module.set_countrate_correction_lookup_table(fields.table);
    for (const auto& [name, value] : fields.dacs)
        module.addDAC(name, value);
    return module;
}

DImageModule sampleModule() { return build(Fields()); }

std::vector<std::string> dacNames(const DImageModule& module)
{
    std::vector<std::string> names;
    for (int i = 0; i < module.numberOfDACs(); ++i)
        names.push_back(module.dacName(i));
    return names;
}

} // namespace

TEST(ImageModule, NewModuleIsEmpty)
{
    const DImageModule module;
    EXPECT_EQ(module.geometry(), DRect());
    EXPECT_EQ(module.numberOfChips(), 0);
    EXPECT_EQ(module.moduleNumber(), -1);
    EXPECT_TRUE(module.countrate_correction_lookup_table().empty());
    EXPECT_EQ(module.numberOfDACs(), 0);
    EXPECT_EQ(module.vrf(), 0.0);
    EXPECT_EQ(module.vrfName(), "vrfp");
}

TEST(ImageModule, ChipLimitAndAccess)
{
    {
        SCOPED_TRACE("16 chips are accepted, 17 refused");
        const DImageModule full(DRect(0, 0, 487, 195), chipRow(16), 0);
        EXPECT_EQ(full.numberOfChips(), DImageModule::MAX_NUMBER_OF_CHIPS);
        EXPECT_EQ(full.chip(15), DRect(61 * 15, 0, 60, 97));
        EXPECT_THROW_MSG(DImageModule(DRect(), chipRow(17), 0), DOutOfRangeException, kTooManyChips);

        DImageModule module(DRect(), chipRow(2, 5), 0);
        EXPECT_THROW_MSG(module.setChips(chipRow(17)), DOutOfRangeException, kTooManyChips);
        EXPECT_EQ(module.numberOfChips(), 2) << "a refused list leaves the chips as they were";
        EXPECT_EQ(module.chip(1), DRect(61, 5, 60, 97));
        module.setChips({});
        EXPECT_EQ(module.numberOfChips(), 0);
    }
    {
        SCOPED_TRACE("indices outside the chips in use");
        DImageModule module(DRect(), chipRow(16), 0);
        module.setChips(chipRow(2));
        for (int i : {-1, 2, 15}) {
            SCOPED_TRACE(i);
            EXPECT_THROW_MSG(module.chip(i), DOutOfRangeException,
                             "Attempt to access a chip that is out of range");
            EXPECT_THROW_MSG(module.absoluteChipGeometry(i), DOutOfRangeException,
                             "Attempt to access a chip that is out of range");
        }
    }
    {
        SCOPED_TRACE("chips are relative to the module and move with it");
        DImageModule module(DRect(100, 20, 487, 195), {DRect(10, 98, 60, 97)}, 0);
        EXPECT_EQ(module.absoluteChipGeometry(0), DRect(110, 118, 60, 97));
        module.move(-100, 5);
        EXPECT_EQ(module.geometry(), DRect(0, 25, 487, 195));
        EXPECT_EQ(module.chip(0), DRect(10, 98, 60, 97));
        EXPECT_EQ(module.absoluteChipGeometry(0), DRect(10, 123, 60, 97));
    }
}

TEST(ImageModule, DACsAndVrf)
{
    DImageModule module;
    module.setVrf(-0.15);
    ASSERT_EQ(module.numberOfDACs(), 1);
    EXPECT_EQ(module.dacName(0), "vrfp");
    EXPECT_EQ(module.dacValue(0), -0.15);
    module.setVrf(0.25);
    EXPECT_EQ(module.numberOfDACs(), 1) << "a second setVrf changes the DAC in place";
    EXPECT_EQ(module.vrf(), 0.25);

    DImageModule twice;
    twice.addDAC("vthr", 9);
    twice.addDAC("vrfp", 1);
    twice.addDAC("vrfp", 2);
    EXPECT_EQ(twice.numberOfDACs(), 3) << "addDAC does not look for a DAC of the same name";
    EXPECT_EQ(twice.vrf(), 1.0);
    twice.setVrf(3);
    EXPECT_EQ(twice.dacValue(0), 9.0);
    EXPECT_EQ(twice.dacValue(1), 3.0) << "setVrf changes the first vrfp";
    EXPECT_EQ(twice.dacValue(2), 2.0);

    for (int i : {-1, 3}) {
        SCOPED_TRACE(i);
        EXPECT_THROW_MSG(twice.dacName(i), DOutOfRangeException, "Attempt to access a DAC that is out of range");
        EXPECT_THROW_MSG(twice.dacValue(i), DOutOfRangeException, "Attempt to access a DAC that is out of range");
    }
}

TEST(ImageModule, CopyTakesEverythingOnce)
{
    const DImageModule source = sampleModule();
    const DImageModule copy(source);
    EXPECT_TRUE(copy == source);
    EXPECT_EQ(copy.numberOfDACs(), 2);
    EXPECT_EQ(copy.countrate_correction_lookup_table(), (std::vector<int>{0, 1, 3, 6}));

    std::vector<DImageModule> grown(1, source);
    grown.resize(40); // reallocations move the modules
    EXPECT_TRUE(grown[0] == source);
}

// Assignment keeps the target's DACs and appends the source's.
TEST(ImageModule, AssignmentAppendsDACs)
{
    const DImageModule source = sampleModule();
    DImageModule target(DRect(1, 2, 3, 4), chipRow(5), 1);
    target.setVrf(0.5);
    target.set_countrate_correction_lookup_table({9});

    target = source;
    EXPECT_EQ(target.geometry(), source.geometry());
    EXPECT_EQ(target.moduleNumber(), 7);
    EXPECT_EQ(target.numberOfChips(), 3);
    EXPECT_EQ(target.chip(2), source.chip(2));
    EXPECT_EQ(target.countrate_correction_lookup_table(), source.countrate_correction_lookup_table());
    EXPECT_EQ(dacNames(target), (std::vector<std::string>{"vrfp", "vcmp", "vrfp"}));
    EXPECT_EQ(target.vrf(), 0.5) << "vrf finds the target's old value first";
    EXPECT_FALSE(target == source) << "the extra DAC makes them differ";

    DImageModule fresh(DRect(), chipRow(5), 0);
    fresh = source;
    EXPECT_TRUE(fresh == source) << "into a module without DACs assignment is a copy; the "
                                    "target's chips beyond the source's count are not compared";

    DImageModule self = sampleModule();
    const DImageModule& alias = self;
    self = alias;
    EXPECT_EQ(self.numberOfDACs(), 2) << "self-assignment adds nothing";

    DImageModule moved;
    moved.setVrf(1);
    moved = sampleModule(); // an rvalue goes the same way
    EXPECT_EQ(moved.numberOfDACs(), 3);
}

TEST(ImageModule, EqualityComparesAllButTheLink)
{
    const DImageModule base = sampleModule();
    struct Change {
        const char* what;
        void (*apply)(Fields&);
    };
    for (const Change& c : {
             Change{"geometry", [](Fields& f) { f.geometry.move(1, 0); }},
             Change{"number of chips", [](Fields& f) { f.chips = chipRow(4); }},
             Change{"one chip", [](Fields& f) { f.chips[2].setTop(1); }},
             Change{"module number", [](Fields& f) { f.number = 8; }},
             Change{"table", [](Fields& f) { f.table.back() = 7; }},
             Change{"number of DACs", [](Fields& f) { f.dacs.emplace_back("vtrm", 0); }},
             Change{"DAC value", [](Fields& f) { f.dacs[1].second = -0.16; }},
             Change{"DAC name", [](Fields& f) { f.dacs[1].first = "vrfq"; }},
             Change{"DAC order", [](Fields& f) { std::swap(f.dacs[0], f.dacs[1]); }},
         }) {
        SCOPED_TRACE(c.what);
        Fields fields;
        c.apply(fields);
        const DImageModule changed = build(fields);
        EXPECT_FALSE(changed == base);
        EXPECT_TRUE(changed != base);
    }

    DImageOptionalData metadata;
    DImageModule linked = base;
    linked.setOptionalData(&metadata);
    EXPECT_TRUE(linked == base) << "the link takes no part";

    DImageModule withNaN = base;
    withNaN.setVrf(std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(withNaN == base) << "a NaN DAC value equals any value";
    EXPECT_TRUE(base == withNaN);
}

// The shared-memory instantiation has the same behaviour; only its link type differs.
TEST(ImageModule, SharedMemoryInstantiation)
{
    using ShmModule = DBasicImageModule<image::ShmAllocator>;
    ShmModule module(DRect(100, 0, 1030, 257), chipRow(4, 1), 3);
    module.addDAC("vrfp", 1);
    ShmModule copy(module);
    EXPECT_TRUE(copy == module);
    copy = module;
    EXPECT_EQ(copy.numberOfDACs(), 2);
    EXPECT_EQ(copy.absoluteChipGeometry(1), DRect(161, 1, 60, 97));
    EXPECT_THROW_MSG(copy.setChips(chipRow(17)), DOutOfRangeException, kTooManyChips);
}
