#include "sim/EmuCodecs.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "driver/audio/Es8388Ioctl.h"
#include "driver/audio/Tlv32Ioctl.h"
#include "sim/Peripherals.h"

namespace vsim {

CodecKernelDevice::CodecKernelDevice(std::vector<unsigned long> requests, size_t size)
    : known(std::move(requests)), blockSize(size)
{
}

long CodecKernelDevice::ioctl(uint64_t&, unsigned long request, void* arg, unsigned long)
{
    std::lock_guard<std::mutex> g(lock);
    if (std::find(known.begin(), known.end(), request) == known.end()) return -ENOTTY;
    if (!arg) return -EFAULT;
    log.push_back({request, QByteArray(static_cast<const char*>(arg), int(blockSize))});
    return request == failing ? -EIO : 0;
}

std::vector<CodecKernelDevice::Request> CodecKernelDevice::requests() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

void CodecKernelDevice::setFailing(unsigned long request)
{
    std::lock_guard<std::mutex> g(lock);
    failing = request;
}

void EmuTlv32::attach(const QVariantMap&)
{
    std::vector<unsigned long> known = {0x00, 0x01, 0x08, 0x11, 0x16, 0x17, 0x19, 0x20, 0x21, 0x22,
                                        0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x30, 0x31, 0x33, 0x34};
    dev = std::make_shared<CodecKernelDevice>(known, sizeof(Tlv32Control));
    regs = std::make_shared<GpioI2cRegisters>();
    Board::instance().addDevice("/dev/tlv320aic31", dev);
    Board::instance().attachGpioI2c(-1, 0x30, regs);
}

void EmuES8388::attach(const QVariantMap&)
{
    // The reset and the chain's requests 0x03..0x22.
    std::vector<unsigned long> known = {kEs8388Reset};
    for (unsigned nr = 0x03; nr <= 0x22; nr++) known.push_back(es8388Request(nr));
    dev = std::make_shared<CodecKernelDevice>(known, sizeof(Es8388Word));
    Board::instance().addDevice("/dev/es8388", dev);
}

void CodecKernelEmulator::setSource(const QVariantMap& source)
{
    if (dev) dev->setFailing(source.value("fail").toULongLong());
}

void EmuCS5368::attach(const QVariantMap&)
{
    first = std::make_shared<RegisterChip>(1);
    second = std::make_shared<RegisterChip>(1);
    Board::instance().addI2cBus(0);
    Board::instance().attachI2c(0, 0x98 >> 1, first);
    Board::instance().attachI2c(0, 0x9A >> 1, second);
}

std::shared_ptr<RegisterChip> EmuCS5368::converter(uint8_t addr8) const
{
    return addr8 == 0x98 ? first : addr8 == 0x9A ? second : nullptr;
}

namespace {
class Cx207Chip : public RegisterChip {
public:
    Cx207Chip() : RegisterChip(2) {}
    bool i2cWrite(const uint8_t* buf, size_t len) override
    {
        return running() && RegisterChip::i2cWrite(buf, len);
    }
    bool i2cRead(uint8_t* buf, size_t len) override
    {
        return running() && RegisterChip::i2cRead(buf, len);
    }

private:
    static bool running()
    {
        GpioLines& gpio = GpioLines::instance();
        return gpio.level(0, 1) && gpio.level(0, 2);
    }
};
}  // namespace

void EmuCx207::attach(const QVariantMap&)
{
    regs = std::make_shared<Cx207Chip>();
    Board::instance().addI2cBus(0);
    Board::instance().attachI2c(0, 40 >> 1, regs);
}

static bool registered[] = {
    registerChipType("tlv32", [] { return std::make_shared<EmuTlv32>(); }),
    registerChipType("ES8388", [] { return std::make_shared<EmuES8388>(); }),
    registerChipType("cs5368", [] { return std::make_shared<EmuCS5368>(); }),
    registerChipType("cx207", [] { return std::make_shared<EmuCx207>(); }),
};

}  // namespace vsim
