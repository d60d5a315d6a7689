// The capture FPGA's two status bytes on I2C: byte a (bits 0..1 resolution,
// bits 4..6 rate) at the status register and byte b (bit 4: locked) behind it.
//
// Settings: {"bus": n, "addr": eight-bit address, "reg": first status
// register}, as the board's "i2c_num", "dev_addr" and "reg_addr"; numbers or
// text such as "0x60".
// Source keys: {} nothing plugged in; {"a": byte, "b": byte} raw;
// {"width","height","framerate","interlace"} a format of the FPGA's tables
// (frame height; field rate for interlaced sources).
#pragma once

#include "sim/VirtualBoard.h"

namespace vsim {

class EmuFPGA : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<RegisterChip> chip() const { return regs; }

private:
    int reg = 0;
    std::shared_ptr<RegisterChip> regs;
};

}  // namespace vsim
