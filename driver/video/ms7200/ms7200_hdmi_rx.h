// Receiver API of the MS7200 stack: the chip functions at the level the
// application needs them.
#pragma once

#include "ms7200_drv_dvout.h"

class CMs7200HdmiRx : public CMs7200drvDvout {
public:
    using CMs7200drvDvout::CMs7200drvDvout;

    void ms7200_hdmirx_init();
    void ms7200_hdmirx_core_reset(uint32_t flags);
    // `edid` may be null: hot-plug only.
    void ms7200_hdmirx_hpd_config(bool connected, const uint8_t* edid);
    bool ms7200_hdmirx_source_connect_detect();
    // Stores the clock it finds in *clk (10 kHz). 0 when there is no clock,
    // else bit 0 = PHY locked, with 0x80 set.
    uint8_t ms7200_hdmirx_rxphy_config(uint16_t* clk);
    uint8_t _hdmi_rx_phy_config(uint16_t* clk);
    uint32_t ms7200_hdmirx_hdmi_events_get_and_clear(uint32_t mask);
    uint32_t ms7200_hdmirx_mdt_events_get_and_clear(uint32_t mask);
    uint32_t ms7200_hdmirx_packet_events_get_and_clear(uint32_t mask);
    uint16_t ms7200_hdmirx_input_clk_get();
    bool ms7200_hdmirx_input_timing_get(_T_MS7200_VIDEO_TIMING_* timing);
    void ms7200_hdmirx_input_infoframe_get(_T_HDMI_CONFIG_PARA_* cfg, uint32_t pktEvents);
    void ms7200_hdmirx_video_config(const _T_HDMI_CONFIG_PARA_& cfg);
    uint16_t ms7200_hdmirx_audio_config(uint8_t mode, uint16_t tmds);
    uint8_t ms7200_hdmirx_audio_fifo_status_get();

    void ms7200_dvout_init(const _T_DVOUT_CONFIG_& cfg);
    void ms7200_dvout_video_config(bool on);
    void ms7200_dvout_audio_config(bool on);
    void ms7200_dvout_clk_driver_set(uint8_t strength);
    void ms7200_dvout_data_driver_set(uint8_t strength);
};
