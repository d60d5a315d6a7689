// Register map of the IT6602-family receiver as this library uses it: the
// main page at the chip address, the EDID RAM page and the CEC page at the
// two further addresses. Only what the receiver state machine needs.
#pragma once

#include <cstdint>

namespace it6602 {

// Bus addresses, eight-bit form.
constexpr int kMainAddr = 146;
constexpr int kEdidAddr = 168;
constexpr int kCecAddr = 200;

// Identification: vendor word, then device word (low byte first).
constexpr uint8_t REG_ID0 = 0x00;  // 4 bytes
constexpr uint8_t kVendorLo = 0x54, kVendorHi = 0x49;
constexpr uint8_t kDev6602Lo = 0x02, kDev6602Hi = 0x66;
constexpr uint8_t kDev6801Lo = 0x01, kDev6801Hi = 0x68;

// Interrupt status per port, write 1 to clear.
constexpr uint8_t REG_INT_P0 = 0x04;
constexpr uint8_t REG_INT_P1 = 0x06;
constexpr uint8_t INT_5V_CHG = 0x01;
constexpr uint8_t INT_SCDT_CHG = 0x02;
constexpr uint8_t INT_AVI_CHG = 0x04;  // the picture description changed

// Resets: software, audio, CEC.
constexpr uint8_t REG_RST = 0x08;
constexpr uint8_t RST_SW = 0x01, RST_AUDIO = 0x02, RST_CEC = 0x04;

// Port status: 5 V, TMDS clock, sync (SCDT).
constexpr uint8_t REG_STATUS_P0 = 0x0A;
constexpr uint8_t REG_STATUS_P1 = 0x0B;
constexpr uint8_t STATUS_5V = 0x01, STATUS_CLK = 0x08, STATUS_SCDT = 0x80;

constexpr uint8_t REG_MODE = 0x13;  // bit 1: HDMI (clear: DVI)
constexpr uint8_t MODE_HDMI = 0x02;
constexpr uint8_t REG_HPD = 0x1C;     // bit n: hot-plug of port n
constexpr uint8_t REG_HWMUTE = 0x1D;  // bit 0: hardware mute clears itself

// Equaliser, port 0 block then port 1 block.
constexpr uint8_t REG_EQ_CTRL_P0 = 0x26;  // bit 7 auto EQ held, bit 5 manual value in use
constexpr uint8_t REG_EQ_VAL_P0 = 0x27;
constexpr uint8_t REG_ECC_P0 = 0x28;  // error count of the present EQ value
constexpr uint8_t REG_AMP_P0 = 0x29;  // amplitude the automatic EQ settled on
constexpr uint8_t REG_EQ_CTRL_P1 = 0x3E;
constexpr uint8_t REG_EQ_VAL_P1 = 0x3F;
constexpr uint8_t REG_ECC_P1 = 0x40;
constexpr uint8_t REG_AMP_P1 = 0x41;
constexpr uint8_t EQ_AUTO_HELD = 0x80, EQ_MANUAL = 0x20;

constexpr uint8_t REG_PORT = 0x51;        // bit 0: active port
constexpr uint8_t REG_VIDMUTE = 0x53;     // bit 7: video muted by the chip
constexpr uint8_t REG_AUD_LAYOUT = 0x54;  // bits 4..6
constexpr uint8_t REG_OUT_FMT = 0x65;     // output colour, YC swap, sync mode
constexpr uint8_t REG_OUT_CTRL = 0x6A;
constexpr uint8_t REG_AUD_CH = 0x7D;
constexpr uint8_t REG_OUT_DRV = 0x84;
constexpr uint8_t REG_OUT_EN = 0x88;  // bit 0: video output on

// Measurements.
constexpr uint8_t REG_VID_MODE = 0x99;  // bit 1 interlaced
constexpr uint8_t REG_PCLK = 0x9A;      // pixel clock count, 31620 / c * 100 kHz
constexpr uint8_t REG_HTOTAL_L = 0x9C, REG_HTOTAL_H = 0x9D;
constexpr uint8_t REG_HACT_L = 0x9E, REG_HACT_H = 0x9F;
constexpr uint8_t REG_HSYNC = 0xA0, REG_HBACK = 0xA1;
constexpr uint8_t REG_VTOTAL_L = 0xA3, REG_VHIGH = 0xA4, REG_VACT_L = 0xA5;
constexpr uint8_t REG_VSYNC = 0xA6, REG_VBACK = 0xA7;
constexpr uint8_t REG_POL = 0xA8;     // bit 3 horizontal, bit 0 vertical polarity
constexpr uint8_t REG_AVMUTE = 0xAA;  // bit 0: the source asks for AV mute
constexpr uint8_t REG_AVI_Q = 0xAB;   // bits 2..3 quantisation, 2 = full

// Input audio: bit 7 present, bit 6 high-bit-rate, bit 5 multichannel;
// the sample-rate code; channel status.
constexpr uint8_t REG_AUD_IN = 0xB0;     // 3 bytes
constexpr uint8_t REG_EDID_CTRL = 0xC0;  // bit 5: EDID RAM open to the bus

// CEC page: header, opcode, operand, length, command.
constexpr uint8_t CEC_HEADER = 0x10, CEC_OPCODE = 0x11, CEC_OPERAND = 0x12, CEC_LEN = 0x13;
constexpr uint8_t CEC_CMD = 0x08;
constexpr uint8_t CEC_FIRE = 0x01, CEC_RESET = 0x80;

// EQ values tried in turn.
constexpr uint8_t IT6602EQTable[3] = {0xFF, 0x9F, 0x83};

}  // namespace it6602
