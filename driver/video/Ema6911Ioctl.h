// The status request of the HDMI capture kernel driver ("/dev/hdmicapture").
// Kept apart from the driver so that the board emulator answers with the very
// same layout.
#pragma once

#include <cstdint>

struct Ema6911Request {
    // Bits 2..9: the format index, kEma6911NoSignal when nothing is locked.
    uint16_t status;
    // Low nibble: the input asked about. The kernel driver ignores the rest.
    uint8_t port;
    // Frames per second as the chip measures them, unrounded.
    uint8_t framerate;
};
static_assert(sizeof(Ema6911Request) == 4, "the kernel driver expects four bytes");

// The request number is a plain 0, not an _IOWR code: that is what the kernel
// driver registered.
constexpr unsigned long kEma6911GetStatus = 0;
constexpr unsigned kEma6911NoSignal = 0xFF;

inline unsigned ema6911Index(uint16_t status)
{
    return (status >> 2) & 0xFF;
}
inline uint16_t ema6911Status(unsigned index)
{
    return uint16_t((index & 0xFF) << 2);
}
