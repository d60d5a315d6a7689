// Register access through the SDI deserialiser's kernel driver
// ("/dev/GV2971A"). Kept apart from the driver so that the board emulator
// answers with the very same layout.
#pragma once

#include <cstdint>

struct Gs2971Request {
    uint32_t reserved;  // always 0
    uint8_t command;    // kGs2971CmdRead or kGs2971CmdWrite
    uint8_t reg;
    uint16_t value;
};
static_assert(sizeof(Gs2971Request) == 8, "the kernel driver expects eight bytes");

constexpr unsigned long kGs2971Read = 0x11;
constexpr unsigned long kGs2971Write = 0x22;
constexpr uint8_t kGs2971CmdRead = 0x80;
constexpr uint8_t kGs2971CmdWrite = 0x00;

// Registers 6 and 7 carry the detected standard in bits 8..13.
inline int gs2971Code(unsigned value)
{
    return int((value >> 8) & 0x3F);
}
