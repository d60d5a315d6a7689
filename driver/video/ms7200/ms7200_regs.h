// Register numbers of the MS7200 as this stack uses them. Byte registers
// hold 8-bit values; word registers are 32-bit little-endian words over four
// consecutive byte registers.
#pragma once

#include <cstdint>

namespace ms7200reg {

// Identification.
constexpr uint16_t kChipId0 = 0x0000;
constexpr uint16_t kChipId1 = 0x0001;  // 32 on this chip
constexpr uint16_t kScratch = 0x0004;

// Pads, hot-plug, 5 V detect, EDID RAM.
constexpr uint16_t kPadCtrl = 0x0010;
constexpr uint16_t kPadDrive = 0x0011;  // bits 0-1 pixel clock, 2-3 data
constexpr uint16_t kCscCtrl = 0x0012;
constexpr uint16_t kHpd = 0x0018;       // bit 0 hot-plug high
constexpr uint16_t kRx5v = 0x0019;      // bit 0 5 V present
constexpr uint16_t kEdidCtrl = 0x001A;  // bit 0 EDID RAM open for writing
constexpr uint16_t kEdidRam = 0x0100;   // 256 bytes

// Digital video out.
constexpr uint16_t kDvoutMode = 0x0020;
constexpr uint16_t kDvoutCfg = 0x0021;     // three bytes
constexpr uint16_t kDvoutEnable = 0x0024;  // bit 0 video, bit 1 audio

// Audio PLL.
constexpr uint16_t kAupllCtrl = 0x0400;  // bit 0 reset, bit 1 enable, bits 4-5 clock source
constexpr uint16_t kAupllInt = 0x0401;
constexpr uint16_t kAupllFrac0 = 0x0402;
constexpr uint16_t kAupllFrac1 = 0x0403;
constexpr uint16_t kAupllFrac2 = 0x0404;  // low nibble
constexpr uint16_t kAupllDiv = 0x0406;    // low bits: d
constexpr uint16_t kAupllPre = 0x0407;    // p

// Receiver PHY.
constexpr uint16_t kPhyPower = 0x1000;  // bit 0 on
constexpr uint16_t kPhyRange = 0x1001;  // 1 above 20000 (10 kHz)
constexpr uint16_t kPhyPll = 0x1002;
constexpr uint16_t kPhyMixer = 0x1003;
constexpr uint16_t kPhyRelease = 0x1004;
constexpr uint16_t kPhyPllStatus = 0x1005;  // bit 0 locked; writing 1 clears the sticky bits
constexpr uint16_t kEqGain0 = 0x1010;       // one per channel, 0..7
constexpr uint16_t kEq28Gain0 = 0x1018;     // two per channel, four nibbles
constexpr uint16_t kFifoReset = 0x1020;
constexpr uint16_t kCdrReset = 0x1021;
constexpr uint16_t kErrDetClear = 0x1022;
constexpr uint16_t kErrCount0 = 0x1024;  // three 16-bit counts; bit 15 valid
constexpr uint16_t kOffset0 = 0x1030;    // one per channel: low nibble negative, high positive
constexpr uint16_t kOffsetCmp = 0x1034;  // bit n: channel n comparator flipped
constexpr uint16_t kHdcpDetect = 0x1040;

// Controller (word registers).
constexpr uint16_t kCtrlReset = 0x2004;
constexpr uint16_t kTmdsClock = 0x2090;  // low 16 bits raw, 0x20000 valid
constexpr uint16_t kHdmiStatus = 0x2100;
constexpr uint16_t kHdmiStatusClr = 0x2104;
constexpr uint16_t kMdtStatus = 0x2110;
constexpr uint16_t kMdtStatusClr = 0x2114;
constexpr uint16_t kPktStatus = 0x2120;
constexpr uint16_t kPktStatusClr = 0x2124;
constexpr uint16_t kMdtSync = 0x2140;    // bits 0 and 1: both syncs valid
constexpr uint16_t kMdtPol = 0x2144;     // bit 0 progressive, bits 1-2 polarities
constexpr uint16_t kMdtPeriod = 0x2148;  // high half: line period in 432 MHz ticks
constexpr uint16_t kMdtH = 0x214C;       // low total, high active
constexpr uint16_t kMdtV = 0x2150;       // low total, high active (per field)
constexpr uint16_t kMdtHBlank = 0x2154;  // low offset, high sync width
constexpr uint16_t kMdtVBlank = 0x2158;  // low back porch plus sync, high sync width
constexpr uint16_t kAudioFifo = 0x2160;
constexpr uint16_t kAcrN = 0x2300;
constexpr uint16_t kAcrCts = 0x2304;
constexpr uint16_t kAudioClkCfg = 0x2364;  // bit 3: the PLL runs at double rate
constexpr uint16_t kAviInfo = 0x2400;      // 14 bytes
constexpr uint16_t kVsiInfo = 0x2420;      // 4 bytes
constexpr uint16_t kAifInfo = 0x2440;      // 8 bytes
constexpr uint16_t kHdmiMode = 0x2460;     // bit 0 HDMI, not DVI

// Events.
constexpr uint32_t kEvClockChange = 0x40;
constexpr uint32_t kEvClockHow = 0x30;
constexpr uint32_t kEvClockStable = 0x10;
constexpr uint32_t kEvHdmiMask = 0x70;
constexpr uint32_t kEvMdtMask = 0x3000;
constexpr uint32_t kEvMdtH = 0x1000;
constexpr uint32_t kEvPktAvi = 0x40000;
constexpr uint32_t kEvPktVsi = 0x80000;
constexpr uint32_t kEvPktVsi2 = 0x8000;
constexpr uint32_t kEvPktChange = 0x0B000000;
constexpr uint32_t kEvPktAcr = 0xC00000;
constexpr uint32_t kEvPktMask = 0x0BCC8000;

}  // namespace ms7200reg
