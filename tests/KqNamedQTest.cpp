// Tests of CNamedQ against real POSIX queues, inspected with plain mq_* calls.
#include "KqNamedQ.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <mqueue.h>
#include <sys/resource.h>

using KQ::CNamedQ;
using Clock = std::chrono::steady_clock;

namespace {

std::string UniqueName()
{
    static int counter = 0;
    return "kq-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

bool QueueExists(const std::string& name)
{
    const mqd_t q = mq_open(("/" + name).c_str(), O_RDONLY);
    if (q != static_cast<mqd_t>(-1)) {
        mq_close(q);
    }
    return q != static_cast<mqd_t>(-1);
}

std::string SendFailedLine(const std::string& name, int error)
{
    return "CNamedQ '" + name + "' send failed ret=-1 errno=" + std::to_string(error) + " '" + strerror(error) + "'";
}

long MillisecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

TEST(NamedQOpen, MissingQueueWithoutCreateFailsWithEnoent)
{
    KqTest::HookCapture capture;
    const std::string name = UniqueName();
    CNamedQ q(name, false, 128, 10);
    EXPECT_FALSE(q.IsValid());
    EXPECT_EQ("", q.Receive(10));
    EXPECT_EQ(0u, q.GetMessageCount());
    EXPECT_FALSE(q.Send("x"));
    const std::vector<std::string> expected = {
        "CNamedQ '" + name + "' create failed " + std::to_string(ENOENT) + " " + strerror(ENOENT),
        SendFailedLine(name, EBADF)};
    EXPECT_EQ(expected, capture.Lines());
    EXPECT_FALSE(QueueExists(name));
}

TEST(NamedQOpen, AttributesAreReadBackFromTheQueue)
{
    const std::string name = UniqueName();
    CNamedQ creator(name, true, 128, 10);
    ASSERT_TRUE(creator.IsValid());
    EXPECT_EQ(name, creator.GetName());
    EXPECT_EQ(127u, creator.GetMaxMsgSize());
    EXPECT_EQ(10u, creator.GetQueueDepth());
    const mqd_t plain = mq_open(("/" + name).c_str(), O_RDONLY);
    mq_attr attr = {};
    ASSERT_EQ(0, mq_getattr(plain, &attr));
    EXPECT_EQ(128, attr.mq_msgsize);
    EXPECT_EQ(10, attr.mq_maxmsg);
    mq_close(plain);

    CNamedQ opener(name, false, 16, 3);
    CNamedQ secondCreator(name, true, 64, 2);  // no O_EXCL: opens the queue as it is
    for (const CNamedQ* q : {&opener, &secondCreator}) {
        EXPECT_TRUE(q->IsValid());
        EXPECT_EQ(127u, q->GetMaxMsgSize());
        EXPECT_EQ(10u, q->GetQueueDepth());
    }
}

TEST(NamedQTransfer, TextArrivesWithItsNul)
{
    const std::string name = UniqueName();
    CNamedQ q(name, true, 128, 10);
    ASSERT_TRUE(q.Send("abc"));
    ASSERT_TRUE(q.Send("def", 100));
    EXPECT_EQ(2u, q.GetMessageCount());
    EXPECT_EQ(std::string("abc\0", 4), q.Receive(100));

    const mqd_t plain = mq_open(("/" + name).c_str(), O_RDWR);
    char buffer[128];
    ASSERT_EQ(4, mq_receive(plain, buffer, sizeof buffer, nullptr));
    EXPECT_EQ(0, memcmp("def", buffer, 4));
    ASSERT_EQ(0, mq_send(plain, "raw", 3, 0));  // bytes as sent, nothing added
    EXPECT_EQ("raw", q.Receive(0));
    mq_close(plain);
}

TEST(NamedQTransfer, TooLongTextFailsWithEmsgsize)
{
    KqTest::HookCapture capture;
    const std::string name = UniqueName();
    CNamedQ q(name, true, 128, 10);
    EXPECT_TRUE(q.Send(std::string(127, 'a')));
    EXPECT_FALSE(q.Send(std::string(128, 'a')));
    EXPECT_EQ(std::vector<std::string>{SendFailedLine(name, EMSGSIZE)}, capture.Lines());
    EXPECT_EQ(128u, q.Receive(10).size());
}

TEST(NamedQTimeouts, ReceiveOnEmptyQueueWaitsThenReturnsEmpty)
{
    KqTest::HookCapture capture;
    CNamedQ q(UniqueName(), true, 64, 4);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("", q.Receive(50));
    EXPECT_GE(MillisecondsSince(start), 45);
    EXPECT_LT(MillisecondsSince(start), 50 + 2000);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(NamedQTimeouts, TimedSendOnFullQueueFailsWithEtimedout)
{
    KqTest::HookCapture capture;
    const std::string name = UniqueName();
    CNamedQ q(name, true, 64, 2);
    ASSERT_TRUE(q.Send("1") && q.Send("2", 0));
    Clock::time_point start = Clock::now();
    EXPECT_FALSE(q.Send("3", 0));
    EXPECT_LT(MillisecondsSince(start), 1000);
    start = Clock::now();
    EXPECT_FALSE(q.Send("3", 120));
    EXPECT_GE(MillisecondsSince(start), 115);
    EXPECT_EQ(std::vector<std::string>(2, SendFailedLine(name, ETIMEDOUT)), capture.Lines());
    EXPECT_EQ(2u, q.GetMessageCount());
}

TEST(NamedQTimeouts, BlockingCallsWaitForThePeer)
{
    CNamedQ q(UniqueName(), true, 64, 1);
    ASSERT_TRUE(q.Send("first"));
    std::thread peer([&q] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(std::string("first\0", 6), q.Receive(1000));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_TRUE(q.Send("reply"));
    });
    Clock::time_point start = Clock::now();
    EXPECT_TRUE(q.Send("second"));  // full: waits for the peer's Receive
    EXPECT_GE(MillisecondsSince(start), 90);
    EXPECT_EQ(std::string("second\0", 7), q.Receive(0));
    start = Clock::now();
    EXPECT_EQ(std::string("reply\0", 6), q.Receive(0));  // empty: waits for the peer's Send
    EXPECT_GE(MillisecondsSince(start), 90);
    peer.join();
}

TEST(NamedQShutDown, ClearEmptiesTheQueue)
{
    CNamedQ q(UniqueName(), true, 64, 4);
    ASSERT_TRUE(q.Send("a") && q.Send("b") && q.Send("c"));
    EXPECT_EQ(3u, q.GetMessageCount());
    q.Clear();
    EXPECT_EQ(0u, q.GetMessageCount());
}

TEST(NamedQShutDown, OnlyTheCreatorUnlinks)
{
    KqTest::HookCapture capture;
    const std::string name = UniqueName();
    CNamedQ creator(name, true, 64, 4);
    {
        CNamedQ opener(name, false, 64, 4);
        ASSERT_TRUE(opener.IsValid());
        opener.ShutDown();
        EXPECT_FALSE(opener.IsValid());
        EXPECT_TRUE(QueueExists(name));
        opener.ShutDown();
        EXPECT_EQ(0, opener.OpenQ(false));  // reopens, but stays shut down for IsValid
        EXPECT_FALSE(opener.IsValid());
    }
    EXPECT_TRUE(QueueExists(name));
    creator.ShutDown();
    EXPECT_FALSE(QueueExists(name));
    creator.ShutDown();
    EXPECT_TRUE(capture.Lines().empty());
    {
        CNamedQ scoped(name, true, 64, 4);
    }
    EXPECT_FALSE(QueueExists(name));
}

TEST(NamedQShutDown, UnlinkFailureIsReported)
{
    KqTest::HookCapture capture;
    const std::string name = UniqueName();
    CNamedQ q(name, true, 64, 4);
    ASSERT_EQ(0, mq_unlink(("/" + name).c_str()));
    q.ShutDown();
    EXPECT_FALSE(q.IsValid());
    const std::string expected = "CNamedQ '" + name + "' failed unlink errno = " + std::to_string(ENOENT) + " '" + strerror(ENOENT) + "'";
    EXPECT_EQ(std::vector<std::string>{expected}, capture.Lines());
}

// Runs in a child process, so the lowered limit does not reach other tests.
TEST(NamedQGlobalInit, LimitsTheQueueMemory)
{
    const auto lowerAndCreate = [] {
        CNamedQ::GlobalInit(1024, 2048);
        rlimit now = {};
        getrlimit(RLIMIT_MSGQUEUE, &now);
        KqTest::HookCapture capture;
        CNamedQ big(UniqueName(), true, 8192, 10);  // needs more than 1024 bytes
        const std::string expected = "CNamedQ '" + big.GetName() + "' create failed " + std::to_string(EMFILE) + " " + strerror(EMFILE);
        const bool ok = now.rlim_cur == 1024 && now.rlim_max == 2048 && !big.IsValid() &&
                        capture.Lines() == std::vector<std::string>{expected};
        _exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(lowerAndCreate(), ::testing::ExitedWithCode(0), "");
}
