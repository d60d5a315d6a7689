// The IT6602-family HDMI receiver behind a "TC7509" input: the main register
// page, the EDID RAM page and the CEC page, on an I2C bus or on the
// bit-banged bus.
//
// Settings: "bus" (I2C bus number, default 0), "addr" (main page, eight-bit
// form, default 146; the EDID and CEC pages sit at 168 and 200),
// "gpio_i2c" true with "index" (default -1, the unnumbered bus) for the
// bit-banged bus, "model" "IT6801" for that chip's ID.
// Source keys: {} nothing plugged in; "width", "height" (frame height),
// "framerate" (field rate when interlaced), "interlace", "full",
// "samplerate" (Hz, default 48000), "audio" (default true), "dvi",
// "port" (0 or 1), "sync" (false: power and clock without sync, as when
// the link needs its equaliser or during a brief drop), "htotal",
// "vtotal" (frame totals; by default those of the standard), "pclk_reg"
// (raw pixel-clock count), "eq_errors" [a, b, c]: error counts the chip
// shows while each of the three trial EQ values is set, "auto_eq_held".
#pragma once

#include <QVector>
#include <array>

#include "sim/VirtualBoard.h"

namespace vsim {

class It6602Core;

class EmuIT6602 : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;

    uint8_t reg(uint8_t r) const;
    bool hpd(int port) const;
    QByteArray edid() const;
    // CEC frames sent: header, opcode, operand.
    QVector<std::array<uint8_t, 3>> cecFrames() const;

private:
    std::shared_ptr<It6602Core> core;
};

}  // namespace vsim
