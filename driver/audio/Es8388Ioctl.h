// The control word and requests of the ES8388 codec's kernel driver
// ("/dev/es8388"). Kept apart from the driver so that the board emulator
// reads the very same layout.
#pragma once

#include <sys/ioctl.h>

#include <cstdint>

// Every request writes one 32-bit word of bit fields.
using Es8388Word = uint32_t;

// 0x400445nn on the board's 32-bit ABI.
constexpr unsigned long es8388Request(unsigned nr)
{
    return _IOW('E', nr, Es8388Word);
}
constexpr unsigned long kEs8388Reset = es8388Request(0x23);

constexpr uint32_t kEs8388InputShift = 3;
constexpr uint32_t kEs8388InputMask = 0x3u << kEs8388InputShift;
constexpr uint32_t kEs8388LevelShift = 17;  // bits 17..24
constexpr uint32_t kEs8388LevelMask = 0xFFu << kEs8388LevelShift;
