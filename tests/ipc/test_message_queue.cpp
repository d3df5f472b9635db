#include "TestHelpers.h"

#include "DImage.h"
#include "DMessageQueue.h"
#include "DTerminateException.h"
#include "foundation/image/DAllocators.h"

#include <boost/interprocess/shared_memory_object.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace norvexa;
using namespace norvexa::imglib;
namespace fs = std::filesystem;
namespace bip = boost::interprocess;

namespace {

constexpr unsigned kSeconds = 120;
// The five shared objects (0 to 4) and the two lock files of a queue, before its name.
const char* const kPrefixes[] = {"/__NORVEXA_FENWIK_MSQ_1_", "/__NORVEXA_FENWIK_MSQ_2_",
                                 "/__NORVEXA_FENWIK_MSQ_ADMIN_", "/__NORVEXA_FENWIK_MSQ_DATA_1",
                                 "/__NORVEXA_FENWIK_MSQ_DATA_2", "/tmp/__NORVEXA_FENWIK_FLK_MAIN_",
                                 "/tmp/__NORVEXA_FENWIK_FLK_SUB_"};

// What a stuck test must clean up, where the alarm handler can reach it. Peers end by
// their own alarm.
char gNames[7][160];

void removeSharedObjects() noexcept
{
    for (int i = 0; i < 5; ++i)
        ::shm_unlink(gNames[i]);
}

void removeEverything() noexcept
{
    removeSharedObjects();
    ::unlink(gNames[5]);
    ::unlink(gNames[6]);
}

extern "C" void onTimeout(int)
{
    removeEverything();
    const char text[] = "message queue test timed out\n";
    (void)!::write(2, text, sizeof text - 1);
    ::_exit(1);
}

/// A second process running `body`, bounded in time by its own alarm; its result is the
/// exit status. It tells the test of a step by notify().
class Peer {
public:
    explicit Peer(const std::function<int(Peer&)>& body)
    {
        if (::pipe(_pipe) != 0 || (_pid = ::fork()) < 0)
            throw std::runtime_error("no peer process");
        if (_pid == 0) {
            std::signal(SIGALRM, SIG_DFL);
            ::alarm(kSeconds);
            try {
                ::_exit(body(*this));
            } catch (const std::exception& e) {
                std::fprintf(stderr, "peer: %s\n", e.what());
                ::_exit(99);
            }
        }
    }
    ~Peer()
    {
        kill();
        ::close(_pipe[0]);
        ::close(_pipe[1]);
    }
    void notify() { (void)!::write(_pipe[1], "!", 1); }
    /// Whether the peer has notified, waiting at most `ms`.
    bool notified(int ms = 0)
    {
        pollfd fd{_pipe[0], POLLIN, 0};
        char c;
        return ::poll(&fd, 1, ms) == 1 && ::read(_pipe[0], &c, 1) == 1;
    }
    int join()
    {
        int status = 0;
        ::waitpid(std::exchange(_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void kill()
    {
        if (_pid > 0 && ::kill(_pid, SIGKILL) == 0)
            join();
    }

private:
    int _pipe[2];
    pid_t _pid = -1;
};

/// A peer that opens `queue`, does `step` and notifies, then stays until it is killed.
Peer holding(const char* queue, const std::function<void(DMessageQueue&)>& step)
{
    return Peer([=](Peer& self) {
        DMessageQueue q(queue);
        step(q);
        self.notify();
        ::pause();
        return 0;
    });
}

/// Each test gets a queue name of its own; its shared objects and lock files go at the end.
class MessageQueue : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (int i = 0; i < 7; ++i)
            std::snprintf(gNames[i], sizeof gNames[i], "%s%s", kPrefixes[i], name.c_str());
        std::signal(SIGALRM, onTimeout);
        ::alarm(kSeconds);
    }
    void TearDown() override
    {
        ::alarm(0);
        removeEverything();
    }
    /// The size of shared object `i`, -1 when it is not there.
    long long objectSize(int i) const
    {
        std::error_code error;
        const auto size = fs::file_size(std::string("/dev/shm") + gNames[i], error);
        return error ? -1 : static_cast<long long>(size);
    }

    const std::string name = norvexa_test::uniqueShmName("ipc");
    const char* queue = name.c_str();
};

/// A hash of the pixels, every node of the metadata with its value and attributes, and
/// what lies beside the tree: short enough to come back as a text.
std::string digest(const DImage& image)
{
    std::ostringstream out;
    auto value = [&](const DBasicImage& v) {
        out << v.type() << '/' << v.typeBits() << '/';
        for (unsigned long n : v.shape())
            out << n << 'x';
        out << std::hash<std::string_view>()(std::string_view(v.cdata(), v.usedBytes())) << ';';
    };
    value(image.constImageData());
    for (const auto& node : image.optionalData().neXus().root()) {
        out << node.path() << '=';
        const bool group = node.type() == nexus::NeXusGroup;
        if (!group)
            value(node.asData().data());
        for (const auto* attribute : group ? node.asGroup().attributes() : node.asData().attributes()) {
            out << '@' << attribute->name();
            value(attribute->asData().data());
        }
    }
    const auto& m = image.optionalData();
    out << m.imageDescription().value_or("-") << m.rawHeader().value_or("-")
        << m.rotation_angle().value_or(-1) << m.rotation_angle_step().value_or(-1) << m.neXusIndex();
    return std::to_string(std::hash<std::string>()(out.str()));
}

DStdDrawingList spots(int count)
{
    DStdDrawingList list;
    for (int i = 0; i < count; ++i) {
        list.pushBack(DDrawingEllipse(i, 2 * i, 5, 3, 0.25, 255, 0, 0, 255));
        list.pushBack(DDrawingString(i, 2 * i + 8, "spot " + std::to_string(i), 255, 255, 0, 255));
    }
    list.pushBack(DDrawingLine(1, 2, 3, 4, 0, 0, 255, 128));
    list.pushBack(DDrawingPixel(7, 8, 1, 2, 3, 4));
    return list;
}

std::string fingerprint(const DStdDrawingList& list)
{
    std::string out = std::to_string(list.memsize()) + ":";
    for (unsigned long i = 0; i < list.size(); ++i) {
        static const std::size_t sizes[] = {sizeof(DDrawingPixel), sizeof(DDrawingLine),
                                            sizeof(DDrawingString), sizeof(DDrawingEllipse)};
        out.append(reinterpret_cast<const char*>(&list[i]), sizes[list[i].type()]);
    }
    return out;
}

DArray<DPixel> pixels(std::size_t count, int seed)
{
    DArray<DPixel> array;
    for (std::size_t i = 0; i < count; ++i)
        array.pushBack(DPixel{static_cast<std::int32_t>(i), seed, 0.5 * static_cast<double>(i)});
    return array;
}

/// The lines of this process's memory map that show the shared object `i` of the test.
std::vector<std::string> mappingsOf(int i)
{
    std::ifstream maps("/proc/self/maps");
    std::vector<std::string> lines;
    for (std::string line; std::getline(maps, line);)
        if (line.find(gNames[i]) != std::string::npos)
            lines.push_back(line);
    return lines;
}

/// A frame of `width` x 300 pixels made from `seed`, with metadata that differs by seed
/// (an odd seed adds a mask and a node of its own).
DImage frame(int width, unsigned seed)
{
    DImage image(width, 300, datatypes::UINT, 4);
    auto* p = reinterpret_cast<std::uint32_t*>(image.data());
    for (std::size_t i = 0; i < image.size(); ++i)
        p[i] = static_cast<std::uint32_t>(i * 2654435761u + seed);
    auto& m = image.optionalData();
    m.set_count_time(0.5f * static_cast<float>(seed));
    m.setImageDescription("frame " + std::to_string(seed));
    if (seed % 2) {
        DImage mask(width, 300, 0u);
        mask.setPixel<unsigned>(static_cast<int>(seed), 7, 4);
        m.set_pixel_mask(mask);
        m.neXus().newPath("/entry/sample/name", nexus::NeXusData).asData().setValue(std::string("odd"));
    }
    return image;
}

/// Answers what arrives, in the order of `kinds`: an i(mage) by its
/// digest (half the traffic of a big frame), a l(ist) or a(rray) with one item added, so
/// that a side that took back its own object would see it.
int echo(const char* queue, const std::string& kinds)
{
    DMessageQueue q(queue);
    DImage image;
    DStdDrawingList list;
    DArray<DPixel> array;
    for (char kind : kinds) {
        if (kind == 'i')
            q.receive(image), q.send(digest(image));
        else if (kind == 'l')
            q.receive(list), list.pushBack(DDrawingPixel(0, 0, 0, 0, 0, 0)), q.send(list);
        else
            q.receive(array), array.pushBack(DPixel{}), q.send(array);
    }
    return 0;
}

} // namespace

TEST_F(MessageQueue, EveryOperationNeedsAnOpenQueue)
{
    DImage image;
    DStdDrawingList list;
    const DArray<DPixel> array;
    const std::pair<const char*, std::function<void(DMessageQueue&)>> operations[] = {
        {"send text", [](DMessageQueue& q) { q.send(std::string("x")); }},
        {"receive text", [](DMessageQueue& q) { q.receive(); }},
        {"send image", [&](DMessageQueue& q) { q.send(image); }},
        {"receive list", [&](DMessageQueue& q) { q.receive(list); }},
        {"send array", [&](DMessageQueue& q) { q.send(array); }},
    };
    auto expectNotOpen = [&](DMessageQueue& q, const std::string& text) {
        for (const auto& [label, operation] : operations) {
            SCOPED_TRACE(label);
            EXPECT_THROW_MSG(operation(q), DMessageQueueException, text);
        }
    };
    DMessageQueue never;
    expectNotOpen(never, "DMessageQueue  is not open.");
    DMessageQueue closed(queue);
    closed.close();
    closed.close();
    expectNotOpen(closed, "DMessageQueue  is not open.");

    // A sub side that finds no objects (its main lost them) fails to open, and keeps the name.
    Peer owner = holding(queue, [](DMessageQueue&) { removeSharedObjects(); });
    ASSERT_TRUE(owner.notified(kSeconds * 1000));
    DMessageQueue orphan;
    EXPECT_THROW_MSG(orphan.open(queue), DMessageQueueException, std::strerror(ENOENT));
    expectNotOpen(orphan, "DMessageQueue " + name + " is not open.");
}

TEST_F(MessageQueue, RolesFollowTheOrderOfOpeningAndOutliveAKilledMain)
{
    auto main = std::make_unique<DMessageQueue>(queue);
    EXPECT_GE(objectSize(0), 100 * 4096) << "room for 100 texts of 4096 bytes";
    EXPECT_GE(objectSize(1), 100 * 4096);
    EXPECT_EQ(objectSize(2), 4096);
    main->send("before the sub came");
    Peer sub([&](Peer&) {
        DMessageQueue q(queue);
        q.send("from the sub");
        return q.receive() == "before the sub came" ? 0 : 1; // a second main would have wiped it
    });
    EXPECT_EQ(main->receive(), "from the sub");
    EXPECT_EQ(sub.join(), 0);
    main.reset();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(objectSize(i), -1) << gNames[i];
    EXPECT_TRUE(fs::exists(gNames[5]) && fs::exists(gNames[6])) << "lock files stay";

    // The next opener is main again; killed, it leaves a text and an occupied slot behind.
    Peer killed = holding(queue, [](DMessageQueue& q) {
        q.send("stale");
        q.send(pixels(3, 1));
    });
    ASSERT_TRUE(killed.notified(kSeconds * 1000));
    EXPECT_EQ(objectSize(2), 4096) << "made anew by the next opener";
    killed.kill();
    DMessageQueue q(queue);
    Peer late([&](Peer&) {
        DMessageQueue q(queue);
        DArray<DPixel> array;
        const bool fresh = q.receive() == "fresh";
        q.receive(array);
        return fresh && array.vector() == pixels(2, 2).vector() ? 0 : 1;
    });
    q.send("fresh");
    q.send(pixels(2, 2)); // would wait for ever on the dead main's occupied slot
    EXPECT_EQ(late.join(), 0);
}

TEST_F(MessageQueue, TextsUpToTheLimitAndAFullQueueBlocks)
{
    DMessageQueue q(queue);
    EXPECT_THROW_MSG(q.send(std::string(4097, 'x')), DMessageQueueException,
                     "Maximum message length exceeded (4096 characters)");
    auto text = [](int i) {
        return i == 0 ? std::string(4096, 'x') : i == 1 ? std::string() : i == 2 ? std::string("a\0b", 3)
                                                                                 : std::to_string(i);
    };
    for (int i = 0; i < 100; ++i)
        q.send(text(i));
    Peer reader([&](Peer& self) {
        DMessageQueue q(queue);
        ::usleep(300000);
        self.notify();
        for (int i = 0; i <= 100; ++i)
            if (q.receive() != text(i))
                return 1;
        return 0;
    });
    q.send(text(100));
    EXPECT_TRUE(reader.notified()) << "the 101st text went through before the reader took one";
    EXPECT_EQ(reader.join(), 0);
}

TEST_F(MessageQueue, SecondObjectWaitsAndSegmentsGrow)
{
    DMessageQueue q(queue);
    q.send(pixels(10, 1));
    EXPECT_EQ(objectSize(4), 10 * 16 + 4096) << "sized for the first object";
    Peer reader([&](Peer& self) {
        DMessageQueue q(queue);
        ::usleep(300000);
        self.notify();
        DArray<DPixel> first, second;
        q.receive(first);
        q.receive(second);
        return first.vector() == pixels(10, 1).vector() && second.vector() == pixels(20, 2).vector() ? 0 : 1;
    });
    q.send(pixels(20, 2));
    EXPECT_TRUE(reader.notified()) << "the second object went in before the first was taken";
    EXPECT_EQ(reader.join(), 0);

    // Out: too big for the kept segment, so 4 MiB more than its own first size. Back (one
    // pixel more): a new segment of its first size. Both are kept, whatever comes next.
    constexpr long long kFirst = 300000 * 16 + 4096;
    const std::size_t counts[] = {300000, 5};
    Peer echoing([&](Peer&) { return echo(queue, "aa"); });
    for (std::size_t count : counts) {
        SCOPED_TRACE(count);
        DArray<DPixel> sent = pixels(count, 3), back;
        q.send(sent);
        q.receive(back);
        sent.pushBack(DPixel{});
        EXPECT_EQ(back.vector(), sent.vector());
        EXPECT_EQ(objectSize(4), kFirst + 4194304);
        EXPECT_EQ(objectSize(3), kFirst + 16);
    }
    EXPECT_EQ(echoing.join(), 0);
}

TEST_F(MessageQueue, FramesListsAndArraysArriveUnchanged)
{
    DImage full(4148, 4362, datatypes::UINT, 4);
    auto* p = reinterpret_cast<std::uint32_t*>(full.data());
    for (std::size_t i = 0; i < full.size(); ++i)
        p[i] = static_cast<std::uint32_t>(i * 2654435761u);
    auto& m = full.optionalData();
    m.set_count_time(0.1f);
    m.setImageDescription(std::string("frame 7"));
    m.set_rotation_angle(1.5f);
    m.setNeXusIndex(7);
    m.neXus().newPath("/entry/sample/name", nexus::NeXusData).asData().setValue(std::string("lysozyme"));
    DImage mask(4148, 4362, 0u);
    mask.setPixel<unsigned>(1028, 0, 1);
    m.set_pixel_mask(mask);
    DImage halfPixels(3, 2, 0.25);
    const DImage images[] = {DImage(), halfPixels, full};

    DMessageQueue q(queue);
    Peer echoing([&](Peer&) { return echo(queue, "iiilla"); });
    for (const DImage& sent : images) {
        SCOPED_TRACE(sent.width());
        q.send(sent);
        EXPECT_EQ(q.receive(), digest(sent));
    }
    for (DStdDrawingList sent : {DStdDrawingList(), spots(300)}) {
        DStdDrawingList back = spots(1);
        q.send(sent);
        q.receive(back);
        sent.pushBack(DDrawingPixel(0, 0, 0, 0, 0, 0));
        EXPECT_EQ(fingerprint(back), fingerprint(sent));
    }
    DArray<DPixel> back = pixels(9, 9);
    q.send(DArray<DPixel>(3, DPixel{}));
    q.receive(back);
    EXPECT_EQ(back.vector(), DArray<DPixel>(4, DPixel{}).vector());
    EXPECT_EQ(echoing.join(), 0);
}

TEST_F(MessageQueue, AnAbortFlagEndsEveryBlockingCallAndLeavesTheQueueAsItWas)
{
    using namespace std::chrono_literals;
    DMessageQueue q(queue);
    for (int i = 0; i < 100; ++i)
        q.send(std::to_string(i));
    q.send(pixels(3, 1)); // the slot towards the sub side is taken
    DImage image;
    DStdDrawingList list;
    DArray<DPixel> array;
    const std::pair<const char*, std::function<void(const std::atomic<bool>&)>> calls[] = {
        {"send text", [&](const std::atomic<bool>& abort) { q.send(std::string("late"), abort); }},
        {"send image", [&](const std::atomic<bool>& abort) { q.send(DImage(2, 2, 0u), abort); }},
        {"send array", [&](const std::atomic<bool>& abort) { q.send(pixels(5, 2), abort); }},
        {"send list", [&](const std::atomic<bool>& abort) { q.send(spots(2), abort); }},
        {"receive text", [&](const std::atomic<bool>& abort) { q.receive(abort); }},
        {"receive image", [&](const std::atomic<bool>& abort) { q.receive(image, abort); }},
        {"receive array", [&](const std::atomic<bool>& abort) { q.receive(array, abort); }},
        {"receive list", [&](const std::atomic<bool>& abort) { q.receive(list, abort); }},
    };
    for (const auto& [label, call] : calls) {
        SCOPED_TRACE(label);
        std::atomic<bool> abort{false};
        const auto start = std::chrono::steady_clock::now();
        std::thread caller([&] {
            std::this_thread::sleep_for(50ms);
            abort = true;
        });
        EXPECT_THROW_MSG(call(abort), DTerminateException, "Operation aborted");
        caller.join();
        // Slices of 100 ms end it well within this; a wait that ignores the flag never ends.
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        EXPECT_THROW_MSG(call(abort), DTerminateException, "Operation aborted");
    }

    // Nothing of the aborted sends went over, and what the sub side sends comes in.
    Peer sub([&](Peer&) {
        DMessageQueue q(queue);
        for (int i = 0; i < 100; ++i)
            if (q.receive() != std::to_string(i))
                return 1;
        DArray<DPixel> first, second;
        q.receive(first);
        q.send("answer");
        q.send(spots(2));
        q.receive(second);
        return first.vector() == pixels(3, 1).vector() && second.vector() == pixels(4, 4).vector() ? 0 : 2;
    });
    const std::atomic<bool> set{true}, clear{false};
    EXPECT_THROW_MSG(q.receive(set), DTerminateException, "Operation aborted");
    EXPECT_EQ(q.receive(clear), "answer") << "an aborted receive leaves the message";
    q.receive(list, clear);
    EXPECT_EQ(fingerprint(list), fingerprint(spots(2)));
    q.send(pixels(4, 4), clear);
    EXPECT_EQ(sub.join(), 0);
}

TEST_F(MessageQueue, SegmentsStayMappedBetweenMessagesAndGrowBothWays)
{
    // Each way: a small object makes the segment, a big one replaces it by a bigger one,
    // a small one again fits the big one. The main side maps both segments throughout,
    // the current ones only (a replaced one shows as deleted while it is still mapped).
    constexpr long long kSmall = 10 * 16 + 4096, kBigOut = 300000 * 16 + 4096 + 4194304,
                        kSmallBack = 11 * 16 + 4096, kBigBack = 300001 * 16 + 4096 + 4194304;
    const std::size_t counts[] = {10, 300000, 10};
    const long long outSizes[] = {kSmall, kBigOut, kBigOut};
    const long long backSizes[] = {kSmallBack, kBigBack, kBigBack};
    DMessageQueue q(queue);
    Peer echoing([&](Peer&) { return echo(queue, "aaa"); });
    DArray<DPixel> back;
    for (int step = 0; step < 3; ++step) {
        SCOPED_TRACE(counts[step]);
        DArray<DPixel> sent = pixels(counts[step], step);
        q.send(sent);
        q.receive(back);
        sent.pushBack(DPixel{});
        EXPECT_EQ(back.vector(), sent.vector());
        EXPECT_EQ(objectSize(4), outSizes[step]);
        EXPECT_EQ(objectSize(3), backSizes[step]);
        for (int i : {3, 4}) {
            const std::vector<std::string> lines = mappingsOf(i);
            EXPECT_EQ(lines.size(), 1u) << gNames[i];
            for (const std::string& line : lines)
                EXPECT_EQ(line.find("(deleted)"), std::string::npos) << line;
        }
    }
    EXPECT_EQ(echoing.join(), 0);
    q.close();
    EXPECT_TRUE(mappingsOf(3).empty() && mappingsOf(4).empty()) << "close unmaps";
}

TEST_F(MessageQueue, AReceiverNeverReadsASegmentThatWasReplacedUnderItsName)
{
    // The sub side removes the segment that the main side has mapped, sends again (into a
    // new segment of the same size under the name), and then plants an object with other
    // values in the old one. A receiver that trusted its mapping would read those.
    using Shared = DArray<DPixel, image::ShmAllocator>;
    const std::string dataName = gNames[3] + 1;
    DMessageQueue q(queue);
    Peer sub([&](Peer& self) {
        DMessageQueue q(queue);
        q.send(pixels(5, 1));
        if (q.receive() != "taken")
            return 1;
        image::ShmSegment old(bip::open_only, dataName.c_str());
        bip::shared_memory_object::remove(dataName.c_str());
        q.send(pixels(5, 2));
        old.construct<Shared>(typeid(DArray<DPixel>).name())(pixels(5, 666),
                                                               image::ShmAllocator(old.get_segment_manager()));
        self.notify();
        return 0;
    });
    DArray<DPixel> array;
    q.receive(array);
    EXPECT_EQ(array.vector(), pixels(5, 1).vector());
    const long long firstSize = objectSize(3);
    q.send("taken");
    ASSERT_TRUE(sub.notified(kSeconds * 1000));
    q.receive(array);
    EXPECT_EQ(array.vector(), pixels(5, 2).vector());
    EXPECT_EQ(objectSize(3), firstSize) << "the new segment has the old one's size";
    EXPECT_EQ(sub.join(), 0);
}

TEST_F(MessageQueue, AFrameOfTheSameShapeIsCopiedIntoTheCallersBuffer)
{
    // Same shape, with and without a mask and a node of its own, then another shape:
    // each arrives whole, with its own metadata and nothing of the one before.
    const std::pair<int, unsigned> frames[] = {{800, 1}, {800, 2}, {800, 3}, {500, 4}};
    DMessageQueue q(queue);
    Peer sender([&](Peer&) {
        DMessageQueue q(queue);
        for (const auto& [width, seed] : frames)
            q.send(frame(width, seed));
        return 0;
    });
    DImage received;
    const char* buffer = nullptr;
    for (const auto& [width, seed] : frames) {
        SCOPED_TRACE(seed);
        q.receive(received);
        EXPECT_EQ(digest(received), digest(frame(width, seed)));
        if (buffer && width == 800) {
            EXPECT_EQ(received.cdata(), buffer) << "the same pixel buffer";
        }
        buffer = received.cdata();
    }
    EXPECT_EQ(sender.join(), 0);
}
