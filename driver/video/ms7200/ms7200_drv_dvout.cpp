#include "ms7200_drv_dvout.h"

#include "ms7200_regs.h"

using namespace ms7200reg;

void CMs7200drvDvout::ms7200drv_dvout_mode_config(const _T_DVOUT_CONFIG_& cfg)
{
    ms7200_HAL_WriteByte(kDvoutMode, cfg.u8_mode);
    for (int i = 0; i < 3; i++) ms7200_HAL_WriteByte(uint16_t(kDvoutCfg + i), cfg.u8_cfg[i]);
}

void CMs7200drvDvout::ms7200drv_dvout_video_enable(bool on)
{
    ms7200_HAL_ToggleBits(kDvoutEnable, 0x01, on);
}

void CMs7200drvDvout::ms7200drv_dvout_audio_enable(bool on)
{
    ms7200_HAL_ToggleBits(kDvoutEnable, 0x02, on);
}
