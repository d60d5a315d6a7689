#include "ms7200_drv_hdmi_rx.h"

#include <QDebug>
#include <algorithm>
#include <cstring>

#include "frame/VeskSys.h"
#include "ms7200_regs.h"

using namespace ms7200reg;

namespace {
constexpr uint16_t kInvalidCount = 32767;

std::array<std::array<uint8_t, 4>, 28> makeEqTable()
{
    std::array<std::array<uint8_t, 4>, 28> t{};
    std::array<uint8_t, 4> row{{7, 7, 7, 7}};
    for (auto& r : t) {
        r = row;
        for (auto& stage : row) {
            if (stage) {
                stage--;
                break;
            }
        }
    }
    return t;
}

// Middle of the positions holding the lowest value, counted from 1 as
// (n + (n & 1)) / 2: of an even count the lower middle.
int middleOfLowest(const uint16_t* v, int low, int high, uint16_t* lowest)
{
    uint16_t best = 0xFFFF;
    for (int i = low; i <= high; i++) best = std::min(best, v[i]);
    int n = 0;
    for (int i = low; i <= high; i++) n += v[i] == best;
    int want = (n + (n & 1)) / 2, seen = 0;
    *lowest = best;
    for (int i = low; i <= high; i++) {
        if (v[i] == best && ++seen == want) return i;
    }
    return low;
}
}  // namespace

const std::array<std::array<uint8_t, 4>, 28> ptEqGainVal = makeEqTable();

// ---------------------------------------------------------------- pure pieces

uint8_t CMs7200drvHdmiRx::eqChooseGain(const uint16_t counts[6], bool* ok)
{
    uint16_t lowest;
    int i = middleOfLowest(counts, 0, 5, &lowest);
    if (lowest > 256) {
        *ok = false;
        return 4;
    }
    *ok = true;
    return uint8_t(i + 2);
}

uint8_t CMs7200drvHdmiRx::eq28ChooseIndex(const uint16_t counts[28], int low, int high, bool* ok)
{
    if (low < 0 || high > 27 || low > high) {
        *ok = false;
        return uint8_t(std::clamp(low, 0, 27));
    }
    uint16_t lowest;
    int i = middleOfLowest(counts, low, high, &lowest);
    *ok = lowest <= 1280;
    return uint8_t(i);
}

void CMs7200drvHdmiRx::_drv_hdmi_rx_pi_28eq_calc_next_search_range(const uint8_t r[3], uint8_t* low,
                                                                   uint8_t* high)
{
    int lo = std::min({r[0], r[1], r[2]});
    int hi = std::min<int>(std::max({r[0], r[1], r[2]}), 23);
    *low = uint8_t(std::max(lo - 4, 0));
    *high = uint8_t(hi + 4);
}

uint8_t CMs7200drvHdmiRx::eq28Vote(uint8_t a, uint8_t b, uint8_t c)
{
    if (a == b) return a;
    if (a == c || b == c) return c;
    return uint8_t((a + b + c) / 3);
}

uint16_t CMs7200drvHdmiRx::audioRate(uint16_t tmds, uint32_t n, uint32_t cts)
{
    if (!cts) return 0;
    uint64_t k = (uint32_t(tmds) * 25) >> 5;
    return uint16_t(uint64_t(n) * k / cts);
}

CMs7200drvHdmiRx::AudioPllSetting CMs7200drvHdmiRx::audioPllCalc(uint8_t mode, uint16_t tmds,
                                                                 uint32_t n, uint32_t cts,
                                                                 bool doubleRate)
{
    AudioPllSetting s;
    s.d = tmds <= 5000 ? 0 : tmds <= 10000 ? 1 : tmds <= 20000 ? 2 : 3;
    uint32_t fs128 = audioRate(tmds, n, cts);
    uint32_t div = fs128 * 128;
    if (!div) div = 61440;
    uint8_t p = uint8_t(3750000 / div);
    p = doubleRate ? uint8_t(p / 4) : uint8_t(p / 2);
    s.p = p;
    // 20 fraction bits throughout.
    uint64_t m;
    if (mode == 3)
        m = cts ? ((uint64_t(2 * p) << s.d) * n << 20) / cts : 0;
    else if (mode == 1)
        m = uint64_t(2 * p) << 20;
    else
        m = uint64_t(4 * p) << 20;
    m *= doubleRate ? 4 : 2;
    s.mInt = uint32_t(m >> 20);
    s.mFrac = uint32_t(m & 0xFFFFF);
    return s;
}

bool CMs7200drvHdmiRx::timingFromRaw(const RawTiming& raw, _T_MS7200_VIDEO_TIMING_* out)
{
    if (raw.htotal < 50 || raw.vtotal < 50 || raw.hactive < 50 || raw.vactive < 50 ||
        raw.hactive > raw.htotal || raw.vactive > raw.vtotal || raw.period == 0)
        return false;
    _T_MS7200_VIDEO_TIMING_ t;
    bool progressive = raw.polarity & 0x01;
    uint32_t vtotal = raw.vtotal;
    if (!progressive) {
        // The detector counts one field; a frame has the odd line count.
        if (vtotal == 625)
            vtotal = 1250;
        else
            vtotal = (vtotal % 2 == 0) ? 2 * vtotal + 1 : 2 * vtotal - 1;
    }
    uint16_t rate = uint16_t(uint64_t(432000000u / raw.period) * 100 / vtotal);
    uint16_t vactive = raw.vactive;
    if (!progressive) {
        // A frame's lines from here on; DriverTC7509 doubles interlaced
        // heights once more, and that is kept.
        rate = uint16_t(rate * 2);
        vactive = uint16_t(vactive * 2);
    }
    if (rate < 500) return false;
    t.u8_polarity = raw.polarity;
    t.u16_htotal = raw.htotal;
    t.u16_vtotal = uint16_t(vtotal);
    t.u16_hactive = raw.hactive;
    t.u16_vactive = vactive;
    t.u16_pixclk = raw.clock;
    t.u16_vfreq = rate;
    t.u16_hoffset = raw.hoffset;
    t.u16_voffset = raw.voffset;
    t.u16_hsyncwidth = raw.hsync;
    t.u16_vsyncwidth = raw.vsync;
    *out = t;
    return true;
}

// ---------------------------------------------------------------- controller

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_controller_reset(uint32_t flags)
{
    ms7200_HAL_WriteDWord_Ex(kCtrlReset, flags);
    ms7200_HAL_WriteDWord_Ex(kCtrlReset, 0);
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_init()
{
    // The chip's bring-up list (from its documents): PHY on, packet
    // decoding on, all events unmasked.
    ms7200_HAL_WriteByte(kPhyPower, 0x01);
    ms7200_HAL_WriteDWord_Ex(kHdmiStatusClr, 0xFFFFFFFF);
    ms7200_HAL_WriteDWord_Ex(kMdtStatusClr, 0xFFFFFFFF);
    ms7200_HAL_WriteDWord_Ex(kPktStatusClr, 0xFFFFFFFF);
}

uint32_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_get_and_clear_events(uint16_t statusReg,
                                                                  uint16_t clearReg, uint32_t mask)
{
    uint32_t ev = ms7200_HAL_ReadDWord_Ex(statusReg) & mask;
    if (ev) ms7200_HAL_WriteDWord_Ex(clearReg, ev);
    return ev;
}

uint16_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_get_tmds_clk()
{
    uint32_t raw = ms7200_HAL_ReadDWord_Ex(kTmdsClock);
    if (!(raw & 0x20000)) return 0;
    return uint16_t((raw & 0xFFFF) * 2700 / 4095);
}

bool CMs7200drvHdmiRx::ms7200drv_hdmi_rx_get_input_timing(_T_MS7200_VIDEO_TIMING_* timing)
{
    if ((ms7200_HAL_ReadDWord_Ex(kMdtSync) & 0x03) != 0x03) return false;
    RawTiming raw;
    raw.polarity = uint16_t(ms7200_HAL_ReadDWord_Ex(kMdtPol) & 0xFF);
    uint32_t h = ms7200_HAL_ReadDWord_Ex(kMdtH), v = ms7200_HAL_ReadDWord_Ex(kMdtV);
    uint32_t hb = ms7200_HAL_ReadDWord_Ex(kMdtHBlank), vb = ms7200_HAL_ReadDWord_Ex(kMdtVBlank);
    raw.htotal = uint16_t(h);
    raw.hactive = uint16_t(h >> 16);
    raw.vtotal = uint16_t(v);
    raw.vactive = uint16_t(v >> 16);
    raw.hoffset = uint16_t(hb);
    raw.hsync = uint16_t(hb >> 16);
    raw.voffset = uint16_t(vb);
    raw.vsync = uint16_t(vb >> 16);
    raw.period = uint16_t(ms7200_HAL_ReadDWord_Ex(kMdtPeriod) >> 16);
    raw.clock = ms7200drv_hdmi_rx_get_tmds_clk();
    if (timingFromRaw(raw, timing)) return true;
    // Said once per distinct measurement: the service asks every pass.
    if (std::memcmp(&raw, &m_lastRejected, sizeof raw) != 0)
        qDebug("ms7200: timing rejected: active %ux%u total %ux%u line period %u", raw.hactive,
               raw.vactive, raw.htotal, raw.vtotal, raw.period);
    m_lastRejected = raw;
    return false;
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_get_input_config(_T_HDMI_CONFIG_PARA_* cfg, uint32_t pkt)
{
    _T_HDMI_CONFIG_PARA_ c;
    c.u8_hdmi_flag = ms7200_HAL_ReadByte(kHdmiMode) & 0x01;
    if (pkt & kEvPktAvi) {
        c.u8_vic = ms7200_HAL_ReadByte(kAviInfo) & 0x7F;
        c.u8_clk_rpt = ms7200_HAL_ReadByte(kAviInfo + 1) & 0x0F;
        c.u8_scan_info = ms7200_HAL_ReadByte(kAviInfo + 2) & 0x03;
        c.u8_aspect_ratio = ms7200_HAL_ReadByte(kAviInfo + 3) & 0x03;
        c.u8_color_space = ms7200_HAL_ReadByte(kAviInfo + 4) & 0x03;
        c.u8_colorimetry = ms7200_HAL_ReadByte(kAviInfo + 5) & 0x03;
    }  // else the default video: VIC 0, RGB, no repetition
    // The vendor-specific default is applied on either missing bit.
    if (pkt & kEvPktVsi) {
        c.u8_video_format = ms7200_HAL_ReadByte(kVsiInfo) & 0x07;
        c.u8_4Kx2K_vic = ms7200_HAL_ReadByte(kVsiInfo + 1);
        c.u8_3D_structure = ms7200_HAL_ReadByte(kVsiInfo + 2) & 0x0F;
    }
    if (!(pkt & kEvPktVsi2)) {
        c.u8_video_format = 0;
        c.u8_4Kx2K_vic = 0;
        c.u8_3D_structure = 0;
    }
    c.u8_audio_mode = ms7200_HAL_ReadByte(kAifInfo);
    c.u8_audio_rate = ms7200_HAL_ReadByte(kAifInfo + 1);
    c.u8_audio_bits = ms7200_HAL_ReadByte(kAifInfo + 2);
    c.u8_audio_channels = ms7200_HAL_ReadByte(kAifInfo + 3);
    c.u8_audio_speaker_locations = ms7200_HAL_ReadByte(kAifInfo + 4);
    for (int i = 0; i < 3; i++)
        c.u8_audio_rest[i] = ms7200_HAL_ReadByte(uint16_t(kAifInfo + 5 + i));
    *cfg = c;
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_video_config(const _T_HDMI_CONFIG_PARA_& cfg)
{
    // The output bus carries YUV 4:2:2 whatever the input's colour space.
    ms7200drv_misc_csc_config(cfg.u8_color_space, 1);
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_hdcp_detect_enable(bool on)
{
    ms7200_HAL_ToggleBits(kHdcpDetect, 0x01, on);
}

uint8_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_audio_fifo_status()
{
    return ms7200_HAL_ReadByte(kAudioFifo);
}

// ---------------------------------------------------------------- PHY

void CMs7200drvHdmiRx::_drv_hdmi_rx_pi_offset_config(int ch)
{
    uint16_t reg = uint16_t(kOffset0 + ch);
    for (int neg = 15; neg >= 0; neg--) {
        ms7200_HAL_WriteByte(reg, uint8_t(neg));
        vsys::usleep(1000);
        if (ms7200_HAL_ReadByte(kOffsetCmp) & (1 << ch)) return;
    }
    for (int pos = 0; pos <= 15; pos++) {
        ms7200_HAL_WriteByte(reg, uint8_t(pos << 4));
        vsys::usleep(1000);
        if (ms7200_HAL_ReadByte(kOffsetCmp) & (1 << ch)) return;
    }
    qDebug("ms7200: channel %d offset did not calibrate", ch);
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_phy_init()
{
    for (int ch = 0; ch < 3; ch++) _drv_hdmi_rx_pi_offset_config(ch);
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_phy_power_down()
{
    ms7200_HAL_ClrBits(kPhyPower, 0x01);
}

void CMs7200drvHdmiRx::_drv_hdmi_rx_pi_rxpll_config(uint16_t clk)
{
    ms7200_HAL_WriteByte(kPhyPll, clk > 20000 ? 0x21 : 0x11);
}

void CMs7200drvHdmiRx::_drv_hdmi_rx_pi_mixer_config(uint16_t clk)
{
    ms7200_HAL_WriteByte(kPhyMixer, clk < 7600 ? 0 : clk < 15100 ? 1 : 2);
}

bool CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pll_locked()
{
    return ms7200_HAL_ReadByte(kPhyPllStatus) & 0x01;
}

void CMs7200drvHdmiRx::_drv_hdmi_rx_pi_phy_setup(uint16_t clk)
{
    ms7200_HAL_SetBits(kPhyPower, 0x01);
    ms7200_HAL_WriteByte(kPhyRange, clk > 20000 ? 1 : 0);
    _drv_hdmi_rx_pi_rxpll_config(clk);
    _drv_hdmi_rx_pi_mixer_config(clk);
    ms7200_HAL_WriteByte(kPhyRelease, 0x01);
    vsys::usleep(1000);
    ms7200_HAL_WriteByte(kPhyPllStatus, 0x01);
}

uint8_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_phy_config(uint16_t clk, uint8_t code)
{
    if (code != 254) _drv_hdmi_rx_pi_phy_setup(clk);
    bool eq = ms7200drv_hdmi_rx_pi_eq_config(code);
    return uint8_t((eq ? 2 : 0) | (ms7200drv_hdmi_rx_pll_locked() ? 1 : 0));
}

void CMs7200drvHdmiRx::setEqGain(int ch, uint8_t gain)
{
    ms7200_HAL_WriteByte(uint16_t(kEqGain0 + ch), gain & 0x07);
}

void CMs7200drvHdmiRx::errDetRestart()
{
    ms7200_HAL_WriteByte(kFifoReset, 0x01);
    vsys::usleep(100);
    ms7200_HAL_WriteByte(kErrDetClear, 0x01);
}

bool CMs7200drvHdmiRx::_drv_errdet_counter(uint16_t counts[3])
{
    bool any = false;
    for (int ch = 0; ch < 3; ch++) {
        uint16_t w = ms7200_HAL_ReadWord(uint16_t(kErrCount0 + 2 * ch));
        any |= (w & 0x8000) != 0;
        counts[ch] = (w & 0x8000) ? uint16_t(w & 0x7FFF) : kInvalidCount;
    }
    return any;
}

bool CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_eq_config(uint8_t code)
{
    if (code == 254) return true;
    if (code < 254) {
        for (int ch = 0; ch < 3; ch++) setEqGain(ch, code);
        for (auto& g : m_eqGains) g = code;
        return true;
    }
    uint16_t counts[3][6];
    bool anyValid = false;
    for (uint8_t g = 2; g <= 7; g++) {
        for (int ch = 0; ch < 3; ch++) setEqGain(ch, g);
        errDetRestart();
        vsys::usleep(3000);
        uint16_t c[3];
        anyValid |= _drv_errdet_counter(c);
        for (int ch = 0; ch < 3; ch++) counts[ch][g - 2] = c[ch];
    }
    if (!anyValid) qDebug("ms7200: EQ search: no error counter was valid at any gain");
    bool ok = true;
    for (int ch = 0; ch < 3; ch++) {
        bool chOk;
        uint8_t g = eqChooseGain(counts[ch], &chOk);
        ok &= chOk;
        setEqGain(ch, g);
        m_eqGains[ch] = g;
    }
    if (!ok)
        qDebug("ms7200: EQ search failed, gains %d %d %d", m_eqGains[0].load(), m_eqGains[1].load(),
               m_eqGains[2].load());
    errDetRestart();
    return ok;
}

void CMs7200drvHdmiRx::set28Eq(int ch, uint8_t index)
{
    const auto& row = ptEqGainVal[index % 28];
    ms7200_HAL_WriteByte(uint16_t(kEq28Gain0 + 2 * ch), uint8_t(row[0] | row[1] << 4));
    ms7200_HAL_WriteByte(uint16_t(kEq28Gain0 + 2 * ch + 1), uint8_t(row[2] | row[3] << 4));
    m_eqGains[ch] = index % 28;
}

void CMs7200drvHdmiRx::cdrRestart(int waitUs)
{
    ms7200_HAL_WriteByte(kCdrReset, 0x01);
    vsys::usleep(2000);
    errDetRestart();
    if (waitUs) vsys::usleep(waitUs);
}

bool CMs7200drvHdmiRx::_drv_hdmi_rx_pi_28eq_search(uint8_t low, uint8_t high, uint8_t results[3])
{
    int lo = low % 28, hi = high % 28;
    uint16_t c[3];
    if (lo == 0 && hi == 27) {
        for (int i = 0; i <= 10; i++) {
            for (int ch = 0; ch < 3; ch++) set28Eq(ch, uint8_t(i));
            cdrRestart(10000);
            _drv_errdet_counter(c);
            if (c[0] < kInvalidCount || c[1] < kInvalidCount || c[2] < kInvalidCount) {
                lo = i;
                break;
            }
        }
        for (int i = 27; i > 17; i--) {
            for (int ch = 0; ch < 3; ch++) set28Eq(ch, uint8_t(i));
            cdrRestart(10000);
            _drv_errdet_counter(c);
            if (c[0] < kInvalidCount || c[1] < kInvalidCount || c[2] < kInvalidCount) {
                hi = i;
                break;
            }
        }
    }
    uint16_t table[3][28];
    for (auto& row : table) std::fill(std::begin(row), std::end(row), kInvalidCount);
    int end = hi;
    bool eyeFound = false;
    for (int i = lo; i <= end; i++) {
        for (int ch = 0; ch < 3; ch++) set28Eq(ch, uint8_t(i));
        cdrRestart(50000);
        _drv_errdet_counter(c);
        for (int ch = 0; ch < 3; ch++) table[ch][i] = c[ch];
        if (!eyeFound && c[0] <= 31 && c[1] <= 31 && c[2] <= 31) {
            eyeFound = true;
            end = std::min(end, i + 9);
        }
    }
    bool ok = true;
    for (int ch = 0; ch < 3; ch++) {
        bool chOk;
        results[ch] = eq28ChooseIndex(table[ch], lo, end, &chOk);
        ok &= chOk;
    }
    return ok;
}

bool CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_28eq_config(uint8_t code)
{
    if (code != 255) {
        for (int ch = 0; ch < 3; ch++) set28Eq(ch, uint8_t(code % 28));
        cdrRestart(0);
        return ms7200drv_hdmi_rx_pll_locked();
    }
    uint8_t r1[3], r2[3], r3[3], low, high;
    _drv_hdmi_rx_pi_28eq_search(0, 27, r1);
    if (!ms7200drv_hdmi_rx_pll_locked()) {
        for (int ch = 0; ch < 3; ch++) set28Eq(ch, 13);
        cdrRestart(0);
        return false;
    }
    _drv_hdmi_rx_pi_28eq_calc_next_search_range(r1, &low, &high);
    _drv_hdmi_rx_pi_28eq_search(low, high, r2);
    bool agree = std::equal(r1, r1 + 3, r2);
    if (!agree) _drv_hdmi_rx_pi_28eq_search(low, high, r3);
    for (int ch = 0; ch < 3; ch++) set28Eq(ch, agree ? r1[ch] : eq28Vote(r1[ch], r2[ch], r3[ch]));
    cdrRestart(0);
    return ms7200drv_hdmi_rx_pll_locked();
}

uint8_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_pi_phy_config_with_28eq(uint16_t clk, uint8_t code)
{
    if (code != 254) _drv_hdmi_rx_pi_phy_setup(clk);
    bool locked = ms7200drv_hdmi_rx_pi_28eq_config(code);
    return uint8_t((locked ? 2 : 0) | (ms7200drv_hdmi_rx_pll_locked() ? 1 : 0));
}

// ---------------------------------------------------------------- audio

void CMs7200drvHdmiRx::_drv_hdmi_rx_audio_clk_sel(uint8_t sel)
{
    ms7200_HAL_ModBits(kAupllCtrl, 0x30, uint8_t((sel & 0x3) << 4));
}

void CMs7200drvHdmiRx::ms7200drv_hdmi_audio_pll_config(uint8_t mode, uint16_t tmds, uint32_t n,
                                                       uint32_t cts)
{
    ms7200_HAL_SetBits(kAupllCtrl, 0x01);
    _drv_hdmi_rx_audio_clk_sel(1);
    bool dbl = ms7200_HAL_ReadDWord_Ex(kAudioClkCfg) & 0x08;
    AudioPllSetting s = audioPllCalc(mode, tmds, n, cts, dbl);
    if (mode == 3) ms7200_HAL_ModBits(kAupllDiv, 0x03, s.d);
    ms7200_HAL_WriteByte(kAupllPre, s.p);
    ms7200_HAL_WriteByte(kAupllInt, uint8_t(s.mInt));
    ms7200_HAL_WriteByte(kAupllFrac0, uint8_t(s.mFrac));
    ms7200_HAL_WriteByte(kAupllFrac1, uint8_t(s.mFrac >> 8));
    ms7200_HAL_ModBits(kAupllFrac2, 0x0F, uint8_t(s.mFrac >> 16));
    ms7200_HAL_ClrBits(kAupllCtrl, 0x01);
    vsys::usleep(100);
    ms7200_HAL_SetBits(kAupllCtrl, 0x02);
}

uint16_t CMs7200drvHdmiRx::ms7200drv_hdmi_rx_audio_config(uint8_t mode, uint16_t tmds)
{
    uint32_t n = ms7200_HAL_ReadDWord_Ex(kAcrN) & 0xFFFFF;
    uint32_t cts = ms7200_HAL_ReadDWord_Ex(kAcrCts) & 0xFFFFF;
    uint32_t k = (uint32_t(tmds) * 25) >> 5;
    if (mode == 4 || !n || !cts) {
        uint32_t c = k * 6144 / 960;
        ms7200drv_hdmi_audio_pll_config(3, tmds, 6144, c ? c : 74250);
        return 0;
    }
    uint16_t rate = audioRate(tmds, n, cts);
    if (cts > 2 * (n + n / 100) && mode != 2 && mode != 3) {
        if (mode == 1)
            ms7200drv_hdmi_audio_pll_config(1, tmds, n, cts);
        else
            _drv_hdmi_rx_audio_clk_sel(0);
    } else {
        ms7200drv_hdmi_audio_pll_config(mode == 3 ? 3 : 2, tmds, n, cts);
    }
    return rate;
}
