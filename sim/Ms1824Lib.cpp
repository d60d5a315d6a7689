#include "sim/Ms1824Lib.h"

#include <QDebug>
#include <cstring>

// The bus functions live in libVeskIO. A program that links the board
// without the library gets a chip that never answers.
#pragma weak mculib_i2c_read_16bidx8bval
#pragma weak mculib_i2c_write_16bidx8bval
#pragma weak mculib_delay_ms

namespace vsim {

namespace {

constexpr uint8_t kNoVic = 255;

struct Standard {
    uint8_t vic;
    ms1824_timing_t t;
};
// The CEA timings the scaler meets on its inputs and outputs.
const Standard kStandards[] = {
    {1, {6, 800, 525, 640, 480, 2518, 5994, 144, 35, 96, 2}},
    {2, {0, 858, 525, 720, 480, 2700, 5994, 122, 36, 62, 6}},
    {3, {0, 858, 525, 720, 480, 2700, 5994, 122, 36, 62, 6}},
    {4, {6, 1650, 750, 1280, 720, 7425, 6000, 260, 25, 40, 5}},
    {5, {7, 2200, 1125, 1920, 1080, 7425, 6000, 192, 20, 44, 5}},
    {6, {1, 1716, 525, 1440, 480, 2700, 5994, 238, 18, 124, 3}},
    {7, {1, 1716, 525, 1440, 480, 2700, 5994, 238, 18, 124, 3}},
    {16, {6, 2200, 1125, 1920, 1080, 14850, 6000, 192, 41, 44, 5}},
    {17, {0, 864, 625, 720, 576, 2700, 5000, 132, 44, 64, 5}},
    {18, {0, 864, 625, 720, 576, 2700, 5000, 132, 44, 64, 5}},
    {19, {6, 1980, 750, 1280, 720, 7425, 5000, 260, 25, 40, 5}},
    {20, {7, 2640, 1125, 1920, 1080, 7425, 5000, 192, 20, 44, 5}},
    {21, {1, 1728, 625, 1440, 576, 2700, 5000, 264, 22, 126, 3}},
    {22, {1, 1728, 625, 1440, 576, 2700, 5000, 264, 22, 126, 3}},
    {31, {6, 2640, 1125, 1920, 1080, 14850, 5000, 192, 41, 44, 5}},
    {32, {6, 2750, 1125, 1920, 1080, 7425, 2400, 192, 41, 44, 5}},
    {33, {6, 2640, 1125, 1920, 1080, 7425, 2500, 192, 41, 44, 5}},
    {34, {6, 2200, 1125, 1920, 1080, 7425, 3000, 192, 41, 44, 5}},
    {39, {3, 2304, 1250, 1920, 1080, 7200, 5000, 352, 62, 168, 5}},
};

QString size(const ms1824_timing_t* t)
{
    if (!t) return QStringLiteral("null");
    return QStringLiteral("%1x%2@%3").arg(t->u16_hactive).arg(t->u16_vactive).arg(t->u16_vfreq);
}

uint8_t readReg(uint16_t reg)
{
    if (!mculib_i2c_read_16bidx8bval) return 0;
    return mculib_i2c_read_16bidx8bval(EmuMS1824::kAddr, reg);
}

void record(const QString& call)
{
    Ms1824Lib::instance().record(call);
}

// The chip's registers, with frame memory that a running path keeps
// overwriting.
class Ms1824Chip : public RegisterChip {
public:
    Ms1824Chip() : RegisterChip(2) {}
    bool i2cRead(uint8_t* buf, size_t len) override
    {
        std::lock_guard<std::mutex> g(lock);
        for (size_t i = 0; i < len; i++) {
            buf[i] = regs[ptr];
            if (ptr >= EmuMS1824::kFrameMemory) {
                const int path = ptr >= 0xC000 ? 1 : 0;
                if (!(regs[EmuMS1824::kFreeze + path] & 1)) buf[i] = uint8_t(buf[i] + ++picture);
            }
            ptr = uint16_t(ptr + 1);
        }
        return true;
    }

private:
    uint8_t picture = 0;
};

// A fresh board has a library that has not been told anything yet.
const bool partRegistered =
    registerBoardPart("ms1824", BoardPart{[](QMap<QString, std::shared_ptr<Device>>&,
                                             const QString&) { Ms1824Lib::instance().clear(); },
                                          nullptr});

}  // namespace

// ---------------------------------------------------------------- the chip

void EmuMS1824::attach(const QVariantMap& settings)
{
    bus = settings.value("bus", 1).toInt();
    regs = std::make_shared<Ms1824Chip>();
    regs->setReg(0x0000, 0x18);
    regs->setReg(0x0001, 0x24);
    Board::instance().attachI2c(bus, kAddr >> 1, regs);
    setSource({});
}

void EmuMS1824::setSource(const QVariantMap& source)
{
    if (!regs) return;
    static const char* kinds[4] = {"cvbs", "tmds", "vga", "ypbpr"};
    for (uint16_t k = 0; k < 4; ++k) {
        bool ok = false;
        int vic = source.value(kinds[k], kNoVic).toInt(&ok);
        if (!ok || vic < 0 || vic > 255) {
            qWarning("MS1824 emulator: \"%s\" needs a VIC from 0 to 255", kinds[k]);
            vic = kNoVic;
        }
        regs->setReg(uint16_t(kLock + k), vic != kNoVic);
        regs->setReg(uint16_t(kVic + k), uint8_t(vic));
    }
    Board::instance().setI2cFailing(bus, kAddr >> 1, source.value("silent").toBool());
}

static bool registered = registerChipType("MS1824", [] { return std::make_shared<EmuMS1824>(); });

// ---------------------------------------------------------------- the record

Ms1824Lib& Ms1824Lib::instance()
{
    static Ms1824Lib* lib = new Ms1824Lib;
    return *lib;
}

QStringList Ms1824Lib::calls() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

void Ms1824Lib::clear()
{
    std::lock_guard<std::mutex> g(lock);
    log.clear();
}

void Ms1824Lib::reset()
{
    std::lock_guard<std::mutex> g(lock);
    log.clear();
    user.clear();
}

void Ms1824Lib::record(const QString& call)
{
    std::lock_guard<std::mutex> g(lock);
    // A long run keeps the recent past only.
    if (log.size() >= 10000) log.erase(log.begin(), log.begin() + 5000);
    log << call;
}

void Ms1824Lib::setUserTable(const ms1824_timing_t* table, uint8_t count)
{
    std::lock_guard<std::mutex> g(lock);
    user.clear();
    if (table) user.assign(table, table + count);
}

bool Ms1824Lib::userTiming(uint8_t index, ms1824_timing_t* out) const
{
    std::lock_guard<std::mutex> g(lock);
    if (index >= user.size()) return false;
    *out = user[index];
    return true;
}

}  // namespace vsim

using vsim::EmuMS1824;

// ---------------------------------------------------------------- the library

extern "C" {

uint8_t ms1824_get_vic(uint8_t u8_source, uint8_t)
{
    if (u8_source > MS1824_SRC_YPBPR) return vsim::kNoVic;
    if (!(vsim::readReg(uint16_t(EmuMS1824::kLock + u8_source)) & 1)) return vsim::kNoVic;
    return vsim::readReg(uint16_t(EmuMS1824::kVic + u8_source));
}

bool ms1824_get_std_timing(uint8_t u8_vic, ms1824_timing_t* timing)
{
    if (!timing) return false;
    std::memset(timing, 0, sizeof *timing);
    if (u8_vic >= 128) return vsim::Ms1824Lib::instance().userTiming(u8_vic - 128, timing);
    for (const vsim::Standard& s : vsim::kStandards) {
        if (s.vic != u8_vic) continue;
        *timing = s.t;
        return true;
    }
    return false;
}

void ms1824_set_input_timing(uint8_t u8_path, const ms1824_timing_t* timing)
{
    vsim::record(QStringLiteral("set_input_timing(%1, %2)").arg(u8_path).arg(vsim::size(timing)));
}

void ms1824_set_output_timing(const ms1824_timing_t* timing)
{
    vsim::record(QStringLiteral("set_output_timing(%1)").arg(vsim::size(timing)));
}

void ms1824_set_tvd_mode(uint8_t u8_mode, uint8_t u8_path)
{
    vsim::record(QStringLiteral("set_tvd_mode(%1, %2)").arg(u8_mode).arg(u8_path));
    // The decoder needs a moment to settle on a standard.
    if (u8_mode && mculib_delay_ms) mculib_delay_ms(1);
}

void ms1824_set_user_timing_table(const ms1824_timing_t* table, uint8_t u8_count)
{
    vsim::Ms1824Lib::instance().setUserTable(table, u8_count);
    vsim::record(QStringLiteral("set_user_timing_table(%1)").arg(u8_count));
}

void ms1824_set_video_scaler(uint8_t u8_path, uint16_t u16_in_width, uint16_t u16_in_height,
                             uint16_t u16_out_width, uint16_t u16_out_height,
                             uint32_t u32_mem_kbytes)
{
    vsim::record(QStringLiteral("set_video_scaler(%1, %2x%3, %4x%5, %6)")
                     .arg(u8_path)
                     .arg(u16_in_width)
                     .arg(u16_in_height)
                     .arg(u16_out_width)
                     .arg(u16_out_height)
                     .arg(u32_mem_kbytes));
}

void ms1824_set_video_window(uint8_t u8_path, uint16_t u16_x, uint16_t u16_y, uint16_t u16_width,
                             uint16_t u16_height)
{
    vsim::record(QStringLiteral("set_video_window(%1, %2, %3, %4x%5)")
                     .arg(u8_path)
                     .arg(u16_x)
                     .arg(u16_y)
                     .arg(u16_width)
                     .arg(u16_height));
}

void ms1824_set_video2_alpha_ratio(uint8_t u8_percent)
{
    vsim::record(QStringLiteral("set_video2_alpha_ratio(%1)").arg(u8_percent));
}

void ms1824_config_input_video1_port(uint8_t u8_source)
{
    vsim::record(QStringLiteral("config_input_video1_port(%1)").arg(u8_source));
}

void ms1824_config_input_video2_port(uint8_t u8_source)
{
    vsim::record(QStringLiteral("config_input_video2_port(%1)").arg(u8_source));
}

void ms1824_config_output_video_port(uint8_t u8_port)
{
    vsim::record(QStringLiteral("config_output_video_port(%1)").arg(u8_port));
}

void ms1824_pattern_on(uint8_t u8_path, uint8_t u8_pattern)
{
    vsim::record(QStringLiteral("pattern_on(%1, %2)").arg(u8_path).arg(u8_pattern));
}

void ms1824_pattern_off(uint8_t u8_path)
{
    vsim::record(QStringLiteral("pattern_off(%1)").arg(u8_path));
}

void ms1824_display_trigger(uint8_t u8_paths)
{
    vsim::record(QStringLiteral("display_trigger(%1)").arg(u8_paths));
    if (mculib_i2c_write_16bidx8bval)
        mculib_i2c_write_16bidx8bval(EmuMS1824::kAddr, EmuMS1824::kTrigger, u8_paths);
}

void ms1824_video_freeze(uint8_t u8_path, bool b_on)
{
    vsim::record(QStringLiteral("video_freeze(%1, %2)").arg(u8_path).arg(b_on));
    if (mculib_i2c_write_16bidx8bval && u8_path < 2)
        mculib_i2c_write_16bidx8bval(EmuMS1824::kAddr, uint16_t(EmuMS1824::kFreeze + u8_path),
                                     b_on);
}

void ms1824_osd_init(void)
{
    vsim::record(QStringLiteral("osd_init()"));
}

void ms1824_osd_set_window(uint8_t u8_win, uint16_t u16_x, uint16_t u16_y, uint8_t u8_cols,
                           uint8_t u8_rows)
{
    vsim::record(QStringLiteral("osd_set_window(%1, %2, %3, %4x%5)")
                     .arg(u8_win)
                     .arg(u16_x)
                     .arg(u16_y)
                     .arg(u8_cols)
                     .arg(u8_rows));
}

void ms1824_osd_show_string(uint8_t u8_win, uint8_t u8_row, uint8_t u8_col, const char* text,
                            uint8_t u8_len)
{
    const QString s = text ? QString::fromLatin1(text, int(strnlen(text, u8_len))) : QString();
    vsim::record(QStringLiteral("osd_show_string(%1, %2, %3, \"%4\")")
                     .arg(u8_win)
                     .arg(u8_row)
                     .arg(u8_col)
                     .arg(s));
}

void ms1824_osd_trans_font(const char* charset, const uint8_t*, const uint16_t*, uint8_t u8_colors)
{
    vsim::record(QStringLiteral("osd_trans_font(\"%1\", %2)")
                     .arg(QString::fromLatin1(charset ? charset : ""))
                     .arg(u8_colors));
}

void ms1824_osd_win_enable(uint8_t u8_win, bool b_on)
{
    vsim::record(QStringLiteral("osd_win_enable(%1, %2)").arg(u8_win).arg(b_on));
}

void ms1824_uninit(void)
{
    vsim::record(QStringLiteral("uninit()"));
}

}  // extern "C"
