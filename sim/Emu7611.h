// The HDMI receiver with its register maps on I2C bus 1, one map per
// eight-bit device address the chip answers on (0x22, 0x32, 0x34, 0x36, 0x4C).
#pragma once

#include "sim/VirtualBoard.h"

namespace vsim {

class Emu7611 : public ChipEmulator {
public:
    // Eight-bit forms, as board documents and drivers write them.
    static constexpr uint8_t kIo = 0x4C, kCp = 0x22, kHdmi = 0x34, kRepeater = 0x32, kEdid = 0x36;

    void attach(const QVariantMap& settings) override;
    // {"width","height","framerate","interlace","full"} or {"divisor": raw};
    // "height" is the frame height; empty: no source.
    void setSource(const QVariantMap& source) override;

    std::shared_ptr<RegisterChip> map(uint8_t addr8) const;
    QByteArray edid() const;

private:
    int bus = 1;
    std::map<uint8_t, std::shared_ptr<RegisterChip>> maps;
};

}  // namespace vsim
