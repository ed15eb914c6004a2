// Tests of CRs232 on pseudo-terminals: the slave side is the serial device,
// the master side plays the far end; line settings are read back with tcgetattr.
#include "KqRs232.h"
#include "KqTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

using KQ::CRs232;
using KQ::CSlice;
using Clock = std::chrono::steady_clock;

namespace {

class Pty {
public:
    Pty() { openpty(&m_Master, &m_Slave, m_Path, nullptr, nullptr); }
    ~Pty()
    {
        close(m_Master);
        close(m_Slave);
    }
    std::string Path() const { return m_Path; }
    termios Settings() const
    {
        termios t = {};
        tcgetattr(m_Slave, &t);
        return t;
    }
    void Apply(const termios& t) const { tcsetattr(m_Slave, TCSANOW, &t); }
    // What the far end received within a short wait.
    std::string Received() const
    {
        pollfd in = {m_Master, POLLIN, 0};
        char buffer[256];
        const ssize_t n = poll(&in, 1, 1000) == 1 ? read(m_Master, buffer, sizeof buffer) : 0;
        return std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    }
    void SendFromFarEnd(const std::string& bytes) const { ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m_Master, bytes.data(), bytes.size())); }

private:
    int m_Master = -1;
    int m_Slave = -1;
    char m_Path[128] = {};
};

bool SameSettings(const termios& a, const termios& b)
{
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag && a.c_lflag == b.c_lflag &&
           memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0 && cfgetispeed(&a) == cfgetispeed(&b) && cfgetospeed(&a) == cfgetospeed(&b);
}

long MillisecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

TEST(Rs232Open, MissingDeviceFailsWithMessage)
{
    KqTest::HookCapture capture;
    CRs232 port;
    EXPECT_FALSE(port.Open("/dev/kq-no-such-port", 115200, CRs232::eFlowNone));
    EXPECT_FALSE(port.IsValid());
    EXPECT_EQ(std::vector<std::string>{"Error opening port: /dev/kq-no-such-port"}, capture.Lines());
    unsigned char byte = 0;
    CSlice<unsigned char> slice(&byte, 1);
    EXPECT_EQ(0u, port.Read(slice));
    EXPECT_EQ(0u, port.Write(slice));
    EXPECT_FALSE(port.Flush());
    EXPECT_TRUE(port.Close());
}

TEST(Rs232Open, RawLineAtEachSpeed)
{
    const struct {
        int baud;
        speed_t code;
    } cases[] = {{9600, B9600},     {19200, B19200},     {38400, B38400},       {57600, B57600},
                 {115200, B115200}, {230400, B230400},   {460800, B460800},     {921600, B921600},
                 {1152000, B1152000}, {1500000, B1500000}, {4800, B0}, {0, B0}, {115201, B0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.baud);
        Pty pty;
        CRs232 port;
        ASSERT_TRUE(port.Open(pty.Path(), c.baud, CRs232::eFlowNone));
        const termios t = pty.Settings();
        EXPECT_EQ(c.code, cfgetispeed(&t));
        EXPECT_EQ(c.code, cfgetospeed(&t));
        EXPECT_EQ(c.code | CS8 | CREAD | CLOCAL, t.c_cflag);
        EXPECT_EQ(static_cast<tcflag_t>(IGNPAR), t.c_iflag);
        EXPECT_EQ(0u, t.c_oflag);
        EXPECT_EQ(0u, t.c_lflag);
        EXPECT_EQ(1, t.c_cc[VMIN]);
        EXPECT_EQ(0, t.c_cc[VTIME]);
    }
}

TEST(Rs232Open, FlowControlAppliesToOneOpenOnly)
{
    Pty pty;
    CRs232 port;
    ASSERT_TRUE(port.Open(pty.Path(), 9600, CRs232::eFlowHardware));
    EXPECT_EQ(B9600 | CS8 | CREAD | CLOCAL | CRTSCTS, pty.Settings().c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(IGNPAR), pty.Settings().c_iflag);
    ASSERT_TRUE(port.Close());
    ASSERT_TRUE(port.Open(pty.Path(), 9600, CRs232::eFlowSoftware));
    termios t = pty.Settings();
    EXPECT_EQ(B9600 | CS8 | CREAD | CLOCAL, t.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(IGNPAR | IXON | IXOFF), t.c_iflag);
    EXPECT_EQ(17, t.c_cc[VSTART]);
    EXPECT_EQ(19, t.c_cc[VSTOP]);
    ASSERT_TRUE(port.Close());
    ASSERT_TRUE(port.Open(pty.Path(), 9600, static_cast<CRs232::FlowControl_e>(7)));
    t = pty.Settings();
    EXPECT_EQ(B9600 | CS8 | CREAD | CLOCAL, t.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(IGNPAR), t.c_iflag);
    EXPECT_EQ(0, t.c_cc[VSTART]);
    EXPECT_EQ(0, t.c_cc[VSTOP]);
}

TEST(Rs232Open, SecondOpenIsRefusedAndKeepsTheFirstDevice)
{
    Pty first, second;
    const termios secondBefore = second.Settings();
    CRs232 port;
    ASSERT_TRUE(port.Open(first.Path(), 19200, CRs232::eFlowHardware));
    EXPECT_FALSE(port.Open(second.Path(), 9600, CRs232::eFlowNone));
    EXPECT_TRUE(port.IsValid());
    EXPECT_TRUE(SameSettings(secondBefore, second.Settings()));
    EXPECT_EQ(B19200 | CS8 | CREAD | CLOCAL | CRTSCTS, first.Settings().c_cflag);
    unsigned char byte = 'k';
    EXPECT_EQ(1u, port.Write(CSlice<unsigned char>(&byte, 1)));
    EXPECT_EQ("k", first.Received());
}

TEST(Rs232Close, RestoresTheSettingsFoundAtOpen)
{
    Pty pty;
    const termios before = pty.Settings();
    CRs232 port;
    ASSERT_TRUE(port.Open(pty.Path(), 57600, CRs232::eFlowSoftware));
    ASSERT_FALSE(SameSettings(before, pty.Settings()));
    EXPECT_TRUE(port.Close());
    EXPECT_FALSE(port.IsValid());
    EXPECT_TRUE(SameSettings(before, pty.Settings()));
    EXPECT_TRUE(port.Close());
    {
        CRs232 scoped;
        ASSERT_TRUE(scoped.Open(pty.Path(), 9600, CRs232::eFlowHardware));
    }
    EXPECT_TRUE(SameSettings(before, pty.Settings()));
}

TEST(Rs232Transfer, BytesPassUntranslated)
{
    Pty pty;
    termios quiet = pty.Settings();
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);  // the far end must not see its own bytes
    pty.Apply(quiet);
    pty.SendFromFarEnd("stale\n");  // arrived before Open: discarded
    CRs232 port;
    ASSERT_TRUE(port.Open(pty.Path(), 115200, CRs232::eFlowNone));
    unsigned char out[] = {'a', '\n', 'b', 0x03, 0xFF};
    CSlice<unsigned char> outSlice(out, sizeof out);
    EXPECT_EQ(sizeof out, port.Write(outSlice));
    EXPECT_TRUE(port.Flush());
    EXPECT_EQ(std::string("a\nb\x03\xFF", 5), pty.Received());

    unsigned char in[4] = {};
    CSlice<unsigned char> inSlice(in, sizeof in);
    EXPECT_EQ(0u, port.Read(inSlice, 0));
    pty.SendFromFarEnd("x\ry\x04z!");
    const Clock::time_point start = Clock::now();
    ASSERT_EQ(4u, port.Read(inSlice, 2000));  // input waiting: at once, at most m_Length bytes
    EXPECT_LT(MillisecondsSince(start), 1000);
    EXPECT_EQ(0, memcmp("x\ry\x04", in, 4));
    EXPECT_EQ(in, inSlice.m_pData);
    EXPECT_EQ(4u, inSlice.m_Length);
    EXPECT_EQ(2u, port.Read(inSlice));
    EXPECT_EQ(0, memcmp("z!", in, 2));
}

TEST(Rs232Transfer, ReadsWaitForInput)
{
    Pty pty;
    CRs232 port;
    ASSERT_TRUE(port.Open(pty.Path(), 115200, CRs232::eFlowNone));
    unsigned char in[8] = {};
    CSlice<unsigned char> slice(in, sizeof in);
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0u, port.Read(slice, 200));
    EXPECT_GE(MillisecondsSince(start), 190);
    EXPECT_LT(MillisecondsSince(start), 200 + 2000);

    std::thread farEnd([&pty] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pty.SendFromFarEnd("q");
    });
    start = Clock::now();
    EXPECT_EQ(1u, port.Read(slice));  // VMIN 1: returns with the first byte
    EXPECT_GE(MillisecondsSince(start), 90);
    EXPECT_EQ('q', in[0]);
    farEnd.join();
}
