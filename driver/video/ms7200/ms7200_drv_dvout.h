// Chip part: the digital video (and I2S audio) output.
#pragma once

#include "ms7200_drv_hdmi_rx.h"

struct _T_DVOUT_CONFIG_ {
    uint8_t u8_mode;
    uint8_t u8_cfg[3];
};

class CMs7200drvDvout : public CMs7200drvHdmiRx {
public:
    using CMs7200drvHdmiRx::CMs7200drvHdmiRx;

    void ms7200drv_dvout_mode_config(const _T_DVOUT_CONFIG_& cfg);
    void ms7200drv_dvout_video_enable(bool on);
    void ms7200drv_dvout_audio_enable(bool on);
};
