// Bus layer of the MS7200 stack: 16-bit register numbers, 8-bit values,
// over the bit-banged bus or the process's own I2C bus descriptor.
#pragma once

#include <QMutex>
#include <cstdint>

#include "driver/video/it6602_dev_data.h"

class DriverBase;

class CMs7200Mpi {
public:
    CMs7200Mpi(it6602_dev_data* record, DriverBase* bus);
    virtual ~CMs7200Mpi();
    CMs7200Mpi(const CMs7200Mpi&) = delete;
    CMs7200Mpi& operator=(const CMs7200Mpi&) = delete;

    // 144 selects bus device 0x56, anything else 0xB2.
    void SetupIndex(int chipAddr);
    uint8_t deviceAddress() const { return m_dev; }

    uint8_t ms7200_HAL_ReadByte(uint16_t reg);
    void ms7200_HAL_WriteByte(uint16_t reg, uint8_t value);
    uint16_t ms7200_HAL_ReadWord(uint16_t reg);
    void ms7200_HAL_WriteWord(uint16_t reg, uint16_t value);
    uint32_t ms7200_HAL_ReadDWord(uint16_t reg);
    void ms7200_HAL_WriteDWord(uint16_t reg, uint32_t value);
    void ms7200_HAL_ModBits(uint16_t reg, uint8_t mask, uint8_t value);
    void ms7200_HAL_SetBits(uint16_t reg, uint8_t mask);
    void ms7200_HAL_ClrBits(uint16_t reg, uint8_t mask);
    void ms7200_HAL_ToggleBits(uint16_t reg, uint8_t mask, bool on);

    // Word registers of the controller.
    uint32_t ms7200_HAL_ReadDWord_Ex(uint16_t reg);
    void ms7200_HAL_WriteDWord_Ex(uint16_t reg, uint32_t value);
    void ms7200_HAL_ModBits_Ex(uint16_t reg, uint32_t mask, uint32_t value);
    void ms7200_HAL_SetBits_Ex(uint16_t reg, uint32_t mask);
    void ms7200_HAL_ClrBits_Ex(uint16_t reg, uint32_t mask);
    void ms7200_HAL_ToggleBits_Ex(uint16_t reg, uint32_t mask, bool on);

    static QMutex mutex;

protected:
    it6602_dev_data* m_record;

private:
    bool my_i2c_read(uint16_t reg, uint8_t* value);
    bool my_i2c_write(uint16_t reg, uint8_t value);
    bool openBus();

    DriverBase* m_bus;
    uint8_t m_dev = 0xB2;
    int m_fd = -1;
    bool m_openFailedLogged = false;
};
