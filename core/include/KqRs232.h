// KqRs232.h: one RS-232 serial port in raw 8N1 mode.
//
// CRs232 opens a serial device node, puts the line into raw 8N1 mode at one
// of a fixed set of speeds with optional hardware or software flow control,
// moves bytes through CSlice<unsigned char> views, and on closing puts back
// the line settings it found when it opened the device.
//
// Ownership: the object owns the device descriptor and both sets of line
// settings (kept in a separately allocated record) and is not copied. The
// destructor closes an open port and restores its settings.
//
// Failure: the only message is "Error opening port: <path>" through
// KQ::MyPrintf, when the device cannot be opened. Transfers report 0 bytes
// and Flush false on failure (also on a closed port); errno is left as the
// failing call set it.
//
// Thread-safety: none of its own. One thread may read while another writes;
// Open and Close must not race with anything else on the same object.
#pragma once

#include "KqCore.h"

#include <cstddef>
#include <string>

namespace KQ {

class KQ_API CRs232 : private CUncopyable {
public:
    // Flow control applied by Open. The underlying type is int, so any int
    // value is a valid (if unknown) flow control and means none.
    enum FlowControl_e : int {
        eFlowNone = 0,      // none (also any value other than 1 and 2)
        eFlowHardware = 1,  // RTS/CTS: CRTSCTS in the control flags
        eFlowSoftware = 2   // XON/XOFF: IXON | IXOFF, VSTART 17 (DC1), VSTOP 19 (DC3)
    };

    // No device open.
    CRs232();
    // Close(), then frees the record.
    ~CRs232();

    // True while a device is open.
    bool IsValid() const;

    // Opens device (O_RDWR | O_NOCTTY, blocking) and applies raw 8N1 at baud
    // in both directions: 9600, 19200, 38400, 57600, 115200, 230400, 460800,
    // 921600, 1152000 or 1500000; any other speed gives B0 (a hang-up request)
    // and still succeeds. Reads wait for at least one byte (VMIN 1, VTIME 0);
    // input that arrived before is discarded. Every Open starts from the
    // settings the constructor made, so no flow control of an earlier Open
    // remains. False, with "Error opening port: <device>", when the device
    // cannot be opened; false without a message when a port is open already
    // (that port stays open and untouched).
    bool Open(std::string device, int baud, FlowControl_e flow);

    // One read of at most slice.m_Length bytes into slice.m_pData, waiting for
    // the first byte; returns the bytes read, 0 on failure. The slice is
    // left unchanged.
    size_t Read(CSlice<unsigned char>& slice);
    // Waits at most milliseconds for input (0: no waiting), then reads once as
    // Read(slice); 0 on time-out or failure.
    size_t Read(CSlice<unsigned char>& slice, unsigned long milliseconds);
    // One write of the slice's bytes; returns the bytes written (a partial
    // write returns the smaller count, without retrying), 0 on failure.
    size_t Write(const CSlice<unsigned char>& slice);

    // Waits until all written output has been sent (tcdrain); discards
    // nothing. False on failure or when no port is open.
    bool Flush() const;

    // Restores the settings found at Open and closes the device. True when
    // closed or when no port was open; false when close fails, and then the
    // port stays open so a later Close (or the destructor) tries again.
    bool Close();

private:
    struct Handle_t;

    Handle_t* m_pHandle;  // descriptor, saved and applied line settings
};

}  // namespace KQ
