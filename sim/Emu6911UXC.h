// The 6911UXC HDMI receiver: page-selected registers at 0x56 (eight-bit form)
// on bus "bus" (default 1), register 0xFF choosing the page, and an interrupt
// line ("gpio", default "GPIO1_0") that rises when a source comes and falls
// when it goes; a new format while a source is there pulses it low for
// 100 ms.
//
// Page 0x86 shows half the width, the totals and the lines (of one field
// when interlaced) while page 0x80 register 0xEE is 1; page 0x85 registers
// 0x48-0x4A hold the 20-bit pixel-clock count once 0x40 = 0x21 started a
// measurement. A "source" takes "width", "height" (of the frame),
// "framerate", "interlace", and optionally "htotal", "vtotal" or a raw
// "count"; {} is no source.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/VirtualBoard.h"

namespace vsim {

class Paged6911 : public I2cDevice {
public:
    bool i2cWrite(const uint8_t* buf, size_t len) override;
    bool i2cRead(uint8_t* buf, size_t len) override;

    void setTiming(int halfWidth, int htotal, int vtotal, int lines, int count);
    // Every register write as (page << 8 | register, value).
    std::vector<std::pair<uint16_t, uint8_t>> writes() const;

private:
    uint8_t readLocked(uint8_t r) const;

    mutable std::mutex lock;
    uint8_t page = 0;
    uint8_t ptr = 0;
    std::array<std::array<uint8_t, 256>, 256> regs{};
    int halfWidth = 0, htotal = 0, vtotal = 0, lines = 0, count = 0;
    bool measured = false;
    std::vector<std::pair<uint16_t, uint8_t>> log;
};

class Emu6911UXC : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<Paged6911> chip() const { return regs; }

private:
    std::shared_ptr<Paged6911> regs;
    int group = 1, pin = 0;
    void signal(int64_t now);

    bool raised = false;
    int64_t lastEdge = 0;
};

}  // namespace vsim
