#include "ms7200_hdmi_rx.h"

#include <cstdlib>

#include "frame/VeskSys.h"
#include "ms7200_regs.h"

using namespace ms7200reg;

void CMs7200HdmiRx::ms7200_hdmirx_init()
{
    ms7200drv_hdmi_rx_controller_reset(1);
    ms7200drv_hdmi_rx_init();
    ms7200drv_hdmi_rx_pi_phy_init();
}

void CMs7200HdmiRx::ms7200_hdmirx_core_reset(uint32_t flags)
{
    ms7200drv_hdmi_rx_controller_reset(flags);
}

void CMs7200HdmiRx::ms7200_hdmirx_hpd_config(bool connected, const uint8_t* edid)
{
    if (edid) {
        ms7200drv_misc_hpd_set(false);
        ms7200drv_misc_edid_load(edid, 256);
    }
    if (ms7200drv_misc_hpd_get() == connected) return;
    // A source needs the low phase to see the plug at all.
    if (connected) vsys::msleep(200);
    ms7200drv_misc_hpd_set(connected);
}

bool CMs7200HdmiRx::ms7200_hdmirx_source_connect_detect()
{
    return ms7200drv_misc_rx_5v_detect();
}

uint8_t CMs7200HdmiRx::ms7200_hdmirx_rxphy_config(uint16_t* clk)
{
    *clk = ms7200drv_hdmi_rx_get_tmds_clk();
    if (*clk <= 500) {
        ms7200drv_hdmi_rx_controller_reset(4);
        ms7200drv_hdmi_rx_pi_phy_power_down();
        return 0;
    }
    ms7200drv_hdmi_rx_hdcp_detect_enable(false);
    uint8_t r = _hdmi_rx_phy_config(clk);
    ms7200drv_hdmi_rx_hdcp_detect_enable(true);
    return uint8_t((r & 0x01) | 0x80);
}

uint8_t CMs7200HdmiRx::_hdmi_rx_phy_config(uint16_t* clk)
{
    // The first round searches the equaliser; later rounds only give the
    // PLL more time, unless the clock moved and the search must start over.
    uint8_t code = 255, r = 0;
    for (int round = 0; round < 3; round++) {
        r = ms7200drv_hdmi_rx_pi_phy_config(*clk, code);
        uint16_t now = ms7200drv_hdmi_rx_get_tmds_clk();
        if (now < 500) {
            *clk = now;
            return 0;
        }
        if (std::abs(int(now) - int(*clk)) > 499) {
            *clk = now;
            code = 255;
            continue;
        }
        if (r & 0x01) return r;
        code = 254;
    }
    return uint8_t(r & ~0x01);
}

uint32_t CMs7200HdmiRx::ms7200_hdmirx_hdmi_events_get_and_clear(uint32_t mask)
{
    return ms7200drv_hdmi_rx_get_and_clear_events(kHdmiStatus, kHdmiStatusClr, mask);
}

uint32_t CMs7200HdmiRx::ms7200_hdmirx_mdt_events_get_and_clear(uint32_t mask)
{
    return ms7200drv_hdmi_rx_get_and_clear_events(kMdtStatus, kMdtStatusClr, mask);
}

uint32_t CMs7200HdmiRx::ms7200_hdmirx_packet_events_get_and_clear(uint32_t mask)
{
    return ms7200drv_hdmi_rx_get_and_clear_events(kPktStatus, kPktStatusClr, mask);
}

uint16_t CMs7200HdmiRx::ms7200_hdmirx_input_clk_get()
{
    return ms7200drv_hdmi_rx_get_tmds_clk();
}

bool CMs7200HdmiRx::ms7200_hdmirx_input_timing_get(_T_MS7200_VIDEO_TIMING_* timing)
{
    return ms7200drv_hdmi_rx_get_input_timing(timing);
}

void CMs7200HdmiRx::ms7200_hdmirx_input_infoframe_get(_T_HDMI_CONFIG_PARA_* cfg, uint32_t pkt)
{
    ms7200drv_hdmi_rx_get_input_config(cfg, pkt);
}

void CMs7200HdmiRx::ms7200_hdmirx_video_config(const _T_HDMI_CONFIG_PARA_& cfg)
{
    ms7200drv_hdmi_rx_video_config(cfg);
}

uint16_t CMs7200HdmiRx::ms7200_hdmirx_audio_config(uint8_t mode, uint16_t tmds)
{
    return ms7200drv_hdmi_rx_audio_config(mode, tmds);
}

uint8_t CMs7200HdmiRx::ms7200_hdmirx_audio_fifo_status_get()
{
    return ms7200drv_hdmi_rx_audio_fifo_status();
}

void CMs7200HdmiRx::ms7200_dvout_init(const _T_DVOUT_CONFIG_& cfg)
{
    ms7200drv_misc_pads_init();
    ms7200drv_dvout_mode_config(cfg);
}

void CMs7200HdmiRx::ms7200_dvout_video_config(bool on)
{
    ms7200drv_dvout_video_enable(on);
}

void CMs7200HdmiRx::ms7200_dvout_audio_config(bool on)
{
    ms7200drv_dvout_audio_enable(on);
}

void CMs7200HdmiRx::ms7200_dvout_clk_driver_set(uint8_t strength)
{
    ms7200drv_misc_pclk_drive(strength);
}

void CMs7200HdmiRx::ms7200_dvout_data_driver_set(uint8_t strength)
{
    ms7200drv_misc_data_drive(strength);
}
