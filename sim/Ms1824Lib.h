// The MS1824 scaler on the virtual board: the chip on I2C bus 1 at 0xB2
// (seven-bit 0x59), and a stand-in of the host's closed ms1824_* library
// that works it back through the mculib_* bus functions of libVeskIO.
//
// Chip type "MS1824". Settings: "bus" (default 1).
// Source keys: the VIC seen on each kind of input, 255 or absent for none:
// "ypbpr", "vga", "cvbs", "tmds"; {"silent": true} the chip no longer
// acknowledges its address.
//
// The stand-in's registers (16-bit numbers): 0x0000-0x0001 the chip id
// 0x18 0x24; 0x0100 + source kind bit 0 input locked; 0x0110 + source kind
// the detected VIC; 0x0200 the last paths taken into use by a trigger;
// 0x0210 + path bit 0 the path's video frozen; 0x8000-0xBFFF and
// 0xC000-0xFFFF the frame memory of paths 0 and 1, which holds what is
// written to it only while its path is frozen (a running path reads back
// whatever picture passes). The library asks the lock first and reads the
// VIC only when locked, so a chip that never answers reads as VIC 255.
#pragma once

#include <QStringList>
#include <mutex>
#include <vector>

#include "frame/ms1824.h"
#include "sim/VirtualBoard.h"

namespace vsim {

class EmuMS1824 : public ChipEmulator {
public:
    static constexpr uint8_t kAddr = 0xB2;
    static constexpr uint16_t kLock = 0x0100;
    static constexpr uint16_t kVic = 0x0110;
    static constexpr uint16_t kTrigger = 0x0200;
    static constexpr uint16_t kFreeze = 0x0210;
    static constexpr uint16_t kFrameMemory = 0x8000;

    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<RegisterChip> registers() const { return regs; }

private:
    int bus = 1;
    std::shared_ptr<RegisterChip> regs;
};

// What the stand-in library was asked to do.
class Ms1824Lib {
public:
    static Ms1824Lib& instance();

    // Every configuration call, in order, as "name(arguments)"; queries
    // (get_vic, get_std_timing) are not kept.
    QStringList calls() const;
    void clear();
    // Forgets the calls and what the driver told the library (a new board).
    void reset();

    void record(const QString& call);
    void setUserTable(const ms1824_timing_t* table, uint8_t count);
    bool userTiming(uint8_t index, ms1824_timing_t* out) const;

private:
    mutable std::mutex lock;
    QStringList log;
    std::vector<ms1824_timing_t> user;
};

}  // namespace vsim
