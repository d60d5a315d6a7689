#include "sim/I2cBus.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

namespace vsim {

void I2cBus::attach(uint8_t addr7, std::shared_ptr<I2cDevice> device)
{
    std::lock_guard<std::mutex> g(lock);
    devices[addr7] = std::move(device);
}

void I2cBus::setFailing(uint8_t addr7, bool f)
{
    std::lock_guard<std::mutex> g(lock);
    failing[addr7] = f;
}

void I2cBus::setSelectFails(bool fails)
{
    std::lock_guard<std::mutex> g(lock);
    selectFails = fails;
}

std::shared_ptr<I2cDevice> I2cBus::target(uint16_t addr7)
{
    std::lock_guard<std::mutex> g(lock);
    if (addr7 > 0x7F) return nullptr;
    auto f = failing.find(uint8_t(addr7));
    if (f != failing.end() && f->second) return nullptr;
    auto it = devices.find(uint8_t(addr7));
    return it == devices.end() ? nullptr : it->second;
}

long I2cBus::ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg)
{
    switch (request) {
        case I2C_SLAVE:
        case I2C_SLAVE_FORCE: {
            std::lock_guard<std::mutex> g(lock);
            if (selectFails) return -EBUSY;
            if (iarg > 0x7F) return -EINVAL;
            cookie = iarg | (1ull << 32);
            return 0;
        }
        case I2C_RDWR: {
            auto* xfer = static_cast<i2c_rdwr_ioctl_data*>(arg);
            if (!xfer || !xfer->msgs || xfer->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return -EINVAL;
            for (unsigned i = 0; i < xfer->nmsgs; i++) {
                const i2c_msg& m = xfer->msgs[i];
                if (m.len && !m.buf) return -EFAULT;
                auto dev = target(m.addr);
                if (!dev) return -ENXIO;
                bool ok =
                    (m.flags & I2C_M_RD) ? dev->i2cRead(m.buf, m.len) : dev->i2cWrite(m.buf, m.len);
                if (!ok) return -EREMOTEIO;
            }
            return long(xfer->nmsgs);
        }
        default:
            return -ENOTTY;
    }
}

long I2cBus::read(uint64_t& cookie, void* buf, size_t len)
{
    if (!(cookie >> 32)) return -EINVAL;
    auto dev = target(uint16_t(cookie & 0xFFFF));
    if (!dev) return -ENXIO;
    return dev->i2cRead(static_cast<uint8_t*>(buf), len) ? long(len) : -EREMOTEIO;
}

long I2cBus::write(uint64_t& cookie, const void* buf, size_t len)
{
    if (!(cookie >> 32)) return -EINVAL;
    auto dev = target(uint16_t(cookie & 0xFFFF));
    if (!dev) return -ENXIO;
    return dev->i2cWrite(static_cast<const uint8_t*>(buf), len) ? long(len) : -EREMOTEIO;
}

void GpioI2cBus::attach(uint8_t dev, std::shared_ptr<GpioI2cDevice> device)
{
    std::lock_guard<std::mutex> g(lock);
    devices[dev] = std::move(device);
}

long GpioI2cBus::ioctl(uint64_t&, unsigned long request, void* arg, unsigned long)
{
    // The driver's requests: 1 read, 3 write, 5 wide read, 7 wide write, on
    // one packed word: device << 24 | register << 8 | value.
    if (request != 1 && request != 3 && request != 5 && request != 7) return -ENOTTY;
    if (!arg) return -EFAULT;
    uint32_t word;
    std::memcpy(&word, arg, 4);
    uint8_t dev = uint8_t(word >> 24);
    uint16_t reg = uint16_t((word >> 8) & 0xFFFF);
    bool wide = request == 5 || request == 7;
    std::shared_ptr<GpioI2cDevice> target;
    {
        std::lock_guard<std::mutex> g(lock);
        auto it = devices.find(dev);
        if (it != devices.end()) target = it->second;
    }
    if (!target) return -ENXIO;
    if (request == 1 || request == 5) {
        word = (word & 0xFFFFFF00u) | target->read(reg, wide);
        std::memcpy(arg, &word, 4);
    } else {
        target->write(reg, uint8_t(word & 0xFF), wide);
    }
    return 0;
}

void* PhysMem::mmap(uint64_t&, void* addr, size_t len, int prot, int flags, off_t offset)
{
    int fd = Board::instance().memFd();
    if (fd < 0) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return ::mmap(addr, len, prot, flags, fd, offset);
}

}  // namespace vsim
