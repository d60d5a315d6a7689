// The control process of the IT6604 inputs, as far as the library sees it:
// the per-input records in System V shared memory (key 0x3B72, eight records
// of seven 32-bit words). The segment is real and outlives the emulator:
// the library keeps it attached for the life of the process, so whoever
// built the board removes it (removeSegment) when done.
//
// Settings: {"addr": input index 0..7}, as the board's "addr".
// Source keys: {} nothing plugged in (the record is cleared);
// {"width","height","framerate","interlace"} with the frame height and the
// rate in Hz (59.94 allowed); raw overrides {"rate": hundredths of Hz,
// "lock": word}.
#pragma once

#include "sim/VirtualBoard.h"

namespace vsim {

class Emu6604 : public ChipEmulator {
public:
    static constexpr int kKey = 0x3B72;
    static constexpr size_t kRecord = 28;
    static constexpr int kInputs = 8;
    static constexpr size_t kSize = kRecord * kInputs;

    ~Emu6604() override;
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    // Marks the segment for removal; it goes once the last process detaches.
    // For whoever built the board (a test, the host) when it is done.
    static void removeSegment();
    // Word n of this input's record.
    int32_t word(int n) const;

private:
    int input = 0;
    uint8_t* seg = nullptr;
};

}  // namespace vsim
