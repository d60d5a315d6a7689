#include "sim/Emu6911UXC.h"

#include <QDebug>
#include <algorithm>
#include <cmath>

#include "sim/Peripherals.h"

namespace vsim {

namespace {
constexpr uint8_t kAddr7 = 0x56 >> 1;
constexpr int64_t kPulseNs = 100 * 1000000LL;
}  // namespace

bool Paged6911::i2cWrite(const uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    if (len == 0) return true;
    ptr = buf[0];
    for (size_t i = 1; i < len; i++, ptr++) {
        log.emplace_back(uint16_t(page << 8 | ptr), buf[i]);
        if (ptr == 0xFF) {
            page = buf[i];
            continue;
        }
        regs[page][ptr] = buf[i];
        // Writing 0x21 to 0x40 of page 0x85 starts a clock count.
        if (page == 0x85 && ptr == 0x40) measured = buf[i] == 0x21;
    }
    return true;
}

uint8_t Paged6911::readLocked(uint8_t r) const
{
    if (r == 0xFF) return page;
    if (page == 0x86 && regs[0x80][0xEE] == 1) {
        auto hi = [](int v) { return uint8_t((v >> 8) & 0xFF); };
        auto lo = [](int v) { return uint8_t(v & 0xFF); };
        switch (r) {
            case 0x7A:
                return hi(htotal);
            case 0x7B:
                return lo(htotal);
            case 0x7C:
                return hi(vtotal);
            case 0x7D:
                return lo(vtotal);
            case 0x7E:
                return hi(lines);
            case 0x7F:
                return lo(lines);
            case 0x80:
                return hi(halfWidth);
            case 0x81:
                return lo(halfWidth);
            default:
                break;
        }
    }
    if (page == 0x85 && measured) {
        // The upper nibble of 0x48 is the counter's status, not its value.
        if (r == 0x48) return uint8_t(0xA0 | ((count >> 16) & 0x0F));
        if (r == 0x49) return uint8_t((count >> 8) & 0xFF);
        if (r == 0x4A) return uint8_t(count & 0xFF);
    }
    return regs[page][r];
}

bool Paged6911::i2cRead(uint8_t* buf, size_t len)
{
    std::lock_guard<std::mutex> g(lock);
    for (size_t i = 0; i < len; i++) buf[i] = readLocked(ptr++);
    return true;
}

void Paged6911::setTiming(int halfWidth_, int htotal_, int vtotal_, int lines_, int count_)
{
    std::lock_guard<std::mutex> g(lock);
    halfWidth = halfWidth_;
    htotal = htotal_;
    vtotal = vtotal_;
    lines = lines_;
    count = count_ & 0xFFFFF;
}

std::vector<std::pair<uint16_t, uint8_t>> Paged6911::writes() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

void Emu6911UXC::attach(const QVariantMap& settings)
{
    const int bus = settings.value("bus", 1).toInt();
    const QString line = settings.value("gpio", "GPIO1_0").toString();
    if (!GpioLines::parseName(line, &group, &pin))
        qWarning("6911UXC emulator: \"%s\" is no GPIO line, using GPIO1_0", qPrintable(line));
    regs = std::make_shared<Paged6911>();
    Board::instance().addI2cBus(bus);
    Board::instance().attachI2c(bus, kAddr7, regs);
}

void Emu6911UXC::setSource(const QVariantMap& source)
{
    // The line's edges never come closer than the pulse, also when the pulse
    // before was stamped ahead of now.
    const int64_t now = std::max(GpioLines::monotonicNs(), lastEdge + kPulseNs);
    if (source.isEmpty()) {
        regs->setTiming(0, 0, 0, 0, 0);
        if (raised) signal(now);
        return;
    }
    const int width = source.value("width").toInt();
    const bool interlace = source.value("interlace").toBool();
    const int lines =
        interlace ? source.value("height").toInt() / 2 : source.value("height").toInt();
    // Blanking of the common timings, near enough for the rate to come out.
    const int htotal = source.value("htotal", width + (width >= 3840 ? 560 : 280)).toInt();
    const int vblank = lines >= 2160 ? 90 : lines >= 1080 ? 45 : 30;
    const int vtotal = source.value("vtotal", lines + vblank).toInt();
    // The driver turns the count back with count * 1000 / (htotal * vtotal).
    const double rate = source.value("framerate").toDouble();
    const int count = source.contains("count")
                          ? source.value("count").toInt()
                          : int(std::lround(rate * double(htotal) * vtotal / 1000.0));
    regs->setTiming(width / 2, htotal, vtotal, lines, count);
    signal(now);
}

void Emu6911UXC::signal(int64_t now)
{
    // Low until the first source; after that every change is a low pulse.
    if (raised) {
        GpioLines::instance().drive(group, pin, false, now);
        now += kPulseNs;
    }
    GpioLines::instance().drive(group, pin, true, now);
    lastEdge = now;
    raised = true;
}

static bool registered = registerChipType("6911uxc", [] { return std::make_shared<Emu6911UXC>(); });

}  // namespace vsim
