#include "driver/video/DriverMS1824.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <QDebug>
#include <cstdio>
#include <cstring>

#include "frame/VeskSys.h"

ms1824_timing_t DriverMS1824::timing = {};

uint8_t g_u8_InputPort = 1;
uint8_t g_u8_OutputPort = 4;
uint8_t g_u8_input_mode1 = 255;
uint8_t g_u8_input_mode2 = 255;
ms1824_timing_t g_st_input_timing1 = {};
ms1824_timing_t g_st_input_timing2 = {};
ms1824_timing_t g_st_output_timing = {};
uint8_t g_u8_cvbs_count = 0;
uint8_t g_bOSDShown = 0;
uint8_t g_u8OSDCount = 0;

namespace {

const char* const kOutputLabels[5] = {"VGA OUT      ", "MS1824 AV OUT", "MS7024 AV OUT",
                                      "LVDS OUT     ", "TTL OUT      "};
const char* const kInputLabels[3] = {"YPbPr  INPUT ", "VGA  INPUT   ", "CVBS INPUT   "};

constexpr unsigned kBus = 1;
constexpr uint8_t kChip = 0xB2;  // eight-bit form
// Where each video path's frame memory shows through the chip's register
// window, and how much of it the memory test goes over.
constexpr uint16_t kFrameMemory[2] = {0x8000, 0xC000};
constexpr uint16_t kMemoryTestBytes = 64;
constexpr uint8_t kNoVic = 255;
constexpr uint8_t kOsdWin = 0;
constexpr uint8_t kLabelLen = 13;
constexpr int kOsdTicks = 30;
// Frame memory of the chip that one path may use for its scaler, in KiB.
constexpr uint32_t kPathMemoryKb = 4096;

// Timings the library does not carry itself; they become VICs 128 onwards.
// 129 is what the VGA output is driven with.
const ms1824_timing_t kUserTimings[] = {
    {6, 1056, 628, 800, 600, 4000, 6032, 216, 27, 128, 4},
    {0, 1344, 806, 1024, 768, 6500, 6000, 296, 35, 136, 6},
    {6, 1688, 1066, 1280, 1024, 10800, 6002, 360, 41, 112, 3},
    {6, 1792, 795, 1360, 768, 8550, 6002, 368, 24, 112, 6},
};

// Label glyphs: 8x8, one byte a line, for the characters the labels use.
const char OSD_CHARSET[] = " 012478ABCDGILMNOPSTUVYbr";
const uint8_t OSD_1BPP_FONT_TABLE[][8] = {
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},  // ' '
    {0x3C, 0x66, 0x6E, 0x76, 0x66, 0x66, 0x3C, 0x00},  // 0
    {0x18, 0x38, 0x18, 0x18, 0x18, 0x18, 0x7E, 0x00},  // 1
    {0x3C, 0x66, 0x06, 0x0C, 0x30, 0x60, 0x7E, 0x00},  // 2
    {0x0C, 0x1C, 0x3C, 0x6C, 0x7E, 0x0C, 0x0C, 0x00},  // 4
    {0x7E, 0x06, 0x0C, 0x18, 0x30, 0x30, 0x30, 0x00},  // 7
    {0x3C, 0x66, 0x66, 0x3C, 0x66, 0x66, 0x3C, 0x00},  // 8
    {0x18, 0x3C, 0x66, 0x66, 0x7E, 0x66, 0x66, 0x00},  // A
    {0x7C, 0x66, 0x66, 0x7C, 0x66, 0x66, 0x7C, 0x00},  // B
    {0x3C, 0x66, 0x60, 0x60, 0x60, 0x66, 0x3C, 0x00},  // C
    {0x78, 0x6C, 0x66, 0x66, 0x66, 0x6C, 0x78, 0x00},  // D
    {0x3C, 0x66, 0x60, 0x6E, 0x66, 0x66, 0x3C, 0x00},  // G
    {0x3C, 0x18, 0x18, 0x18, 0x18, 0x18, 0x3C, 0x00},  // I
    {0x60, 0x60, 0x60, 0x60, 0x60, 0x60, 0x7E, 0x00},  // L
    {0x63, 0x77, 0x7F, 0x6B, 0x63, 0x63, 0x63, 0x00},  // M
    {0x66, 0x76, 0x7E, 0x7E, 0x6E, 0x66, 0x66, 0x00},  // N
    {0x3C, 0x66, 0x66, 0x66, 0x66, 0x66, 0x3C, 0x00},  // O
    {0x7C, 0x66, 0x66, 0x7C, 0x60, 0x60, 0x60, 0x00},  // P
    {0x3C, 0x66, 0x60, 0x3C, 0x06, 0x66, 0x3C, 0x00},  // S
    {0x7E, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x00},  // T
    {0x66, 0x66, 0x66, 0x66, 0x66, 0x66, 0x3C, 0x00},  // U
    {0x66, 0x66, 0x66, 0x66, 0x66, 0x3C, 0x18, 0x00},  // V
    {0x66, 0x66, 0x66, 0x3C, 0x18, 0x18, 0x18, 0x00},  // Y
    {0x60, 0x60, 0x7C, 0x66, 0x66, 0x66, 0x7C, 0x00},  // b
    {0x00, 0x00, 0x7C, 0x66, 0x60, 0x60, 0x60, 0x00},  // r
};
static_assert(sizeof OSD_1BPP_FONT_TABLE / 8 == sizeof OSD_CHARSET - 1, "one glyph a character");
// Background (shown as transparent) and text.
const uint16_t OSD_COLOR_TABLE[] = {0x0000, 0xFFFF};

// Output port number to the library's port.
const uint8_t kOutputPorts[5] = {MS1824_OUT_VGA, MS1824_OUT_CVBS, MS1824_OUT_BT656, MS1824_OUT_LVDS,
                                 MS1824_OUT_TTL};

struct InputRoute {
    uint8_t source;
    uint8_t path;
};
// Input port to the kind of source the library looks for and the path it
// comes in on.
const InputRoute kRoutes[3] = {
    {MS1824_SRC_YPBPR, 0},
    {MS1824_SRC_VGA, 1},
    {MS1824_SRC_CVBS, 0},
};

const char* portName(uint8_t port)
{
    static const char* names[3] = {"YPbPr", "VGA", "CVBS"};
    return port < 3 ? names[port] : "none";
}

DriverBase* busAccess()
{
    // The library's register access needs an object; this one lives as long
    // as the process, as every driver does.
    static DriverBase* bus = new DriverBase(nullptr);
    return bus;
}

}  // namespace

// ---------------------------------------------------------------- the chip's bus

extern "C" uint8_t mculib_i2c_read_16bidx8bval(uint8_t u8_address, uint16_t u16_index)
{
    // Its own transfer, with records of its own: unlike DriverBase::read,
    // it shares nothing that needs DriverBase::mutex. The register number
    // goes most significant byte first, as the chip takes it.
    int f = DriverBase::openBus(kBus, u8_address);
    if (f < 0) return 0;
    const uint16_t addr7 = uint16_t(u8_address >> 1);
    uint8_t reg[2] = {uint8_t(u16_index >> 8), uint8_t(u16_index & 0xFF)};
    uint8_t value = 0;
    struct i2c_msg msgs[2];
    msgs[0].addr = addr7;
    msgs[0].flags = 0;
    msgs[0].len = 2;
    msgs[0].buf = reg;
    msgs[1].addr = addr7;
    msgs[1].flags = I2C_M_RD;
    msgs[1].len = 1;
    msgs[1].buf = &value;
    struct i2c_rdwr_ioctl_data transfer;
    transfer.msgs = msgs;
    transfer.nmsgs = 2;
    if (vsys::ioctl(f, I2C_RDWR, static_cast<void*>(&transfer)) != 2) {
        qDebug("ms1824 CMD_I2C_READ_IPC error! %#x %#x ", unsigned(addr7), unsigned(u16_index));
        vsys::close(f);
        return 0;
    }
    vsys::close(f);
    return value;
}

extern "C" bool mculib_i2c_write_16bidx8bval(uint8_t u8_address, uint16_t u16_index,
                                             uint8_t u8_value)
{
    return busAccess()->write(kBus, u8_address, u16_index, u8_value, 2, 1) == 1;
}

extern "C" void mculib_i2c_burstread_16bidx8bval(uint8_t u8_address, uint16_t u16_index,
                                                 uint16_t u16_length, uint8_t* buf)
{
    if (!buf) return;
    for (uint16_t i = 0; i < u16_length; ++i)
        buf[i] = mculib_i2c_read_16bidx8bval(u8_address, uint16_t(u16_index + i));
}

extern "C" void mculib_i2c_burstwrite_16bidx8bval(uint8_t u8_address, uint16_t u16_index,
                                                  uint16_t u16_length, const uint8_t* buf)
{
    if (!buf) return;
    for (uint16_t i = 0; i < u16_length; ++i)
        mculib_i2c_write_16bidx8bval(u8_address, uint16_t(u16_index + i), buf[i]);
}

extern "C" void mculib_delay_ms(uint8_t u8_ms)
{
    vsys::msleep(u8_ms);
}

// ---------------------------------------------------------------- the driver

DriverMS1824::DriverMS1824(QObject* parent) : DriverBase(parent), timer(new QTimer(this))
{
    connect(timer, &QTimer::timeout, this, &DriverMS1824::onTimer);
    memset(&timing, 0, sizeof timing);
}

void DriverMS1824::init()
{
    sys_vid_process_int();
    timer->start(500);
    onTimer();
}

void DriverMS1824::onTimer()
{
    ms1824_timing_t now = sys_vga_media_service();
    memcpy(&timing, &now, sizeof timing);
}

void DriverMS1824::onCheck()
{
    // Built whole each pass: nothing of an earlier signal outlives it.
    QMap<QString, QVariant> fresh;
    const bool avalible = timing.u16_hactive != 0 && timing.u16_vactive != 0;
    fresh["avalible"] = avalible;
    fresh["protocol"] = "VGA";
    if (avalible) {
        fresh["width"] = int(timing.u16_hactive);
        fresh["height"] = int(timing.u16_vactive);
        fresh["framerate"] = int(timing.u16_vfreq / 100);
        fresh["interlace"] = false;
        fresh["full"] = true;
    }
    info = fresh;
    info.setSharable(false);
}

QMap<QString, QVariant> DriverMS1824::diagnostics()
{
    QMap<QString, QVariant> d;
    d["input"] = portName(g_u8_InputPort);
    d["vic"] = g_u8_InputPort < 3 && kRoutes[g_u8_InputPort].path == 1 ? g_u8_input_mode2
                                                                       : g_u8_input_mode1;
    if (g_u8_InputPort == 2) d["cvbsCount"] = g_u8_cvbs_count;
    return d;
}

// ---------------------------------------------------------------- the service

ms1824_timing_t sys_vga_media_service()
{
    if (g_u8_InputPort >= 3) {
        static bool told = false;
        if (!told) qDebug("ms1824: input port %d does not exist, no signal", g_u8_InputPort);
        told = true;
        return ms1824_timing_t{};
    }
    const InputRoute route = kRoutes[g_u8_InputPort];
    const uint8_t path = route.path;
    uint8_t& stored = path == 0 ? g_u8_input_mode1 : g_u8_input_mode2;
    ms1824_timing_t& t = path == 0 ? g_st_input_timing1 : g_st_input_timing2;
    uint8_t vic = ms1824_get_vic(route.source, path);

    if (g_u8_InputPort == 2) {
        if (vic != kNoVic) {
            // Never past 6: the test below only asks whether 6 was reached.
            if (g_u8_cvbs_count < 6) g_u8_cvbs_count++;
            if (vic == stored) {
                // A steady standard other than 1 and 3 is looked for again
                // every sixth tick, in case the decoder locked on the wrong one.
                if (!(g_u8_cvbs_count >= 6 && (vic & 0xFD) != 1)) return t;
                g_u8_cvbs_count = 0;
                ms1824_set_tvd_mode(1, path);
                vic = ms1824_get_vic(route.source, path);
                if (vic == stored) return t;
            }
        } else {
            g_u8_cvbs_count = 0;
            ms1824_set_tvd_mode(0, path);
        }
    }

    if (vic == stored) return t;

    // The bars hide the picture while the chip is set up again.
    ms1824_pattern_on(path, 1);
    if (vic == kNoVic) {
        stored = kNoVic;
        t.u16_hactive = 0;
        t.u16_vactive = 0;
        ms1824_pattern_off(path);
        return t;
    }
    stored = vic;

    if (route.source > MS1824_SRC_TMDS) {
        // A VIC the library has no timing for leaves a zeroed record: no
        // signal for onCheck.
        ms1824_get_std_timing(vic, &t);
        ms1824_set_input_timing(path, &t);
        if (vic == 6 || vic == 21) {
            t.u16_hactive /= 2;  // the source repeats every pixel
        } else if (vic == 5 || vic == 20 || vic == 39) {
            // full width and height as they stand
        } else if (vic >= 5 && vic <= 39) {
            // straight to the output
        } else {
            t.u16_vactive /= 2;
        }
    } else if (route.source == MS1824_SRC_CVBS) {
        uint8_t standard = 0;
        if (vic == 0 || vic == 1 || vic == 3)
            standard = 2;
        else if (vic == 2 || vic == 4 || vic == 5)
            standard = 17;
        // Any other standard keeps the timing the path had, and the chip
        // is set to it again.
        if (standard) ms1824_get_std_timing(standard, &t);
        ms1824_set_input_timing(path, &t);
    }

    sys_outout_key();
    ms1824_display_trigger(_set_scaler());
    ms1824_pattern_off(path);
    ms1824_pattern_off(path);
    return t;
}

void sys_vid_process_int()
{
    _init_ms1824();
    _setup_video_input(g_u8_InputPort);
    sys_outout_key();
}

void sys_power(bool on)
{
    if (on) {
        _init_ms1824();
        _setup_video_input(g_u8_InputPort);
        sys_outout_key();
    } else {
        ms1824_uninit();
    }
}

void sys_outout_key()
{
    ms1824_osd_win_enable(kOsdWin, false);
    g_bOSDShown = 0;
    uint8_t vic = kNoVic;
    switch (g_u8_OutputPort) {
        case 0:
            vic = 129;
            break;
        case 1:
            vic = 2;
            break;
        case 3:
            vic = 16;
            break;
        case 4: {
            // The panel follows what the digital input on path 2 carries.
            const uint8_t tmds = ms1824_get_vic(MS1824_SRC_TMDS, 1);
            vic = tmds == 0 || tmds == kNoVic ? 16 : tmds;
            break;
        }
        default:
            break;
    }
    _setup_video_output();
    _setup_video_output_resolution(vic);
    sys_video_mute_service();
    _setup_video_win_pos();
    ms1824_display_trigger(MS1824_PATH1 | MS1824_PATH2);
}

void sys_video_mute_service()
{
    if (g_u8_input_mode1 == kNoVic) ms1824_pattern_on(0, 0);
    if (g_u8_input_mode2 == kNoVic) ms1824_pattern_on(1, 0);
}

void _switch_input_mode()
{
    ms1824_osd_win_enable(kOsdWin, false);
    g_bOSDShown = 0;
    ms1824_pattern_on(0, 0);
    ms1824_pattern_on(1, 0);
    _setup_video_input(g_u8_InputPort);
    _setup_video_win_pos();
    _set_scaler();
    _set_osdwin_pos();
    ms1824_display_trigger(MS1824_PATH1 | MS1824_PATH2);
}

void _set_osdwin_pos()
{
    static const char blank[] = "             ";
    ms1824_osd_set_window(kOsdWin, 55, 10, kLabelLen, 4);
    for (uint8_t row = 0; row < 4; ++row) ms1824_osd_show_string(kOsdWin, row, 0, blank, kLabelLen);
    if (g_u8_OutputPort < 5)
        ms1824_osd_show_string(kOsdWin, 0, 0, kOutputLabels[g_u8_OutputPort], kLabelLen);
    if (g_u8_InputPort < 3)
        ms1824_osd_show_string(kOsdWin, 2, 0, kInputLabels[g_u8_InputPort], kLabelLen);
    ms1824_osd_win_enable(kOsdWin, true);
    g_bOSDShown = 1;
    g_u8OSDCount = 0;
}

void osd_service()
{
    if (!g_bOSDShown) return;
    if (++g_u8OSDCount < kOsdTicks) return;
    ms1824_osd_win_enable(kOsdWin, false);
    g_bOSDShown = 0;
    g_u8OSDCount = 0;
}

void _init_ms1824()
{
    ms1824_set_user_timing_table(kUserTimings, uint8_t(sizeof kUserTimings / sizeof *kUserTimings));
    ms1824_osd_init();
    ms1824_osd_trans_font(OSD_CHARSET, &OSD_1BPP_FONT_TABLE[0][0], OSD_COLOR_TABLE,
                          uint8_t(sizeof OSD_COLOR_TABLE / sizeof *OSD_COLOR_TABLE));
}

void _setup_video_input(uint8_t port)
{
    if (port >= 3) {
        qDebug("ms1824: input port %d does not exist, no input set up", port);
        return;
    }
    if (kRoutes[port].path == 0)
        ms1824_config_input_video1_port(kRoutes[port].source);
    else
        ms1824_config_input_video2_port(kRoutes[port].source);
}

void _setup_video_output()
{
    if (g_u8_OutputPort < 5) ms1824_config_output_video_port(kOutputPorts[g_u8_OutputPort]);
}

void _setup_video_output_resolution(uint8_t vic)
{
    if (vic != kNoVic && ms1824_get_std_timing(vic, &g_st_output_timing)) {
        ms1824_set_output_timing(&g_st_output_timing);
        return;
    }
    // The external encoder makes its own timing; the scaler then has no
    // output size to aim at.
    memset(&g_st_output_timing, 0, sizeof g_st_output_timing);
}

void _setup_video_win_pos()
{
    const uint16_t w = g_st_output_timing.u16_hactive, h = g_st_output_timing.u16_vactive;
    const bool second = g_u8_InputPort < 3 && kRoutes[g_u8_InputPort].path == 1;
    ms1824_set_video_window(second ? 1 : 0, 0, 0, w, h);
    ms1824_set_video2_alpha_ratio(second ? 100 : 0);
}

uint32_t _cal_mem_size(uint16_t width, uint16_t height)
{
    // Two bytes a pixel (4:2:2), in KiB.
    return uint32_t(width) * height * 2 / 1024;
}

uint32_t _return_minof_three(uint32_t a, uint32_t b, uint32_t c)
{
    uint32_t m = a < b ? a : b;
    return m < c ? m : c;
}

uint8_t _set_scaler()
{
    if (g_u8_InputPort >= 3) return 0;
    const uint8_t path = kRoutes[g_u8_InputPort].path;
    const ms1824_timing_t& in = path == 0 ? g_st_input_timing1 : g_st_input_timing2;
    const ms1824_timing_t& out = g_st_output_timing;
    // Nothing to scale from or to: no path needs taking into use.
    if (!in.u16_hactive || !in.u16_vactive || !out.u16_hactive || !out.u16_vactive) return 0;
    const uint32_t mem =
        _return_minof_three(_cal_mem_size(in.u16_hactive, in.u16_vactive),
                            _cal_mem_size(out.u16_hactive, out.u16_vactive), kPathMemoryKb);
    ms1824_set_video_scaler(path, in.u16_hactive, in.u16_vactive, out.u16_hactive, out.u16_vactive,
                            mem);
    return path == 0 ? MS1824_PATH1 : MS1824_PATH2;
}

bool ms1824_memory_test(uint8_t port)
{
    if (port >= 3) return false;
    const uint8_t path = kRoutes[port].path;
    uint8_t pattern[kMemoryTestBytes], back[kMemoryTestBytes];
    // Every bit both ways, and no two neighbours alike.
    for (uint16_t i = 0; i < kMemoryTestBytes; ++i) pattern[i] = uint8_t((i & 1 ? 0xAA : 0x55) ^ i);
    memset(back, 0, sizeof back);
    // A running path keeps writing its frame memory: only a frozen one can
    // hold the pattern long enough to read it back.
    ms1824_video_freeze(path, true);
    mculib_i2c_burstwrite_16bidx8bval(kChip, kFrameMemory[path], kMemoryTestBytes, pattern);
    mculib_i2c_burstread_16bidx8bval(kChip, kFrameMemory[path], kMemoryTestBytes, back);
    ms1824_video_freeze(path, false);
    return memcmp(pattern, back, sizeof back) == 0;
}
