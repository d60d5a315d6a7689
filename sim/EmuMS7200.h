// The MS7200 HDMI receiver: 16-bit register numbers, 8-bit values, on the
// plain I2C bus or the bit-banged one. It answers the identification and
// scratch registers, reports the TMDS clock, raises clock, mode-detect and
// packet events when its source changes, measures the timing, gives error
// counts per equaliser setting from a scenario-set eye, and carries N and
// CTS for the source's audio rate. Info-frame events clear when the library
// clears them and come back with the next frame (a field time later, on the
// board's clock while a test holds it).
//
// Settings: "chip_addr" 144 (device 0x56) or 146 (0xB2, the default),
// "i2c_num" (bus, default 0), "gpio_i2c" (true: /dev/gpio_i2c).
// Source keys: {} nothing plugged in; "width", "height" (frame height),
// "framerate" (field rate when "interlace"), "interlace", "samplerate" (Hz,
// default 48000, 0 for no audio), "colorSpace" (the AVI colour space, 0 RGB,
// 1 YCbCr 4:2:2, 2 YCbCr 4:4:4); "eye" [low, high]: the clean gains of 2..7
// (default [3, 5]); "eye28" [low, high]: the clean 28-step indices (default
// [9, 15]); "tmdsRaw": the raw clock word instead of the source's;
// "countersInvalid": no error counter is ever valid; "noLock": the PLL
// never locks; "measureZero": every timing measurement reads 0.
#pragma once

#include "sim/VirtualBoard.h"

namespace vsim {

class Ms7200Chip : public RegisterChip {
public:
    Ms7200Chip();
    bool i2cRead(uint8_t* buf, size_t len) override;
    void setSource(const QVariantMap& source);
    uint32_t word(uint16_t r) const;
    void setWord(uint16_t r, uint32_t value);

protected:
    void onWrite(uint16_t r, uint8_t value) override;

private:
    void setWordLocked(uint16_t r, uint32_t value);
    uint32_t wordLocked(uint16_t r) const;
    void updateCounters();
    static int64_t boardUs();

    QVariantMap src;
    bool present = false;
    bool countersInvalid = false;
    bool locked = false;
    int eyeLo = 3, eyeHi = 5, eye28Lo = 9, eye28Hi = 15;
    bool eq28Mode = false;
    uint32_t pktEveryFrame = 0;  // the info frames the source sends
    double fieldRate = 0;
    bool pktCleared = false;  // some of them cleared, the next frame not yet in
    bool clearedHeld = false;
    int64_t clearedUs = 0;
};

class EmuMS7200 : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<Ms7200Chip> chip() const { return dev; }

private:
    std::shared_ptr<Ms7200Chip> dev;
};

}  // namespace vsim
