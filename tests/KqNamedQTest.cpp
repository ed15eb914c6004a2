// Tests of CNamedQ against real POSIX queues, inspected with plain mq_* calls.
#include "KqNamedQ.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include <fcntl.h>
#include <mqueue.h>

using KQ::CNamedQ;
using Lines = std::vector<std::string>;
using namespace std::chrono;

namespace {

// Each test gets its own queue name and a capture of the printed lines.
class NamedQ : public ::testing::Test {
protected:
    // The queue's attributes read with plain calls; all zero when no queue has the name.
    mq_attr Plain() const
    {
        mq_attr attr = {};
        const mqd_t q = mq_open(("/" + name).c_str(), O_RDONLY);
        mq_getattr(q, &attr);
        mq_close(q);
        return attr;
    }
    // "CNamedQ '<name>' <what><errno> '<errno text>'"
    std::string Diag(const std::string& what, int error) const
    {
        return "CNamedQ '" + name + "' " + what + std::to_string(error) + " '" + strerror(error) + "'";
    }
    const std::string name = "kq-test-" + std::to_string(getpid()) + "-" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string sendFailed = "send failed ret=-1 errno=";
    KqTest::HookCapture capture;
};

}  // namespace

TEST_F(NamedQ, OpenTakesTheQueueSizesAndOnlyTheCreatorUnlinks)
{
    CNamedQ missing(name, false, 128, 10);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(missing.Send("x"));
    CNamedQ creator(name, true, 128, 10);
    EXPECT_EQ(128, Plain().mq_msgsize);
    EXPECT_EQ(10, Plain().mq_maxmsg);
    CNamedQ opener(name, false, 16, 3), secondCreator(name, true, 64, 2);  // no O_EXCL: opens the queue as it is
    EXPECT_EQ(127u, opener.GetMaxMsgSize());  // the queue's sizes, not the ones asked for
    EXPECT_EQ(10u, secondCreator.GetQueueDepth());
    opener.ShutDown();
    EXPECT_EQ(10, Plain().mq_maxmsg);  // still there
    creator.ShutDown();
    EXPECT_EQ(0, Plain().mq_maxmsg);  // gone
    creator.ShutDown();               // does nothing more
    secondCreator.ShutDown();         // finds the name gone
    const std::string gone = "CNamedQ '" + name + "' create failed " + std::to_string(ENOENT) + " " + strerror(ENOENT);
    EXPECT_EQ((Lines{gone, Diag(sendFailed, EBADF), Diag("failed unlink errno = ", ENOENT)}), capture.Lines());
    EXPECT_EQ("", CNamedQ(name, false, 1ul << 60, 2).Receive(10));  // sizes no buffer
}

// A 64-byte slot holds 63 characters and the NUL that travels with them.
TEST_F(NamedQ, TextTravelsWithItsNulAndWaitsAreBounded)
{
    CNamedQ q(name, true, 64, 2);
    EXPECT_FALSE(q.Send(std::string(64, 'a')));
    ASSERT_TRUE(q.Send(std::string(63, 'a')) && q.Send("abc", 100));
    EXPECT_EQ(2u, q.GetMessageCount());
    const auto start = steady_clock::now();
    EXPECT_FALSE(q.Send("full", 0));
    EXPECT_LT(steady_clock::now() - start, 1000ms);
    EXPECT_FALSE(q.Send("full", 120));
    EXPECT_GE(steady_clock::now() - start, 115ms);
    EXPECT_EQ((Lines{Diag(sendFailed, EMSGSIZE), Diag(sendFailed, ETIMEDOUT), Diag(sendFailed, ETIMEDOUT)}),
              capture.Lines());
    EXPECT_EQ(std::string(63, 'a') + '\0', q.Receive(100));
    EXPECT_EQ(std::string("abc\0", 4), q.Receive(0));
    EXPECT_EQ("", q.Receive(50));                   // silent
    EXPECT_GE(steady_clock::now() - start, 165ms);  // the 120 ms above and these 50
    ASSERT_TRUE(q.Send("b"));
    q.Clear();
    EXPECT_EQ(0, Plain().mq_curmsgs);
}
