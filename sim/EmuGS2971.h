// The SDI deserialiser's kernel driver, "/dev/GV2971A": 16-bit registers
// reached by read (0x11) and write (0x22) requests. Register 1 holds the
// output enables, registers 6 and 7 the detected standard in bits 8..13.
//
// Settings: none.
// Source keys: {} nothing plugged in (code 63, which no standard has);
// {"code6": n, "code7": m} raw codes (code7 defaults to code6);
// {"width","height","framerate","interlace"} a standard by its format, the
// frame height and, for interlaced sources, the field rate;
// {"silent": true} the device fails every request.
#pragma once

#include <array>

#include "sim/VirtualBoard.h"

namespace vsim {

class Gs2971Device : public Device {
public:
    Gs2971Device();
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;

    uint16_t reg(uint8_t r) const;
    void setReg(uint8_t r, uint16_t value);
    void setSilent(bool silent);
    // Every write request, in order: (register, value).
    std::vector<std::pair<uint8_t, uint16_t>> writes() const;

private:
    mutable std::mutex lock;
    std::array<uint16_t, 256> regs{};
    std::vector<std::pair<uint8_t, uint16_t>> log;
    bool silent = false;
};

class EmuGS2971 : public ChipEmulator {
public:
    static constexpr int kNoSignal = 63;

    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<Gs2971Device> device() const { return dev; }

private:
    std::shared_ptr<Gs2971Device> dev;
};

}  // namespace vsim
