// The board's audio codecs.
//
// "tlv32": the TLV320AIC31's kernel driver "/dev/tlv320aic31", which records
// every request with its control block, and the chip's registers at device
// 0x30 on the bit-banged bus "/dev/gpio_i2c".
// "ES8388": the ES8388's kernel driver "/dev/es8388", recording every request
// with its control word.
// "cs5368": the two converters at 0x98 and 0x9A (eight-bit forms) on I2C bus 0.
// "cx207": the audio processor at 40 (eight-bit form) on I2C bus 0, 16-bit
// registers; it leaves every transfer unacknowledged while either of its reset
// lines, GPIO0_1 and GPIO0_2, is low.
//
// Settings: none. Source keys of the kernel drivers: {"fail": n} fails request
// n (its full number) with EIO, {} fails none.
#pragma once

#include <QByteArray>

#include "sim/VirtualBoard.h"

namespace vsim {

class CodecKernelDevice : public Device {
public:
    // Requests outside `known` are refused (ENOTTY), as the kernel driver
    // does; each carries a block of `blockSize` bytes.
    CodecKernelDevice(std::vector<unsigned long> known, size_t blockSize);
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;

    struct Request {
        unsigned long request;
        QByteArray block;  // as the caller handed it in
    };
    std::vector<Request> requests() const;
    void setFailing(unsigned long request);  // 0: none

private:
    mutable std::mutex lock;
    const std::vector<unsigned long> known;
    const size_t blockSize;
    std::vector<Request> log;
    unsigned long failing = 0;
};

// A codec set up through its kernel driver.
class CodecKernelEmulator : public ChipEmulator {
public:
    void setSource(const QVariantMap& source) override;
    std::shared_ptr<CodecKernelDevice> device() const { return dev; }

protected:
    std::shared_ptr<CodecKernelDevice> dev;
};

class EmuTlv32 : public CodecKernelEmulator {
public:
    void attach(const QVariantMap& settings) override;
    std::shared_ptr<GpioI2cRegisters> registers() const { return regs; }

private:
    std::shared_ptr<GpioI2cRegisters> regs;
};

class EmuES8388 : public CodecKernelEmulator {
public:
    void attach(const QVariantMap& settings) override;
};

class EmuCS5368 : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap&) override {}
    // By eight-bit address, 0x98 or 0x9A.
    std::shared_ptr<RegisterChip> converter(uint8_t addr8) const;

private:
    std::shared_ptr<RegisterChip> first, second;
};

class EmuCx207 : public ChipEmulator {
public:
    void attach(const QVariantMap& settings) override;
    void setSource(const QVariantMap&) override {}
    std::shared_ptr<RegisterChip> chip() const { return regs; }

private:
    std::shared_ptr<RegisterChip> regs;
};

}  // namespace vsim
