#include "SharedSegment.h"
#include "TestHelpers.h"

#include "foundation/DException.h"
#include "foundation/nexus/DBasicNeXusTree.h"

#include <functional>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::nexus;
using image::ShmAllocator;
using image::ShmSegment;
using image::StdAllocator;

namespace {

// A small header tree with every kind of node and value, names added out of order.
template <class Allocator>
void fillSample(DBasicNeXusTree<Allocator>& tree)
{
    auto& detector = tree.newPath("/entry/instrument/detector", NeXusGroup).asGroup();
    detector.addAttribute("NX_class", datatypes::NONE, 0).setValue(std::string("NXdetector"));
    auto& countTime = tree.newPath("/entry/instrument/detector/count_time", NeXusData).asData();
    countTime.setValue(0.25f);
    countTime.addAttribute("unit", datatypes::NONE, 0).setValue(std::string("s"));
    detector.addDataset("description", datatypes::NONE, 0).setValue(std::string("a test detector"));
    const int table[] = {1, 2, 3, 5, 8};
    auto& specific = detector.addSubGroup("detectorSpecific");
    for (const char* name : {"detectorModule_002", "detectorModule_001", "detectorModule_000"})
        specific.addSubGroup(name).addDataset("data_size", datatypes::NONE, 0).setValue(table[0], 2);
    specific.addDataset("countrate_correction_lookup_table", datatypes::NONE, 0).setValue(table[0], 5);
    specific.addDataset("nimages", datatypes::NONE, 0).setValue(7u);
    specific.addDataset("flag", datatypes::NONE, 0).setValue(true);
    specific.addDataset("empty", datatypes::NONE, 0);

    // A 2-D mask, and the same compressed, as values.
    image::DBasicImage<Allocator> mask(13, 7, tree.allocator(), datatypes::UINT, 32);
    for (std::size_t i = 0; i < mask.size(); ++i)
        reinterpret_cast<unsigned int*>(mask.data())[i] = static_cast<unsigned int>(i % 5 == 0);
    specific.addDataset("pixel_mask", datatypes::NONE, 0).data() = mask;
    mask.setFilter(image::DCompression::FILTER_BS32_LZ4, 0);
    specific.addDataset("pixel_mask_compressed", datatypes::NONE, 0).data() = mask;
}

template <class A>
std::string valueText(const image::DBasicImage<A>& v)
{
    std::string out = std::to_string(v.type()) + '/' + std::to_string(v.typeBits()) + '/' +
                      std::to_string(v.filter()) + '/';
    for (auto n : v.shape())
        out += std::to_string(n) + 'x';
    return out + std::to_string(std::hash<std::string_view>()(std::string_view(v.cdata(), v.usedBytes())));
}

// Every node in iteration order with its kind, value and attributes: two trees are
// equal in every name, kind, attribute and value when their texts are.
template <class A>
std::string treeText(const DBasicNeXusTree<A>& tree)
{
    std::string out = std::to_string(tree.size()) + " nodes";
    for (const auto& node : tree.root()) {
        const bool group = node.type() == NeXusGroup;
        out += '\n' + node.path() + (group ? "/" : "=" + valueText(node.asData().data()));
        for (const auto* attribute : group ? node.asGroup().attributes() : node.asData().attributes())
            out += " @" + attribute->name() + (attribute->type() == NeXusAttribute ? "=" : "?") +
                   valueText(attribute->asData().data());
    }
    return out;
}

} // namespace

TEST(NeXusTree, PathsAreMadeAndFound)
{
    DNeXusTree tree;
    EXPECT_EQ(tree.root().path(), "/");
    EXPECT_EQ(tree.size(), 1u);
    EXPECT_THROW(tree.at("/entry"), DOutOfRangeException);
    EXPECT_THROW(tree.at("entry"), DOutOfRangeException);

    DNeXusTree::Node& made = tree.newPath("/entry/instrument/detector/count_time", NeXusData);
    EXPECT_EQ(made.type(), NeXusData);
    EXPECT_EQ(made.path(), "/entry/instrument/detector/count_time");
    EXPECT_EQ(made.name(), "count_time");
    EXPECT_EQ(tree.at("/entry").type(), NeXusGroup);
    EXPECT_EQ(tree.at("/entry/instrument").type(), NeXusGroup);
    EXPECT_EQ(&tree.at("/entry//instrument/detector/count_time/"), &made) << "empty components skipped";

    DNeXusTree::Node& detector = tree.newPath("/entry/instrument/detector", NeXusGroup);
    EXPECT_EQ(&detector, &tree.at("/entry/instrument/detector"));
    ASSERT_EQ(detector.asGroup().children(false).size(), 1u);
    EXPECT_EQ(&tree.newPath("/entry/instrument/detector/count_time", NeXusData), &made)
        << "a node that stands there is returned unchanged";

    // A dataset on the way of a longer path is missing for at(), in the way for newPath().
    EXPECT_THROW(tree.at("/entry/instrument/detector/count_time/more"), DOutOfRangeException);
    EXPECT_THROW(tree.newPath("/entry/instrument/detector/count_time/more", NeXusData), DRuntimeException);
    EXPECT_THROW_MSG(made.asGroup(), DRuntimeException,
                     "Node \"/entry/instrument/detector/count_time\" is not a NeXus group");
    EXPECT_THROW_MSG(detector.asData(), DRuntimeException,
                     "Path \"/entry/instrument/detector\" does not contain NeXus data");
    EXPECT_THROW(detector.asGroup().dataset("missing"), DOutOfRangeException);
    EXPECT_THROW(tree.root().asGroup().addSubGroup("a/b"), DBadParameterException);
    EXPECT_EQ(tree.size(), 5u);
}

TEST(NeXusTree, ChildrenAndIterationAreInNameOrderParentFirst)
{
    DNeXusTree tree;
    fillSample(tree);
    const auto& specific = tree.at("/entry/instrument/detector/detectorSpecific").asGroup();
    std::vector<std::string> names;
    for (const auto* child : specific.children(false))
        names.push_back(child->name());
    EXPECT_EQ(names, (std::vector<std::string>{"countrate_correction_lookup_table", "detectorModule_000",
                                               "detectorModule_001", "detectorModule_002", "empty", "flag",
                                               "nimages", "pixel_mask", "pixel_mask_compressed"}));

    std::vector<std::string> paths;
    for (const auto& node : tree.root())
        paths.push_back(node.path());
    const std::string d = "/entry/instrument/detector", s = d + "/detectorSpecific";
    ASSERT_GE(paths.size(), 10u);
    EXPECT_EQ(std::vector<std::string>(paths.begin(), paths.begin() + 10),
              (std::vector<std::string>{"/", "/entry", "/entry/instrument", d, d + "/count_time", d + "/description", s,
                                        s + "/countrate_correction_lookup_table", s + "/detectorModule_000",
                                        s + "/detectorModule_000/data_size"}));
    for (const auto& path : paths)
        EXPECT_EQ(path.find("NX_class"), std::string::npos) << "attributes are not visited";
    EXPECT_EQ(specific.children(true).size(), 12u);

    // Iterating a subtree stops at its end.
    std::size_t below = 0;
    for (auto it = specific.begin(); it != specific.end(); ++it)
        ++below;
    EXPECT_EQ(below, 13u);
}

TEST(NeXusTree, ValuesAttributesAndErasing)
{
    DNeXusTree tree;
    fillSample(tree);
    auto& countTime = tree.at("/entry/instrument/detector/count_time").asData();
    float seconds = 0;
    countTime.asType(seconds, 1);
    EXPECT_EQ(seconds, 0.25f);
    int asInt[5] = {};
    tree.at("/entry/instrument/detector/detectorSpecific/countrate_correction_lookup_table")
        .asData().asType(asInt[0], 5);
    EXPECT_EQ(asInt[4], 8);
    EXPECT_THROW(countTime.asType(asInt[0], 2), DOutOfRangeException);
    std::string text;
    tree.at("/entry/instrument/detector/description").asData().asType(text, 1);
    EXPECT_EQ(text, "a test detector");
    EXPECT_THROW(tree.at("/entry/instrument/detector/description").asData().asType(seconds, 1),
                 DRuntimeException);
    EXPECT_THROW(countTime.asType(text, 1), DRuntimeException);
    EXPECT_THROW(tree.at("/entry/instrument/detector/detectorSpecific/empty").asData().asType(seconds, 1),
                 DRuntimeException);
    unsigned int maskPixel = 7;
    tree.at("/entry/instrument/detector/detectorSpecific/pixel_mask_compressed").asData().asType(maskPixel, 1);
    EXPECT_EQ(maskPixel, 1u) << "a compressed value converts too";

    // "unit" set twice is one attribute; erasing what is not there does nothing.
    countTime.addAttribute("unit", datatypes::NONE, 0).setValue(std::string("ms"));
    ASSERT_EQ(countTime.attributes().size(), 1u);
    countTime.attributes()[0]->asData().asType(text, 1);
    EXPECT_EQ(text, "ms");
    countTime.eraseAttribute("unit");
    countTime.eraseAttribute("unit");
    EXPECT_TRUE(countTime.attributes().empty());

    // A node copied by value has its own value.
    DBasicNeXusData<StdAllocator> copy = countTime;
    copy.setValue(9.0);
    countTime.asType(seconds, 1);
    EXPECT_EQ(seconds, 0.25f);

    auto& root = tree.root();
    const std::size_t before = tree.size();
    root.eraseChild("/entry/instrument/detector/detectorSpecific/detectorModule_001");
    EXPECT_EQ(tree.size(), before - 2);
    root.eraseChild("/entry/instrument/nothing/here");
    root.eraseChild("/entry/instrument/detector/count_time/deeper");
    tree.at("/entry/instrument/detector").asGroup().eraseChild("description");
    EXPECT_THROW(tree.at("/entry/instrument/detector/description"), DOutOfRangeException);
    root.eraseChild("entry");
    EXPECT_EQ(tree.size(), 1u);
}

TEST(NeXusTree, CopiesAreDeepAndMovesLeaveAnEmptyTree)
{
    DNeXusTree tree;
    fillSample(tree);
    DNeXusTree copy(tree);
    EXPECT_EQ(treeText(copy), treeText(tree));
    copy.at("/entry/instrument/detector/count_time").asData().setValue(1.0f);
    copy.root().eraseChild("/entry/instrument/detector/detectorSpecific/nimages");
    float seconds = 0;
    tree.at("/entry/instrument/detector/count_time").asData().asType(seconds, 1);
    EXPECT_EQ(seconds, 0.25f) << "a change to a copy is not seen in the original";
    EXPECT_NO_THROW(tree.at("/entry/instrument/detector/detectorSpecific/nimages"));
    EXPECT_NE(treeText(copy), treeText(tree));

    DNeXusTree moved(std::move(copy));
    EXPECT_EQ(copy.size(), 1u);
    EXPECT_NO_THROW(copy.newPath("/entry/again", NeXusData)) << "the source stays usable";
    copy = tree;
    EXPECT_EQ(treeText(copy), treeText(tree));
    copy = std::move(moved);
    EXPECT_THROW(copy.at("/entry/instrument/detector/detectorSpecific/nimages"), DOutOfRangeException);
}

TEST(NeXusTree, CopiesIntoASegmentWhichASecondProcessMapsElsewhereAndReads)
{
    norvexa_test::SharedSegment segment(4 << 20);
    const std::size_t freeAtStart = segment.segment.get_free_memory();
    DNeXusTree heap;
    fillSample(heap);
    auto* shared = segment.segment.construct<DShmNeXusTree>("tree")(heap, segment.allocator());
    EXPECT_EQ(treeText(*shared), treeText(heap));
    EXPECT_EQ(treeText(DShmNeXusTree(*shared)), treeText(heap));
    EXPECT_EQ(treeText(DNeXusTree(*shared, StdAllocator())), treeText(heap));
    {
        DShmNeXusTree built(segment.allocator());
        fillSample(built);
        EXPECT_EQ(treeText(built), treeText(heap));
    }
    const void* parentBase = segment.segment.get_address();

    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Map the segment a second time: at another address than the inherited mapping.
        int status = 0;
        try {
            ShmSegment mapped(boost::interprocess::open_only, segment.name.c_str());
            if (mapped.get_address() == parentBase)
                status = 2;
            const DShmNeXusTree* tree = mapped.find<DShmNeXusTree>("tree").first;
            DNeXusTree reference;
            fillSample(reference);
            if (!tree || treeText(*tree) != treeText(reference))
                status = 3;
            const DNeXusTree copy(*tree, StdAllocator());
            if (treeText(copy) != treeText(reference))
                status = 4;
        } catch (...) {
            status = 5;
        }
        _exit(status);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "2: same address, 3: tree differs, 4: copy differs, 5: threw";
    segment.segment.destroy<DShmNeXusTree>("tree");
    EXPECT_EQ(segment.segment.get_free_memory(), freeAtStart) << "every node given back";
}
