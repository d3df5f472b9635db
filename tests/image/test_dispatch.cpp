#include "PixelTypes.h"
#include "TestHelpers.h"

#include "DImage.h"
#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"

#include <utility>
#include <vector>

using namespace norvexa;
using namespace norvexa::datatypes;
using Image = image::DBasicImage<image::StdAllocator>;

namespace {

template <class T>
constexpr int positionOf()
{
    int position = 0, found = -1;
#define NORVEXA_POSITION(U, CLASS, BITS)                                                           \
    if (std::is_same_v<T, U>)                                                                      \
        found = position;                                                                          \
    ++position;
    NORVEXA_PIXEL_TYPES(NORVEXA_POSITION)
#undef NORVEXA_POSITION
    return found;
}

// Reports which pair of element types the dispatcher chose, and which images it passed.
struct WhichPair {
    int calls = 0;
    template <class L, class R>
    std::pair<int, int> fire(const Image& left, const Image& right)
    {
        EXPECT_TRUE(holdsType<L>(left));
        EXPECT_TRUE(holdsType<R>(right));
        return {positionOf<L>(), positionOf<R>()};
    }
};
using WhichPairDispatcher = PixelDispatcher<WhichPair, const Image, const Image, std::pair<int, int>>;

std::vector<Image> oneImagePerPixelType()
{
    std::vector<Image> images;
#define NORVEXA_TAG(T, CLASS, BITS) images.emplace_back(static_cast<const T*>(nullptr));
    NORVEXA_PIXEL_TYPES(NORVEXA_TAG)
#undef NORVEXA_TAG
    return images;
}

// Checks what the inline walk hands to a body that has no partner.
struct TagProbe {
    template <class L, class R>
    int fire(const Image& left, const Image& tag)
    {
        EXPECT_TRUE((std::is_same_v<L, R>));
        EXPECT_EQ(tag.data(), nullptr);
        EXPECT_EQ(tag.type(), left.type());
        EXPECT_EQ(tag.typeBits(), left.typeBits());
        return positionOf<L>();
    }
};

} // namespace

TEST(Dispatch, EveryPairOfPixelTypesReachesItsOwnBody)
{
    const auto images = oneImagePerPixelType();
    ASSERT_EQ(images.size(), 12u);
    for (int l = 0; l < 12; ++l)
        for (int r = 0; r < 12; ++r) {
            SCOPED_TRACE(typeStr(images[l].type()) + std::to_string(images[l].typeBits()) + " x " +
                         typeStr(images[r].type()) + std::to_string(images[r].typeBits()));
            EXPECT_EQ(WhichPairDispatcher::Go(images[l], images[r], WhichPair{}), std::make_pair(l, r));
        }
    // GoRight with the left type fixed by the caller walks only the right list.
    EXPECT_EQ(WhichPairDispatcher::GoRight<float>(images[10], images[3], WhichPair{}),
              std::make_pair(10, 3));
}

TEST(Dispatch, FailureNamesTheImageWhoseWalkRanOut)
{
    const Image good(static_cast<const int*>(nullptr));
    const Image half(image::StdAllocator(), FLOAT, 16);
    const Image text(image::StdAllocator(), CHAR, 88);
    const Image noType(image::StdAllocator(), NONE, 8);
    const Image badClass(image::StdAllocator(), static_cast<Type>(9), 8);

    EXPECT_THROW_MSG(WhichPairDispatcher::Go(half, good, WhichPair{}), DNotImplementedException,
                     "Missing implementation for type FLOAT of size 16");
    EXPECT_THROW_MSG(WhichPairDispatcher::Go(good, text, WhichPair{}), DNotImplementedException,
                     "Missing implementation for type CHAR of size 88");
    EXPECT_THROW_MSG(WhichPairDispatcher::Go(text, half, WhichPair{}), DNotImplementedException,
                     "Missing implementation for type CHAR of size 88");
    EXPECT_THROW_MSG(WhichPairDispatcher::Go(good, noType, WhichPair{}), DNotImplementedException,
                     "Missing implementation for type NONE of size 8");
    EXPECT_THROW_MSG(WhichPairDispatcher::Go(badClass, good, WhichPair{}), DNotImplementedException,
                     "Unknown data type");
    EXPECT_THROW_MSG(dispatchType(UINT, 24, [](auto) {}), DNotImplementedException,
                     "Missing implementation for type UINT of size 24");
}

TEST(Dispatch, InlineWalkWithTagImageHandsAnEmptyPartnerOfTheSameType)
{
    for (const Image& image : oneImagePerPixelType()) {
        const Image filled(3, 2, image::StdAllocator(), image.type(), image.typeBits());
        EXPECT_EQ((dispatchWithTag<Image, int>(filled, TagProbe{})),
                  dispatchType(image.type(), image.typeBits(),
                               [](auto tag) { return positionOf<typename decltype(tag)::type>(); }));
    }
}

TEST(Dispatch, FailedDispatchWritesNothing)
{
    using imglib::DImage;
    DImage frame(4, 3, 5);
    Image mask(4, 3, image::StdAllocator(), FLOAT, 16); // a legal description, no implementation
    const DImage before = frame;
    EXPECT_THROW_MSG(frame += DImage(mask), DNotImplementedException,
                     "Missing implementation for type FLOAT of size 16");
    EXPECT_EQ(std::memcmp(frame.cdata(), before.cdata(), frame.size() * 4), 0);
}

TEST(DataTypes, TypeStrNamesEveryClassAndRefusesOthers)
{
    for (const auto& [type, name] : {std::pair{NONE, "NONE"}, std::pair{BOOL, "BOOL"}, std::pair{CHAR, "CHAR"},
                                     std::pair{UINT, "UINT"}, std::pair{INT, "INT"}, std::pair{FLOAT, "FLOAT"}})
        EXPECT_EQ(typeStr(type), name);
    EXPECT_THROW_MSG(typeStr(static_cast<Type>(6)), DNotImplementedException, "Unknown data type");
    EXPECT_THROW_MSG(typeStr(static_cast<Type>(-1)), DNotImplementedException, "Unknown data type");
}
