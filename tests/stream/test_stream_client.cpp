#include "StreamSender.h"
#include "TestHelpers.h"

#include "DStreamClient.h"
#include "DTerminateException.h"
#include "DZmqContext.h"
#include "DZmqSocket.h"
#include "foundation/DException.h"

#include <chrono>
#include <future>
#include <thread>

using namespace norvexa;
using namespace norvexa::imglib;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Pops until a message comes, for at most 5 s: a fresh connection needs a moment.
DStreamObject popSoon(DStreamClient& client)
{
    const std::atomic<bool> never(false);
    return client.pop(5.0, never);
}

} // namespace

TEST(StreamObject, AccessorsTellTheWrongType)
{
    const DStreamObject none;
    EXPECT_EQ(none.type(), DStreamObject::END);
    EXPECT_EQ(none.end().seriesId(), 0u);
    EXPECT_THROW_MSG(none.data(), DRuntimeException, "DStreamObject is not of type DATA");
    EXPECT_THROW_MSG(none.config(), DRuntimeException, "DStreamObject is not of type CONFIG");
    const DStreamObject data(DStreamData(4, DStreamData::Image()));
    EXPECT_THROW_MSG(data.end(), DRuntimeException, "DStreamObject is not of type END");
    EXPECT_EQ(data.data().imageId(), 4u);
    EXPECT_EQ(data.data().data().type(), datatypes::INT);
    EXPECT_EQ(data.data().data().typeBits(), 32u);
}

TEST(StreamClient, ASeriesInOrderAndAClientThatJoinsLate)
{
    stream_test::Sender sender;
    DStreamClient client("127.0.0.1", sender.port());
    const std::string pixels(16, '\x07');
    // The first image goes out before anything: the client meets the series in the middle.
    sender.send(stream_test::imageMessage(5, 2, 2, "uint32", "<", pixels));
    sender.send({stream_test::endPart(1)});
    sender.send({stream_test::headerPart(2, "none")});
    for (unsigned frame = 1; frame <= 3; ++frame)
        sender.send(stream_test::imageMessage(frame, 2, 2, "uint32", "lz4<", pixels));
    sender.send({stream_test::endPart(2)});

    const DStreamObject first = popSoon(client);
    ASSERT_EQ(first.type(), DStreamObject::DATA);
    EXPECT_EQ(first.data().imageId(), 5u);
    EXPECT_EQ(popSoon(client).end().seriesId(), 1u);
    EXPECT_EQ(popSoon(client).config().seriesId(), 2u);
    for (unsigned frame = 1; frame <= 3; ++frame)
        EXPECT_EQ(popSoon(client).data().imageId(), frame);
    EXPECT_EQ(popSoon(client).end().seriesId(), 2u);
}

TEST(StreamClient, AbortFlagAndTimeLimit)
{
    stream_test::Sender sender;
    DStreamClient client("127.0.0.1", sender.port());
    std::atomic<bool> flag(false);
    {
        SCOPED_TRACE("the flag comes first, even with a message waiting");
        sender.send({stream_test::endPart(3)});
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        flag = true;
        EXPECT_THROW_MSG(client.pop(10, flag), DTerminateException, "Operation aborted");
        flag = false;
        EXPECT_EQ(client.pop(5, flag).end().seriesId(), 3u);
    }
    {
        SCOPED_TRACE("a silent socket: the measured seconds, after 3 or 4 receives");
        const Clock::time_point start = Clock::now();
        try {
            client.pop(0.25, flag);
            ADD_FAILURE() << "no time-out";
        } catch (const DTimeoutException& e) {
            EXPECT_GT(e.time(), 0.25);
            EXPECT_LT(e.time(), 0.5);
            EXPECT_LE(e.time(), secondsSince(start));
        }
    }
    for (double timeout : {0.0, -1.0}) {
        SCOPED_TRACE("waiting for ever until another thread sets the flag");
        flag = false;
        auto setter = std::async(std::launch::async, [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            flag = true;
        });
        const Clock::time_point start = Clock::now();
        EXPECT_THROW_MSG(client.pop(timeout, flag), DTerminateException, "Operation aborted");
        EXPECT_GE(secondsSince(start), 0.3);
        EXPECT_LT(secondsSince(start), 2.0);
    }
}

TEST(ZmqContext, ShutdownFromAnotherThreadEndsABlockedReceive)
{
    stream_test::Sender sender;
    DZmqContext context;
    std::future<void> receiver;
    {
        auto socket = std::make_unique<DZmqSocket>(context, "127.0.0.1", sender.port());
        receiver = std::async(std::launch::async, [&socket] {
            const Clock::time_point start = Clock::now();
            // Time-outs come every 100 ms until the context ends; bounded at 5 s.
            while (secondsSince(start) < 5) {
                try {
                    socket->recv();
                } catch (const DTimeoutException&) {
                    continue;
                } catch (const DTerminateException& e) {
                    EXPECT_STREQ(e.what(), "");
                    // zmq_ctx_destroy waits for the socket: close it to let shutdown return.
                    socket.reset();
                    return;
                }
            }
            ADD_FAILURE() << "the receive never ended";
            socket.reset();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        context.shutdown();
        receiver.get();
    }
    EXPECT_EQ(context.handle(), nullptr);
    EXPECT_THROW_MSG(DZmqSocket(context, "127.0.0.1", sender.port()), DRuntimeException,
                     "ERROR: Binding socket");
}

TEST(ZmqSocket, ConnectRefusedAndCloseTwice)
{
    DZmqContext context;
    EXPECT_THROW_MSG(DZmqSocket(context, "127.0.0.1", -1), DRuntimeException,
                     "ERROR: Binding socket");
    DZmqSocket socket(context, "127.0.0.1", 9);
    testing::internal::CaptureStdout();
    socket.close();
    socket.close();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Closing ZMQ socket\nClosing ZMQ socket\n");
    EXPECT_THROW_MSG(socket.recv(), DRuntimeException,
                     "Receiving message returned error code: " + std::to_string(ENOTSOCK));
}
