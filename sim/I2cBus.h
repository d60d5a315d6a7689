// Device nodes of the board's buses: /dev/i2c-N and /dev/gpio_i2c*.
#pragma once

#include <map>

#include "sim/VirtualBoard.h"

namespace vsim {

class I2cBus : public Device {
public:
    explicit I2cBus(int bus) : busNo(bus) {}
    void attach(uint8_t addr7, std::shared_ptr<I2cDevice> device);
    void setFailing(uint8_t addr7, bool failing);
    void setSelectFails(bool fails);

    // The cookie holds the selected slave address.
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;
    long read(uint64_t& cookie, void* buf, size_t len) override;
    long write(uint64_t& cookie, const void* buf, size_t len) override;

private:
    std::shared_ptr<I2cDevice> target(uint16_t addr7);

    int busNo;
    std::mutex lock;
    std::map<uint8_t, std::shared_ptr<I2cDevice>> devices;
    std::map<uint8_t, bool> failing;
    bool selectFails = false;
};

class GpioI2cBus : public Device {
public:
    void attach(uint8_t dev, std::shared_ptr<GpioI2cDevice> device);
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;

private:
    std::mutex lock;
    std::map<uint8_t, std::shared_ptr<GpioI2cDevice>> devices;
};

// /dev/mem: a sparse memory file, mapped for real so that offsets and
// alignment rules behave as on the board.
class PhysMem : public Device {
public:
    void* mmap(uint64_t& cookie, void* addr, size_t len, int prot, int flags,
               off_t offset) override;
};

}  // namespace vsim
