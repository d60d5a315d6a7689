#include "ms7200_mpi.h"

#include <fcntl.h>

#include <QDebug>
#include <cstdio>

#include "driver/DriverBase.h"
#include "frame/VeskSys.h"

QMutex CMs7200Mpi::mutex;

namespace {
constexpr unsigned long kI2cSlaveForce = 0x706;
// The board's bit-banged bus for this chip is the unnumbered one.
constexpr int kGpioIndex = -1;
}  // namespace

CMs7200Mpi::CMs7200Mpi(it6602_dev_data* record, DriverBase* bus) : m_record(record), m_bus(bus) {}

CMs7200Mpi::~CMs7200Mpi()
{
    if (m_fd >= 0) vsys::close(m_fd);
}

void CMs7200Mpi::SetupIndex(int chipAddr)
{
    m_dev = chipAddr == 144 ? 0x56 : 0xB2;
}

bool CMs7200Mpi::openBus()
{
    if (m_fd >= 0) return true;
    char path[32];
    std::snprintf(path, sizeof path, "/dev/i2c-%u", unsigned(m_record->i2c_num));
    int fd = vsys::open(path, O_RDWR);
    if (fd < 0) {
        // One line, not one per register: a missing bus would flood the log.
        if (!m_openFailedLogged) printf("ms7200: open %s error!\n", path);
        m_openFailedLogged = true;
        return false;
    }
    if (vsys::ioctl(fd, kI2cSlaveForce, static_cast<unsigned long>(m_dev >> 1)) < 0) {
        if (!m_openFailedLogged) printf("ms7200: CMD_SET_DEV error! %s %x\n", path, m_dev >> 1);
        m_openFailedLogged = true;
        vsys::close(fd);
        return false;
    }
    m_fd = fd;
    return true;
}

bool CMs7200Mpi::my_i2c_read(uint16_t reg, uint8_t* value)
{
    if (!openBus()) return false;
    uint8_t buf[2] = {uint8_t(reg >> 8), uint8_t(reg)};
    if (vsys::write(m_fd, buf, 2) != 2) return false;
    return vsys::read(m_fd, value, 1) == 1;
}

bool CMs7200Mpi::my_i2c_write(uint16_t reg, uint8_t value)
{
    if (!openBus()) return false;
    uint8_t buf[3] = {uint8_t(reg >> 8), uint8_t(reg), value};
    return vsys::write(m_fd, buf, 3) == 3;
}

uint8_t CMs7200Mpi::ms7200_HAL_ReadByte(uint16_t reg)
{
    QMutexLocker l(&mutex);
    if (!m_record) {
        qDebug("error ptr");
        return 0;
    }
    if (m_record->gpio_i2c) {
        if (!m_bus) {
            qDebug("error ptr");
            return 0;
        }
        return uint8_t(m_bus->sread(m_dev, reg, kGpioIndex, true));
    }
    uint8_t v = 0;
    if (!my_i2c_read(reg, &v)) return 0;
    return v;
}

void CMs7200Mpi::ms7200_HAL_WriteByte(uint16_t reg, uint8_t value)
{
    QMutexLocker l(&mutex);
    if (!m_record) {
        qDebug("error ptr2");
        return;
    }
    if (m_record->gpio_i2c) {
        if (!m_bus) {
            qDebug("error ptr2");
            return;
        }
        m_bus->swrite(m_dev, reg, value, kGpioIndex, true);
        return;
    }
    my_i2c_write(reg, value);
}

uint16_t CMs7200Mpi::ms7200_HAL_ReadWord(uint16_t reg)
{
    return uint16_t(ms7200_HAL_ReadByte(reg) | ms7200_HAL_ReadByte(uint16_t(reg + 1)) << 8);
}

void CMs7200Mpi::ms7200_HAL_WriteWord(uint16_t reg, uint16_t value)
{
    ms7200_HAL_WriteByte(reg, uint8_t(value));
    ms7200_HAL_WriteByte(uint16_t(reg + 1), uint8_t(value >> 8));
}

uint32_t CMs7200Mpi::ms7200_HAL_ReadDWord(uint16_t reg)
{
    return uint32_t(ms7200_HAL_ReadWord(reg)) | uint32_t(ms7200_HAL_ReadWord(uint16_t(reg + 2)))
                                                    << 16;
}

void CMs7200Mpi::ms7200_HAL_WriteDWord(uint16_t reg, uint32_t value)
{
    ms7200_HAL_WriteWord(reg, uint16_t(value));
    ms7200_HAL_WriteWord(uint16_t(reg + 2), uint16_t(value >> 16));
}

void CMs7200Mpi::ms7200_HAL_ModBits(uint16_t reg, uint8_t mask, uint8_t value)
{
    uint8_t v = ms7200_HAL_ReadByte(reg);
    ms7200_HAL_WriteByte(reg, uint8_t((v & ~mask) | (value & mask)));
}

void CMs7200Mpi::ms7200_HAL_SetBits(uint16_t reg, uint8_t mask)
{
    ms7200_HAL_ModBits(reg, mask, mask);
}

void CMs7200Mpi::ms7200_HAL_ClrBits(uint16_t reg, uint8_t mask)
{
    ms7200_HAL_ModBits(reg, mask, 0);
}

void CMs7200Mpi::ms7200_HAL_ToggleBits(uint16_t reg, uint8_t mask, bool on)
{
    ms7200_HAL_ModBits(reg, mask, on ? mask : 0);
}

uint32_t CMs7200Mpi::ms7200_HAL_ReadDWord_Ex(uint16_t reg)
{
    return ms7200_HAL_ReadDWord(reg);
}

void CMs7200Mpi::ms7200_HAL_WriteDWord_Ex(uint16_t reg, uint32_t value)
{
    ms7200_HAL_WriteDWord(reg, value);
}

void CMs7200Mpi::ms7200_HAL_ModBits_Ex(uint16_t reg, uint32_t mask, uint32_t value)
{
    uint32_t v = ms7200_HAL_ReadDWord_Ex(reg);
    ms7200_HAL_WriteDWord_Ex(reg, (v & ~mask) | (value & mask));
}

void CMs7200Mpi::ms7200_HAL_SetBits_Ex(uint16_t reg, uint32_t mask)
{
    ms7200_HAL_ModBits_Ex(reg, mask, mask);
}

void CMs7200Mpi::ms7200_HAL_ClrBits_Ex(uint16_t reg, uint32_t mask)
{
    ms7200_HAL_ModBits_Ex(reg, mask, 0);
}

void CMs7200Mpi::ms7200_HAL_ToggleBits_Ex(uint16_t reg, uint32_t mask, bool on)
{
    ms7200_HAL_ModBits_Ex(reg, mask, on ? mask : 0);
}
