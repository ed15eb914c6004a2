// KqRs232.cpp: CRs232 on a termios serial device (Linux).
#include "KqRs232.h"

#include "KqOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace KQ {

struct CRs232::Handle_t {
    int fd;
    termios savedSettings;  // found at Open, put back by Close
    termios settings;       // applied by Open
};

namespace {

const int NO_DEVICE = -1;
const cc_t DC1 = 17;  // XON
const cc_t DC3 = 19;  // XOFF

// The settings every Open starts from: 115200 8N1, receiver on, modem lines
// ignored, a 1 s read time-out with no minimum, no speeds set.
termios InitialSettings()
{
    termios settings = {};
    settings.c_iflag = IGNPAR;
    settings.c_oflag = 0;
    settings.c_cflag = B115200 | CS8 | CREAD | CLOCAL;
    settings.c_lflag = 0;
    settings.c_line = 0;
    settings.c_cc[VTIME] = 10;
    settings.c_cc[VMIN] = 0;
    return settings;
}

// The speed code for a line speed in bits per second; B0 for any speed
// outside the supported set.
speed_t SpeedCode(int baud)
{
    static const struct {
        int baud;
        speed_t code;
    } table[] = {
        {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
        {115200, B115200},   {230400, B230400},   {460800, B460800},   {921600, B921600},
        {1152000, B1152000}, {1500000, B1500000},
    };
    for (const auto& entry : table) {
        if (entry.baud == baud) {
            return entry.code;
        }
    }
    return B0;
}

// Raw 8N1: no input translation or output processing, no canonical mode,
// echo or signal characters; a read returns once at least one byte is there.
void MakeRaw8N1(termios& settings)
{
    settings.c_iflag = IGNPAR;
    settings.c_oflag = 0;
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB);
    settings.c_cflag |= CS8;
    settings.c_lflag = 0;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
}

void AddFlowControl(termios& settings, CRs232::FlowControl_e flow)
{
    if (flow == CRs232::eFlowHardware) {
        settings.c_cflag |= CRTSCTS;
    } else if (flow == CRs232::eFlowSoftware) {
        settings.c_iflag |= IXON | IXOFF;
        settings.c_cc[VSTART] = DC1;
        settings.c_cc[VSTOP] = DC3;
    }
}

// A negative system-call result counts as 0 bytes.
size_t ByteCount(ssize_t result) { return result > 0 ? static_cast<size_t>(result) : 0; }

}  // namespace

CRs232::CRs232() : m_pHandle(new Handle_t{NO_DEVICE, InitialSettings(), InitialSettings()}) {}

CRs232::~CRs232()
{
    Close();
    delete m_pHandle;
}

bool CRs232::IsValid() const { return m_pHandle->fd != NO_DEVICE; }

bool CRs232::Open(std::string device, int baud, FlowControl_e flow)
{
    // A second Open would lose the first device's saved settings.
    if (IsValid()) {
        return false;
    }
    m_pHandle->fd = open(device.c_str(), O_RDWR | O_NOCTTY);
    if (m_pHandle->fd == NO_DEVICE) {
        MyPrintf("Error opening port: %s", device.c_str());
        return false;
    }
    tcgetattr(m_pHandle->fd, &m_pHandle->savedSettings);

    termios& settings = m_pHandle->settings;
    settings = InitialSettings();
    const speed_t code = SpeedCode(baud);
    cfsetispeed(&settings, code);
    cfsetospeed(&settings, code);
    MakeRaw8N1(settings);
    AddFlowControl(settings, flow);

    tcflush(m_pHandle->fd, TCIFLUSH);
    tcsetattr(m_pHandle->fd, TCSANOW, &settings);
    return true;
}

size_t CRs232::Read(CSlice<unsigned char>& slice)
{
    return ByteCount(read(m_pHandle->fd, slice.m_pData, slice.m_Length));
}

size_t CRs232::Read(CSlice<unsigned char>& slice, unsigned long milliseconds)
{
    pollfd input = {m_pHandle->fd, POLLIN, 0};
    if (poll(&input, 1, static_cast<int>(milliseconds)) <= 0) {
        return 0;
    }
    return (input.revents & POLLIN) != 0 ? Read(slice) : 0;
}

size_t CRs232::Write(const CSlice<unsigned char>& slice)
{
    return ByteCount(write(m_pHandle->fd, slice.m_pData, slice.m_Length));
}

bool CRs232::Flush() const { return tcdrain(m_pHandle->fd) == 0; }

bool CRs232::Close()
{
    if (!IsValid()) {
        return true;
    }
    tcsetattr(m_pHandle->fd, TCSANOW, &m_pHandle->savedSettings);
    if (close(m_pHandle->fd) != 0) {
        return false;
    }
    m_pHandle->fd = NO_DEVICE;
    return true;
}

}  // namespace KQ
