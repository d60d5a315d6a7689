#include "sim/EmuLT8619.h"

#include <cmath>

#include "sim/BoardClock.h"

namespace vsim {

namespace {
int number(const QVariant& v, int fallback)
{
    if (!v.isValid()) return fallback;
    bool ok = false;
    const int n = v.toString().toInt(&ok, 0);
    return ok ? n : v.toInt();
}

int colourCode(const QVariant& v)
{
    const QString s = v.toString();
    if (s == "YCbCr444") return 0x40;
    if (s == "YCbCr422") return 0x20;
    if (s == "RGB" || s.isEmpty()) return 0x00;
    return number(v, 0) & 0x60;
}
}  // namespace

void EmuLT8619::attach(const QVariantMap& settings)
{
    const int bus = settings.value("bus", 1).toInt();
    const int addr8 = number(settings.value("addr"), kAddr);
    const int id = number(settings.value("chipId"), 0x1604);
    {
        std::lock_guard<std::mutex> g(lock);
        banks[0x80].fill(0);
        banks[0x60].fill(0);
        banks[0x60][0x00] = uint8_t(id >> 8);
        banks[0x60][0x01] = uint8_t(id);
    }
    Board::instance().attachI2c(bus, uint8_t((addr8 >> 1) & 0x7F), shared_from_this());
}

void EmuLT8619::loadTiming(const QVariantMap& s)
{
    const int width = s.value("width", 1920).toInt();
    const int height = s.value("height", 1080).toInt();
    // Measured per field when interlaced.
    const int div = interlaced ? 2 : 1;
    const int lines = height / div;
    const int vtotal = s.value("vtotal", height + 45).toInt() / div;
    const int htotal = s.value("htotal", width + 280).toInt();
    const int hsw = s.value("hsyncWidth", 44).toInt(), hbp = s.value("hbackPorch", 148).toInt();
    const int vsw = s.value("vsyncWidth", 5).toInt(), vbp = s.value("vbackPorch", 36).toInt();
    const double rate = s.value("framerate", 60).toDouble();
    const int counter = s.contains("frameCounter") ? number(s.value("frameCounter"), 0)
                        : rate > 0                 ? int(std::lround(25e6 / rate))
                                                   : 0;

    // High nibbles that the receiver must mask away carry other status.
    auto& m = banks[0x60];
    m[0x10] = uint8_t(counter >> 16);
    m[0x11] = uint8_t(counter >> 8);
    m[0x12] = uint8_t(counter);
    m[0x13] = uint8_t(vsw);
    m[0x14] = uint8_t(0x50 | ((hsw >> 8) & 0x0F));
    m[0x15] = uint8_t(hsw);
    m[0x16] = uint8_t(vbp);
    m[0x18] = uint8_t(0x50 | ((hbp >> 8) & 0x0F));
    m[0x19] = uint8_t(hbp);
    m[0x1C] = uint8_t(0x50 | ((vtotal >> 8) & 0x0F));
    m[0x1D] = uint8_t(vtotal);
    m[0x1E] = uint8_t(htotal >> 8);
    m[0x1F] = uint8_t(htotal);
    m[0x20] = uint8_t(0x50 | ((lines >> 8) & 0x0F));
    m[0x21] = uint8_t(lines);
    m[0x22] = uint8_t(width >> 8);
    m[0x23] = uint8_t(width);
    m[0x24] = uint8_t((s.value("hsyncPol", true).toBool() ? 1 : 0) |
                      (s.value("vsyncPol", true).toBool() ? 2 : 0));

    auto& r = banks[0x80];
    r[0x16] = uint8_t(number(s.value("depth"), 0) & 0xF0);
    r[0x71] = uint8_t(colourCode(s.value("colorSpace")) | 0x01);
    r[0x72] = uint8_t(number(s.value("colorimetry"), 0) & 0xC0);
    r[0x73] = uint8_t((number(s.value("extended"), 0) & 0x70) |
                      (number(s.value("quantisation"), 0) & 0x0C));
    r[0x74] = uint8_t(0x80 | (number(s.value("vic"), 0) & 0x7F));
    r[0x75] = uint8_t(0x30 | (number(s.value("repetition"), 0) & 0x0F));
}

void EmuLT8619::setSource(const QVariantMap& source)
{
    std::lock_guard<std::mutex> g(lock);
    const bool any = !source.isEmpty();
    clock = any && source.value("clock", true).toBool();
    pll = source.value("pll", true).toBool();
    hsync = source.value("hsync", true).toBool();
    hdmi = source.value("hdmi", true).toBool();
    interlaced = source.value("interlace").toBool();
    dropAt = source.contains("syncDropAtCheck") ? source.value("syncDropAtCheck").toInt() + 1 : 0;
    if (!clock) pllArmed = false;
    if (any) loadTiming(source);
}

uint8_t EmuLT8619::readLocked(uint8_t r)
{
    const bool locked = clock && pll && pllArmed;
    if (bank == 0x80) {
        switch (r) {
            case 0x44:
                return uint8_t(banks[0x80][r] & ~0x08) | (clock ? 0x08 : 0);
            case 0x87:
                return uint8_t(banks[0x80][r] & ~0x10) | (locked ? 0x10 : 0);
            case 0x13: {
                syncReadCount++;
                bool stable = locked && hsync;
                if (stable && dropAt > 0 && --dropAt == 0) stable = false;
                return uint8_t((stable ? 0x01 : 0) | (hdmi ? 0x02 : 0));
            }
        }
    }
    if (bank == 0x60 && r == 0x60)
        return uint8_t(banks[0x60][r] & ~0x08) | (clock && interlaced ? 0x08 : 0);
    auto it = banks.find(bank);
    return it == banks.end() ? 0 : it->second[r];
}

void EmuLT8619::writeLocked(uint8_t r, uint8_t value)
{
    if (r == 0xFF) {
        bank = value;
        return;
    }
    banks[bank][r] = value;
    written.emplace(bank, r);
    if (bank == 0x80) {
        if (r == 0x06) hpd.emplace_back(BoardClock::instance().nowUs(), (value & 0x08) != 0);
        if (r == 0x8F) edidPtr = value;
        if (r == 0x90 && banks[0x80][0x8E] == 0x07) edidShadow[edidPtr++] = value;
    }
    // The last step of the PLL restart the receiver runs when a clock comes.
    if (bank == 0x60 && r == 0x0E && value == 0xFF && clock) pllArmed = true;
}

bool EmuLT8619::i2cWrite(const uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    if (len == 0) return true;
    ptr = buf[0];
    for (size_t i = 1; i < len; i++) {
        writeLocked(ptr, buf[i]);
        if (ptr != 0x90) ptr++;  // the EDID port stays put
    }
    return true;
}

bool EmuLT8619::i2cRead(uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    for (size_t i = 0; i < len; i++) buf[i] = readLocked(ptr++);
    return true;
}

uint8_t EmuLT8619::reg(uint8_t b, uint8_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    auto it = banks.find(b);
    return it == banks.end() ? 0 : it->second[r];
}

bool EmuLT8619::wrote(uint8_t b, uint8_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    return written.count({b, r}) != 0;
}

void EmuLT8619::clearWrites()
{
    std::lock_guard<std::mutex> g(lock);
    written.clear();
}

int EmuLT8619::syncReads() const
{
    std::lock_guard<std::mutex> g(lock);
    return syncReadCount;
}

QByteArray EmuLT8619::edid() const
{
    std::lock_guard<std::mutex> g(lock);
    return QByteArray(reinterpret_cast<const char*>(edidShadow.data()), int(edidShadow.size()));
}

std::vector<std::pair<int64_t, bool>> EmuLT8619::hotPlug() const
{
    std::lock_guard<std::mutex> g(lock);
    return hpd;
}

static bool registered = registerChipType("LT8619", [] { return std::make_shared<EmuLT8619>(); });

}  // namespace vsim
