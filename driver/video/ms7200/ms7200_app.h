// Application layer of the MS7200 receiver stack: bring-up, the media
// service that follows the input, and the report into the TC7509 record.
// Everything here runs on the one thread that owns the chip.
#pragma once

#include <QVector>
#include <array>
#include <atomic>

#include "driver/video/it6602_dev_data.h"
#include "ms7200_hdmi_rx.h"

class DriverBase;

extern const std::array<uint8_t, 256> Default_Edid_Block;
extern const _T_DVOUT_CONFIG_ g_t_dvout_config;

class CMs7200App : public CMs7200HdmiRx {
public:
    CMs7200App(it6602_dev_data* record, DriverBase* bus);
    ~CMs7200App() override;

    void SetupIndex(int chipAddr);
    bool ms7200_CheckChipID();
    void ms7200_init();
    // One pass: the media service, then the report. The caller waits 100 ms
    // between passes.
    void ms7200_loop();
    void ms7200_media_service();
    void SendResReport();

    // For the driver's diagnostics, from other threads.
    int stableCount() const;
    QVector<int> eqGains() const;

private:
    void configureOutput();

    int m_deviceIndex = 146;
    uint16_t m_u16_audio_rate = 0;
    _T_MS7200_VIDEO_TIMING_ m_t_timing;
    _T_HDMI_CONFIG_PARA_ m_t_config;
    uint16_t m_u16_tmds_clk = 0;
    uint8_t m_b_phy_settled = 1;
    uint8_t m_b_timing_valid = 0;
    std::atomic<int> m_i_stable_count{0};
};
