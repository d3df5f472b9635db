#include "RectPrinter.h"
#include "TestHelpers.h"

#include "DBasicImageModule.h"
#include "DBasicImageOptionalData.h"
#include "foundation/DException.h"

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
const char* const kNoSuchChip = "Attempt to access a chip that is out of range";
const char* const kNoSuchDAC = "Attempt to access a DAC that is out of range";
const char* const kModules = "/entry/instrument/detector/detectorSpecific/";

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

DImageModule build(const Fields& fields = Fields())
{
    DImageModule module(fields.geometry, fields.chips, fields.number);
    module.set_countrate_correction_lookup_table(fields.table);
    for (const auto& [name, value] : fields.dacs)
        module.addDAC(name, value);
    return module;
}

std::vector<std::string> dacNames(const DImageModule& module)
{
    std::vector<std::string> names;
    for (int i = 0; i < module.numberOfDACs(); ++i)
        names.push_back(module.dacName(i));
    return names;
}

} // namespace

TEST(ImageModule, Chips)
{
    EXPECT_EQ(DImageModule(DRect(), chipRow(16), 0).numberOfChips(), DImageModule::MAX_NUMBER_OF_CHIPS);
    EXPECT_THROW_MSG(DImageModule(DRect(), chipRow(17), 0), DOutOfRangeException, kTooManyChips);

    DImageModule module(DRect(100, 20, 487, 195), chipRow(16), 0);
    module.setChips({DRect(10, 98, 60, 97), DRect(71, 98, 60, 97)});
    EXPECT_THROW_MSG(module.setChips(chipRow(17)), DOutOfRangeException, kTooManyChips);
    ASSERT_EQ(module.numberOfChips(), 2) << "a refused list leaves the chips as they were";
    EXPECT_EQ(module.absoluteChipGeometry(0), DRect(110, 118, 60, 97));
    module.move(-100, 5);
    EXPECT_EQ(module.chip(0), DRect(10, 98, 60, 97)) << "chips stay relative to the module";
    EXPECT_EQ(module.absoluteChipGeometry(1), DRect(71, 123, 60, 97));
    for (int i : {-1, 2, 15}) {
        SCOPED_TRACE(i);
        EXPECT_THROW_MSG(module.chip(i), DOutOfRangeException, kNoSuchChip);
        EXPECT_THROW_MSG(module.absoluteChipGeometry(i), DOutOfRangeException, kNoSuchChip);
    }
    module.setChips({});
    EXPECT_EQ(module.numberOfChips(), 0);
}

TEST(ImageModule, NewModuleDACsAndVrf)
{
    DImageModule module;
    EXPECT_TRUE(module == DImageModule(DRect(), {}, -1)) << "new: no chips, table or DACs, number -1";
    EXPECT_EQ(module.vrf(), 0.0);
    module.addDAC("vthr", 9);
    module.setVrf(-0.15);
    module.setVrf(0.25);
    EXPECT_EQ(dacNames(module), (std::vector<std::string>{"vthr", "vrfp"})) << "setVrf adds one";
    EXPECT_EQ(module.vrf(), 0.25);
    module.addDAC("vrfp", 2);
    EXPECT_EQ(module.numberOfDACs(), 3) << "addDAC does not look for a DAC of the same name";
    EXPECT_EQ(module.vrf(), 0.25) << "the first vrfp counts";
    for (int i : {-1, 3}) {
        SCOPED_TRACE(i);
        EXPECT_THROW_MSG(module.dacName(i), DOutOfRangeException, kNoSuchDAC);
        EXPECT_THROW_MSG(module.dacValue(i), DOutOfRangeException, kNoSuchDAC);
    }
}

// Assignment copies all but the DACs, and appends the source's DACs to the target's own.
TEST(ImageModule, AssignmentAppendsDACs)
{
    const DImageModule source = build();
    DImageModule target(DRect(1, 2, 3, 4), chipRow(5), 1);
    target.setVrf(0.5);
    target = source;
    EXPECT_EQ(dacNames(target), (std::vector<std::string>{"vrfp", "vcmp", "vrfp"}));
    EXPECT_EQ(target.vrf(), 0.5) << "vrf finds the target's old value first";

    DImageModule noDACs(DRect(), chipRow(5), 0);
    noDACs = source;
    EXPECT_TRUE(noDACs == source) << "the target's chips beyond the source's count are stale, "
                                     "and not compared";

    DImageModule self = build();
    const DImageModule& alias = self;
    self = alias;
    EXPECT_EQ(self.numberOfDACs(), 2) << "self-assignment adds nothing";

    DImageModule fromTemporary;
    fromTemporary.setVrf(1);
    fromTemporary = build(); // an rvalue goes the same way
    EXPECT_EQ(fromTemporary.numberOfDACs(), 3);

    EXPECT_EQ(DImageModule(source).numberOfDACs(), 2) << "a copy is a plain copy";
}

TEST(ImageModule, EqualityComparesAllButTheLink)
{
    const DImageModule base = build();
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
         }) {
        SCOPED_TRACE(c.what);
        Fields fields;
        c.apply(fields);
        EXPECT_FALSE(build(fields) == base);
        EXPECT_TRUE(build(fields) != base);
    }

    DImageOptionalData metadata;
    DImageModule linked = base;
    linked.setOptionalData(&metadata);
    EXPECT_TRUE(linked == base) << "the link takes no part";

    Fields nan;
    nan.dacs[1].second = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(build(nan) == base) << "a NaN DAC value equals any value";
    EXPECT_TRUE(base == build(nan));
}

TEST(ImageModule, NodeAndTableFromTheLinkedTree)
{
    DImageOptionalData metadata;
    const int table[] = {0, 1, 3, 6, 10};
    for (const char* name : {"detectorModule_007", "detectorModule_1234"})
        metadata.neXus()
            .newPath(std::string(kModules) + name, nexus::NeXusGroup)
            .asGroup()
            .addDataset("countrate_correction_lookup_table", datatypes::NONE, 0)
            .setValue(table[0], 5);
    metadata.neXus().newPath(std::string(kModules) + "detectorModule_009", nexus::NeXusGroup);

    for (const auto& [number, name] : {std::make_pair(7, "detectorModule_007"),
                                       std::make_pair(1234, "detectorModule_1234")}) {
        SCOPED_TRACE(name);
        DImageModule module(DRect(), {}, number);
        module.setOptionalData(&metadata);
        ASSERT_NE(module.neXusModule(), nullptr);
        EXPECT_EQ(module.neXusModule()->path(), kModules + std::string(name));
        module.load_countrate_correction_lookup_table();
        EXPECT_EQ(module.countrate_correction_lookup_table(), std::vector<int>(table, table + 5));
    }

    DImageModule unlinked(DRect(), {}, 7);
    unlinked.set_countrate_correction_lookup_table({4});
    unlinked.load_countrate_correction_lookup_table();
    EXPECT_EQ(unlinked.countrate_correction_lookup_table(), std::vector<int>{4}) << "no link: nothing";

    DImageModule noTable = unlinked;
    noTable.setModuleNumber(9);
    noTable.setOptionalData(&metadata);
    noTable.load_countrate_correction_lookup_table();
    EXPECT_EQ(noTable.countrate_correction_lookup_table(), std::vector<int>{4})
        << "a failure on the way leaves the table as it was";

    DImageModule noNode = noTable;
    noNode.setModuleNumber(8);
    EXPECT_EQ(noNode.neXusModule(), nullptr);
    noNode.load_countrate_correction_lookup_table();
    EXPECT_TRUE(noNode.countrate_correction_lookup_table().empty()) << "no node: no table";
}
