// The LT8619C HDMI/DVI receiver on I2C bus 1 at 0x32 (eight-bit form), with
// its two register banks (0x80: receiver and infoframes, 0x60: measurement
// and output timing) selected through register 0xFF, and its EDID shadow
// behind the autoincrementing port 0x90.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "sim/VirtualBoard.h"

namespace vsim {

class EmuLT8619 : public ChipEmulator,
                  public I2cDevice,
                  public std::enable_shared_from_this<EmuLT8619> {
public:
    static constexpr uint8_t kAddr = 0x32;

    // Settings: "bus" (1), "addr" (eight-bit, 0x32), "chipId" (0x1604).
    void attach(const QVariantMap& settings) override;
    // What is plugged in; an empty map is nothing (no clock).
    //   "width", "height" (frame), "interlace", "framerate" (field rate,
    //   turned into the chip's frame length in 25 MHz ticks) or
    //   "frameCounter" (raw), "htotal", "vtotal" (frame totals),
    //   "hsyncWidth", "hbackPorch", "vsyncWidth", "vbackPorch",
    //   "hsyncPol", "vsyncPol";
    //   "hdmi" (true; false is DVI), "vic", "colorSpace" ("RGB",
    //   "YCbCr444", "YCbCr422" or the raw code), "quantisation" (0, 4
    //   limited, 8 full), "colorimetry", "extended", "depth", "repetition";
    //   "clock", "pll", "hsync" (all true): TMDS clock, PLL able to lock,
    //   horizontal sync stable;
    //   "syncDropAtCheck": N drops sync once, on the Nth read of the sync
    //   register after the first one that saw sync (the receiver's Nth
    //   stability check when it is counting).
    // Applying a source that keeps clock and sync changes the format without
    // a break in sync.
    void setSource(const QVariantMap& source) override;

    bool i2cWrite(const uint8_t* buf, size_t len) override;
    bool i2cRead(uint8_t* buf, size_t len) override;

    // Registers as last written (bank 0x80 or 0x60).
    uint8_t reg(uint8_t bank, uint8_t r) const;
    // Whether the library wrote the register since clearWrites().
    bool wrote(uint8_t bank, uint8_t r) const;
    void clearWrites();
    // How often the library read the sync status register (bank 0x80, 0x13).
    int syncReads() const;
    QByteArray edid() const;
    // Hot-plug level changes: (board clock time in microseconds, level).
    std::vector<std::pair<int64_t, bool>> hotPlug() const;

private:
    uint8_t readLocked(uint8_t r);
    void writeLocked(uint8_t r, uint8_t value);
    void loadTiming(const QVariantMap& s);

    mutable std::mutex lock;
    uint8_t bank = 0x80;
    uint8_t ptr = 0;
    std::map<uint8_t, std::array<uint8_t, 256>> banks;
    std::array<uint8_t, 256> edidShadow{};
    uint8_t edidPtr = 0;
    std::vector<std::pair<int64_t, bool>> hpd;
    std::set<std::pair<uint8_t, uint8_t>> written;

    bool clock = false, pll = false, hsync = false, hdmi = true, interlaced = false;
    bool pllArmed = false;  // the receiver restarted its PLL since the clock came
    int dropAt = 0;         // reads of 0x13 left until a one-shot drop, 0: none
    int syncReadCount = 0;
};

}  // namespace vsim
