#include "ms7200_drv_misc.h"

#include "ms7200_regs.h"

using namespace ms7200reg;

void CMs7200drvMisc::ms7200drv_misc_pads_init()
{
    // Bring-up values from the chip's documents: output pads on, bus hold off.
    ms7200_HAL_WriteByte(kPadCtrl, 0x0F);
}

void CMs7200drvMisc::ms7200drv_misc_csc_config(uint8_t inCs, uint8_t outCs)
{
    ms7200_HAL_WriteByte(kCscCtrl, uint8_t((inCs & 0x3) | (outCs & 0x3) << 2));
}

void CMs7200drvMisc::ms7200drv_misc_pclk_drive(uint8_t strength)
{
    ms7200_HAL_ModBits(kPadDrive, 0x03, strength & 0x03);
}

void CMs7200drvMisc::ms7200drv_misc_data_drive(uint8_t strength)
{
    ms7200_HAL_ModBits(kPadDrive, 0x0C, uint8_t((strength & 0x03) << 2));
}

bool CMs7200drvMisc::ms7200drv_misc_rx_5v_detect()
{
    return ms7200_HAL_ReadByte(kRx5v) & 0x01;
}

bool CMs7200drvMisc::ms7200drv_misc_hpd_get()
{
    return ms7200_HAL_ReadByte(kHpd) & 0x01;
}

void CMs7200drvMisc::ms7200drv_misc_hpd_set(bool high)
{
    ms7200_HAL_ToggleBits(kHpd, 0x01, high);
}

void CMs7200drvMisc::ms7200drv_misc_edid_load(const uint8_t* edid, int len)
{
    ms7200_HAL_SetBits(kEdidCtrl, 0x01);
    for (int i = 0; i < len && i < 256; i++) ms7200_HAL_WriteByte(uint16_t(kEdidRam + i), edid[i]);
    ms7200_HAL_ClrBits(kEdidCtrl, 0x01);
}
