// Tests of CRs232 on pseudo-terminals: the slave side is the serial device,
// the master side plays the far end; line settings are read back with tcgetattr.
#include "KqRs232.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstring>

#include <pty.h>
#include <termios.h>
#include <unistd.h>

using KQ::CRs232;
using namespace std::chrono;

namespace {

// Each test gets a fresh pseudo-terminal, a port object and a capture of the printed lines.
class Rs232 : public ::testing::Test {
protected:
    Rs232() { openpty(&master, &slave, path, nullptr, nullptr); }
    ~Rs232() override
    {
        close(master);
        close(slave);
    }
    termios Line() const
    {
        termios t = {};
        tcgetattr(slave, &t);
        return t;
    }
    int master = -1, slave = -1;
    char path[128] = {};
    KqTest::HookCapture capture;
    CRs232 port;
};

}  // namespace

TEST_F(Rs232, OpenMakesARawLineAndCloseRestoresIt)
{
    EXPECT_FALSE(port.Open("/dev/kq-no-such-port", 115200, CRs232::eFlowNone));
    EXPECT_TRUE(port.Close());
    const std::pair<int, speed_t> speeds[] = {{9600, B9600},       {19200, B19200},   {38400, B38400},
                                              {57600, B57600},     {115200, B115200}, {230400, B230400},
                                              {460800, B460800},   {921600, B921600}, {1152000, B1152000},
                                              {1500000, B1500000}, {4800, B0},        {115201, B0}};
    const termios before = Line();
    for (size_t i = 0; i < sizeof speeds / sizeof speeds[0]; ++i) {
        SCOPED_TRACE(speeds[i].first);
        // none, hardware, software, unknown in turn: no flow control may stick to the next Open
        const auto flow = static_cast<CRs232::FlowControl_e>(i % 4);
        ASSERT_TRUE(port.Open(path, speeds[i].first, flow));
        EXPECT_FALSE(port.Open(path, 9600, CRs232::eFlowSoftware));  // refused, first settings kept
        termios t = Line();
        const bool software = flow == CRs232::eFlowSoftware;
        EXPECT_EQ(speeds[i].second | CS8 | CREAD | CLOCAL | (flow == CRs232::eFlowHardware ? CRTSCTS : 0u), t.c_cflag);
        EXPECT_EQ(IGNPAR | (software ? IXON | IXOFF : 0u), t.c_iflag);
        EXPECT_EQ(0u, t.c_oflag | t.c_lflag);
        const std::vector<int> cc = {t.c_cc[VMIN], t.c_cc[VTIME], t.c_cc[VSTART], t.c_cc[VSTOP]};
        EXPECT_EQ((std::vector<int>{1, 0, software ? 17 : 0, software ? 19 : 0}), cc);  // VMIN, VTIME, VSTART, VSTOP
        EXPECT_TRUE(port.Close());
        t = Line();  // flags, line discipline and control characters as before Open
        EXPECT_EQ(0, memcmp(&before, &t, offsetof(termios, c_cc) + sizeof t.c_cc));
    }
    EXPECT_EQ(std::vector<std::string>{"Error opening port: /dev/kq-no-such-port"}, capture.Lines());
}

TEST_F(Rs232, BytesPassUntranslatedAndTimedReadsWait)
{
    ASSERT_TRUE(port.Open(path, 115200, CRs232::eFlowNone));
    unsigned char out[] = {'a', '\n', 'b', 0x03, 0xFF};
    ASSERT_EQ(sizeof out, port.Write(KQ::CSlice<unsigned char>(out, sizeof out)));
    EXPECT_TRUE(port.Flush());
    char got[8];
    EXPECT_EQ(5, read(master, got, sizeof got));
    EXPECT_EQ(0, memcmp(out, got, 5));

    char in[4] = {};
    KQ::CSlice<unsigned char> slice(reinterpret_cast<unsigned char*>(in), sizeof in);
    const auto start = steady_clock::now();
    EXPECT_EQ(0u, port.Read(slice, 200));
    EXPECT_GE(steady_clock::now() - start, 190ms);
    ASSERT_EQ(6, write(master, "x\ry\x04z!", 6));
    EXPECT_EQ("x\ry\x04", std::string(in, port.Read(slice, 5000)));  // input waiting: at most m_Length bytes
    EXPECT_EQ("z!", std::string(in, port.Read(slice)));
}
