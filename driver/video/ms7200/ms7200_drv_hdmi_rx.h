// Chip part: the HDMI receiver, its PHY (equaliser, PLL, offsets), the
// controller (events, timing measurement, packets) and the audio clock.
// The arithmetic is kept in static functions so that it can be checked
// without a chip.
#pragma once

#include <array>
#include <atomic>

#include "ms7200_drv_misc.h"

struct _T_MS7200_VIDEO_TIMING_ {
    uint16_t u8_polarity = 0;  // bit 0 set: progressive
    uint16_t u16_htotal = 0;
    uint16_t u16_vtotal = 0;
    uint16_t u16_hactive = 0;
    uint16_t u16_vactive = 0;
    uint16_t u16_pixclk = 0;  // 10 kHz
    uint16_t u16_vfreq = 0;   // 0.01 Hz
    uint16_t u16_hoffset = 0;
    uint16_t u16_voffset = 0;
    uint16_t u16_hsyncwidth = 0;
    uint16_t u16_vsyncwidth = 0;
};

// The first 18 bytes are what a change of the input is judged by.
struct _T_HDMI_CONFIG_PARA_ {
    uint8_t u8_hdmi_flag = 0;
    uint8_t u8_vic = 0;
    uint16_t u16_video_clk = 0;
    uint8_t u8_clk_rpt = 0;
    uint8_t u8_scan_info = 0;
    uint8_t u8_aspect_ratio = 0;
    uint8_t u8_color_space = 0;
    uint8_t u8_color_depth = 0;
    uint8_t u8_colorimetry = 0;
    uint8_t u8_video_format = 0;
    uint8_t u8_4Kx2K_vic = 0;
    uint8_t u8_3D_structure = 0;
    uint8_t u8_audio_mode = 0;
    uint8_t u8_audio_rate = 0;
    uint8_t u8_audio_bits = 0;
    uint8_t u8_audio_channels = 0;
    uint8_t u8_audio_speaker_locations = 0;
    uint8_t u8_audio_rest[3] = {0, 0, 0};
};
constexpr int kHdmiConfigCompareBytes = 18;

// 28 rows of four equaliser stage values, total falling by one a row.
extern const std::array<std::array<uint8_t, 4>, 28> ptEqGainVal;

class CMs7200drvHdmiRx : public CMs7200drvMisc {
public:
    using CMs7200drvMisc::CMs7200drvMisc;

    // ---- pure pieces
    // Counts for gains 2..7 of one channel: the middle of the gains holding
    // the lowest count; gain 4 and *ok false if that count is above 256.
    static uint8_t eqChooseGain(const uint16_t counts[6], bool* ok);
    // Middle index of the lowest count in [low, high]; *ok false above 1280.
    static uint8_t eq28ChooseIndex(const uint16_t counts[28], int low, int high, bool* ok);
    static void _drv_hdmi_rx_pi_28eq_calc_next_search_range(const uint8_t results[3], uint8_t* low,
                                                            uint8_t* high);
    static uint8_t eq28Vote(uint8_t a, uint8_t b, uint8_t c);
    // Audio rate in 100 Hz from N, CTS and the TMDS clock in 10 kHz.
    static uint16_t audioRate(uint16_t tmds, uint32_t n, uint32_t cts);
    struct AudioPllSetting {
        uint8_t d = 0;
        uint8_t p = 0;
        uint32_t mInt = 0;
        uint32_t mFrac = 0;  // 20 bits
    };
    static AudioPllSetting audioPllCalc(uint8_t mode, uint16_t tmds, uint32_t n, uint32_t cts,
                                        bool doubleRate);
    struct RawTiming {
        uint16_t polarity, htotal, vtotal, hactive, vactive, period, clock;
        uint16_t hoffset, voffset, hsync, vsync;
    };
    static bool timingFromRaw(const RawTiming& raw, _T_MS7200_VIDEO_TIMING_* out);

    // ---- controller
    void ms7200drv_hdmi_rx_controller_reset(uint32_t flags);
    void ms7200drv_hdmi_rx_init();
    uint32_t ms7200drv_hdmi_rx_get_and_clear_events(uint16_t statusReg, uint16_t clearReg,
                                                    uint32_t mask);
    uint16_t ms7200drv_hdmi_rx_get_tmds_clk();
    bool ms7200drv_hdmi_rx_get_input_timing(_T_MS7200_VIDEO_TIMING_* timing);
    void ms7200drv_hdmi_rx_get_input_config(_T_HDMI_CONFIG_PARA_* cfg, uint32_t pktEvents);
    void ms7200drv_hdmi_rx_video_config(const _T_HDMI_CONFIG_PARA_& cfg);
    void ms7200drv_hdmi_rx_hdcp_detect_enable(bool on);
    uint8_t ms7200drv_hdmi_rx_audio_fifo_status();

    // ---- PHY
    void ms7200drv_hdmi_rx_pi_phy_init();
    void ms7200drv_hdmi_rx_pi_phy_power_down();
    uint8_t ms7200drv_hdmi_rx_pi_phy_config(uint16_t clk, uint8_t code);
    bool ms7200drv_hdmi_rx_pi_eq_config(uint8_t code);
    uint8_t ms7200drv_hdmi_rx_pi_phy_config_with_28eq(uint16_t clk, uint8_t code);
    bool ms7200drv_hdmi_rx_pi_28eq_config(uint8_t code);
    bool _drv_hdmi_rx_pi_28eq_search(uint8_t low, uint8_t high, uint8_t results[3]);
    bool _drv_errdet_counter(uint16_t counts[3]);
    bool ms7200drv_hdmi_rx_pll_locked();

    // ---- audio
    uint16_t ms7200drv_hdmi_rx_audio_config(uint8_t mode, uint16_t tmds);
    void ms7200drv_hdmi_audio_pll_config(uint8_t mode, uint16_t tmds, uint32_t n, uint32_t cts);

    // Last chosen gains (plain search) or 28-step indices, by channel; read
    // by diagnostics from another thread.
    std::atomic<int> m_eqGains[3] = {-1, -1, -1};

private:
    void _drv_hdmi_rx_pi_offset_config(int ch);
    void _drv_hdmi_rx_pi_rxpll_config(uint16_t clk);
    void _drv_hdmi_rx_pi_mixer_config(uint16_t clk);
    // Receiver range, PLL and mixer for the clock, then release: the part of
    // a PHY configuration that both equaliser searches share.
    void _drv_hdmi_rx_pi_phy_setup(uint16_t clk);
    void _drv_hdmi_rx_audio_clk_sel(uint8_t sel);
    void setEqGain(int ch, uint8_t gain);
    void set28Eq(int ch, uint8_t index);
    void errDetRestart();
    void cdrRestart(int waitUs);

    bool m_invalidLogged = false;
    RawTiming m_lastRejected{};
};
