// The control block and requests of the TLV320AIC31 codec's kernel driver
// ("/dev/tlv320aic31"). Kept apart from the driver so that the board emulator
// reads the very same layout.
#pragma once

#include <cstdint>

// One block serves the whole start sequence; each request reads the fields it
// owns out of `bits`, the sample rate out of `samplerate`.
struct Tlv32Control {
    uint32_t bits;
    uint32_t extra;  // the kernel driver's; never touched here
    uint32_t samplerate;
};
static_assert(sizeof(Tlv32Control) == 12, "the kernel driver reads the rate at offset 8");

// The request numbers are plain small integers, not _IOW codes: that is what
// the kernel driver registered, so they are the same on every ABI.
constexpr unsigned long kTlv32Reset = 0x33;
constexpr unsigned long kTlv32TransMode = 0x34;

// Bits first..last of the control word.
constexpr uint32_t tlv32Bits(unsigned first, unsigned last)
{
    return uint32_t(((uint64_t(1) << (last - first + 1)) - 1) << first);
}
