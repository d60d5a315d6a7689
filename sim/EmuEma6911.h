// The HDMI capture chip's kernel driver, "/dev/hdmicapture": one device for
// every port, answering status request 0 for the port the request names.
// Each emulator instance is one port and shares the device with the others.
//
// Settings: {"addr": port}, as the board's "addr" (low nibble; number or
// text such as "0x1").
// Source keys: {} nothing plugged in; {"width","height","framerate"} a
// format of the chip's table (3840x2160 included); {"index": n,
// "framerate": r} a raw format index; {"status": word, "framerate": r} the
// raw 16-bit status word.
#pragma once

#include <array>

#include "sim/VirtualBoard.h"

namespace vsim {

class HdmiCaptureDevice : public Device {
public:
    HdmiCaptureDevice();
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;
    void setPort(int port, uint16_t status, uint8_t framerate);
    // Requests answered so far, for tests that check the open-per-pass rule.
    int requests() const;

private:
    struct Port {
        uint16_t status;
        uint8_t framerate;
    };
    mutable std::mutex lock;
    std::array<Port, 16> ports;
    int count = 0;
};

class EmuEma6911 : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<HdmiCaptureDevice> device() const { return dev; }

private:
    int port = 0;
    std::shared_ptr<HdmiCaptureDevice> dev;
};

}  // namespace vsim
