#include "sim/EmuMS7200.h"

#include <QDebug>
#include <chrono>
#include <cmath>

#include "driver/video/ms7200/ms7200_regs.h"
#include "sim/BoardClock.h"

using namespace ms7200reg;

namespace vsim {

namespace {
struct Timing {
    int width, height, htotal, vtotal, hfront, hsync, vfront, vsync, vic;
};
// Frame totals of the common formats; others get a plausible blanking.
const Timing kTimings[] = {
    {1920, 1080, 2200, 1125, 88, 44, 4, 5, 16},   {1280, 720, 1650, 750, 110, 40, 5, 5, 4},
    {720, 480, 858, 525, 16, 62, 9, 6, 2},        {720, 576, 864, 625, 12, 64, 5, 5, 17},
    {3840, 2160, 4400, 2250, 176, 88, 8, 10, 95}, {1024, 768, 1344, 806, 24, 136, 3, 6, 0},
};

// The audio clock's N by sample rate, as HDMI sources send it.
uint32_t audioN(int rate)
{
    switch (rate) {
        case 32000:
            return 4096;
        case 44100:
            return 6272;
        case 88200:
            return 12544;
        case 96000:
            return 12288;
        case 176400:
            return 25088;
        case 192000:
            return 24576;
        default:
            return uint32_t(std::lround(128.0 * rate / 1000.0));
    }
}

uint8_t aifRateCode(int rate)
{
    switch (rate) {
        case 32000:
            return 1;
        case 44100:
            return 2;
        case 48000:
            return 3;
        case 88200:
            return 4;
        case 96000:
            return 5;
        case 176400:
            return 6;
        case 192000:
            return 7;
        default:
            return 0;
    }
}

int sumNibbles(uint8_t a, uint8_t b)
{
    return (a & 0xF) + (a >> 4) + (b & 0xF) + (b >> 4);
}
}  // namespace

Ms7200Chip::Ms7200Chip() : RegisterChip(2)
{
    regs[kChipId0] = 0xA2;
    regs[kChipId1] = 32;
    setSource({});
    // A chip fresh from reset has nothing to report yet.
    setWord(kHdmiStatus, 0);
    setWord(kMdtStatus, 0);
    setWord(kPktStatus, 0);
}

uint32_t Ms7200Chip::wordLocked(uint16_t r) const
{
    return uint32_t(regs[r]) | uint32_t(regs[uint16_t(r + 1)]) << 8 |
           uint32_t(regs[uint16_t(r + 2)]) << 16 | uint32_t(regs[uint16_t(r + 3)]) << 24;
}

void Ms7200Chip::setWordLocked(uint16_t r, uint32_t v)
{
    for (int i = 0; i < 4; i++) regs[uint16_t(r + i)] = uint8_t(v >> (8 * i));
}

uint32_t Ms7200Chip::word(uint16_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    return wordLocked(r);
}

void Ms7200Chip::setWord(uint16_t r, uint32_t value)
{
    std::lock_guard<std::mutex> g(lock);
    setWordLocked(r, value);
}

void Ms7200Chip::updateCounters()
{
    for (int ch = 0; ch < 3; ch++) {
        int dist;
        if (eq28Mode) {
            uint16_t r = uint16_t(kEq28Gain0 + 2 * ch);
            int index = 28 - sumNibbles(regs[r], regs[uint16_t(r + 1)]);
            dist = index < eye28Lo ? eye28Lo - index : index > eye28Hi ? index - eye28Hi : 0;
        } else {
            int gain = regs[uint16_t(kEqGain0 + ch)] & 7;
            dist = gain < eyeLo ? eyeLo - gain : gain > eyeHi ? gain - eyeHi : 0;
        }
        // Far outside the eye the detector cannot count at all.
        bool valid = present && !countersInvalid && dist < 7;
        uint16_t w = valid ? uint16_t(0x8000 | std::min(dist * 300, 0x7FFF)) : 0;
        regs[uint16_t(kErrCount0 + 2 * ch)] = uint8_t(w);
        regs[uint16_t(kErrCount0 + 2 * ch + 1)] = uint8_t(w >> 8);
    }
}

void Ms7200Chip::onWrite(uint16_t r, uint8_t value)
{
    auto clearIn = [&](uint16_t status, uint16_t clear) {
        if (r < clear || r >= clear + 4) return false;
        regs[uint16_t(status + (r - clear))] &= uint8_t(~value);
        return true;
    };
    if (clearIn(kHdmiStatus, kHdmiStatusClr) || clearIn(kMdtStatus, kMdtStatusClr)) return;
    if (clearIn(kPktStatus, kPktStatusClr)) {
        if (uint8_t(pktEveryFrame >> (8 * (r - kPktStatusClr))) & value) {
            pktCleared = true;
            clearedHeld = BoardClock::instance().held();
            clearedUs = boardUs();
        }
        return;
    }
    if (r == kPhyPllStatus) {
        regs[r] = locked ? 1 : 0;
    } else if (r >= kOffset0 && r < kOffset0 + 3) {
        int ch = r - kOffset0;
        // The comparator flips part of the way down the negative offsets.
        bool flipped = (value & 0xF0) == 0 && (value & 0x0F) <= 7 + ch;
        regs[kOffsetCmp] = uint8_t((regs[kOffsetCmp] & ~(1 << ch)) | (flipped ? 1 << ch : 0));
    } else if (r >= kEqGain0 && r < kEqGain0 + 3) {
        eq28Mode = false;
        updateCounters();
    } else if (r >= kEq28Gain0 && r < kEq28Gain0 + 6) {
        eq28Mode = true;
        updateCounters();
    } else if (r == kErrDetClear) {
        updateCounters();
    }
}

int64_t Ms7200Chip::boardUs()
{
    BoardClock& c = BoardClock::instance();
    if (c.held()) return c.nowUs();
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool Ms7200Chip::i2cRead(uint8_t* buf, size_t len)
{
    {
        std::lock_guard<std::mutex> g(lock);
        // The next field brings the info frames again. A clock held or let
        // go since the clear counts as time gone by.
        if (pktCleared && fieldRate > 0 &&
            (BoardClock::instance().held() != clearedHeld ||
             boardUs() - clearedUs >= int64_t(1e6 / fieldRate))) {
            setWordLocked(kPktStatus, wordLocked(kPktStatus) | pktEveryFrame);
            pktCleared = false;
        }
    }
    return RegisterChip::i2cRead(buf, len);
}

void Ms7200Chip::setSource(const QVariantMap& s)
{
    std::lock_guard<std::mutex> g(lock);
    QVariantMap old = src;
    src = s;
    int width = s.value("width").toInt(), height = s.value("height").toInt();
    bool interlace = s.value("interlace").toBool();
    double rate = s.value("framerate").toDouble();
    bool wasPresent = present;
    present = width > 0 && height > 0 && rate > 0;
    if (!s.isEmpty() && !present && !s.contains("tmdsRaw"))
        qWarning("MS7200 emulator: a source needs width, height and framerate");
    countersInvalid = s.value("countersInvalid").toBool();
    locked = present && !s.value("noLock").toBool();
    QVariantList eye = s.value("eye").toList(), eye28 = s.value("eye28").toList();
    eyeLo = eye.size() == 2 ? eye[0].toInt() : 3;
    eyeHi = eye.size() == 2 ? eye[1].toInt() : 5;
    eye28Lo = eye28.size() == 2 ? eye28[0].toInt() : 9;
    eye28Hi = eye28.size() == 2 ? eye28[1].toInt() : 15;

    Timing t{width, height, 0, 0, 0, 0, 0, 0, 0};
    bool known = false;
    for (const Timing& k : kTimings) {
        if (k.width == width && k.height == height) {
            t = k;
            known = true;
        }
    }
    if (!known) t = {width, height, width + width / 8 + 64, height + 45, 48, 32, 3, 5, 0};
    double frameRate = interlace ? rate / 2 : rate;
    double pclk = double(t.htotal) * t.vtotal * frameRate;  // Hz
    uint32_t tmds10k = present ? uint32_t(std::lround(pclk / 10000.0)) : 0;
    uint32_t raw = uint32_t(std::ceil(tmds10k * 4095.0 / 2700.0));
    if (raw > 0xFFFF) raw = 0xFFFF;
    if (s.contains("tmdsRaw")) raw = s.value("tmdsRaw").toUInt() & 0xFFFF;
    bool clockValid = present || s.contains("tmdsRaw");
    uint32_t oldRaw = wordLocked(kTmdsClock);
    uint32_t newWord = clockValid ? (raw | 0x20000) : 0;
    setWordLocked(kTmdsClock, newWord);
    regs[kRx5v] = clockValid ? 1 : 0;
    regs[kPhyPllStatus] = locked ? 1 : 0;

    bool zero = s.value("measureZero").toBool() || !present;
    int fieldTotal = interlace ? t.vtotal / 2 : t.vtotal;
    int fieldActive = interlace ? height / 2 : height;
    double lineRate = present ? pclk / t.htotal : 0;
    uint32_t period = lineRate > 0 ? uint32_t(std::lround(432e6 / lineRate)) : 0;
    setWordLocked(kMdtSync, present ? 3 : 0);
    setWordLocked(kMdtPol, present ? uint32_t((interlace ? 0 : 1) | 0x06) : 0);
    setWordLocked(kMdtPeriod, zero ? 0 : (std::min<uint32_t>(period, 0xFFFF) << 16 | t.hsync));
    setWordLocked(kMdtH, zero ? 0 : uint32_t(t.width) << 16 | uint32_t(t.htotal));
    setWordLocked(kMdtV, zero ? 0 : uint32_t(fieldActive) << 16 | uint32_t(fieldTotal));
    setWordLocked(kMdtHBlank,
                  zero ? 0 : uint32_t(t.hsync) << 16 | uint32_t(t.htotal - t.width - t.hfront));
    setWordLocked(
        kMdtVBlank,
        zero ? 0 : uint32_t(t.vsync) << 16 | uint32_t(fieldTotal - fieldActive - t.vfront));

    int fs = present ? s.value("samplerate", 48000).toInt() : 0;
    uint32_t n = fs > 0 ? audioN(fs) : 0;
    uint32_t cts = fs > 0 ? uint32_t(std::lround(pclk * n / (128.0 * fs))) : 0;
    setWordLocked(kAcrN, n & 0xFFFFF);
    setWordLocked(kAcrCts, cts & 0xFFFFF);
    regs[kHdmiMode] = present ? 1 : 0;
    regs[kAviInfo] = uint8_t(t.vic);
    regs[kAviInfo + 1] = 0;
    regs[kAviInfo + 4] = uint8_t(s.value("colorSpace").toInt() & 0x03);
    regs[kAifInfo] = fs > 0 ? 1 : 0;
    regs[kAifInfo + 1] = aifRateCode(fs);
    regs[kAifInfo + 2] = fs > 0 ? 1 : 0;
    regs[kAifInfo + 3] = fs > 0 ? 1 : 0;

    // Events for what changed.
    uint32_t hdmi = wordLocked(kHdmiStatus), mdt = wordLocked(kMdtStatus),
             pkt = wordLocked(kPktStatus);
    if (newWord != oldRaw) {
        int oldClk = (oldRaw & 0x20000) ? int((oldRaw & 0xFFFF) * 2700 / 4095) : 0;
        int newClk = (newWord & 0x20000) ? int((newWord & 0xFFFF) * 2700 / 4095) : 0;
        hdmi |= kEvClockChange |
                (std::abs(newClk - oldClk) <= 1000 && wasPresent && present ? 0x10 : 0x20);
    }
    auto fmt = [](const QVariantMap& m) {
        return QVariantList{m.value("width"), m.value("height"), m.value("framerate"),
                            m.value("interlace").toBool(), m.value("measureZero").toBool()};
    };
    if (fmt(old) != fmt(s) || wasPresent != present) mdt |= kEvMdtMask;
    pktEveryFrame = present ? (kEvPktAvi | (width >= 3840 ? (kEvPktVsi | kEvPktVsi2) : 0)) : 0;
    pkt = (pkt & ~(kEvPktAvi | kEvPktVsi | kEvPktVsi2)) | pktEveryFrame;
    pktCleared = false;
    fieldRate = present ? rate : 0;
    if (present && old.value("samplerate", 48000) != s.value("samplerate", 48000))
        pkt |= 0x01000000 | 0x400000;
    setWordLocked(kHdmiStatus, hdmi);
    setWordLocked(kMdtStatus, mdt);
    setWordLocked(kPktStatus, pkt);
    updateCounters();
}

namespace {
// The bit-banged bus reaches the same registers.
class GpioPort : public GpioI2cDevice {
public:
    explicit GpioPort(std::shared_ptr<Ms7200Chip> c) : chip(std::move(c)) {}
    uint8_t read(uint16_t reg, bool) override
    {
        uint8_t a[2] = {uint8_t(reg >> 8), uint8_t(reg)}, v = 0;
        chip->i2cWrite(a, 2);
        chip->i2cRead(&v, 1);
        return v;
    }
    void write(uint16_t reg, uint8_t value, bool) override
    {
        uint8_t a[3] = {uint8_t(reg >> 8), uint8_t(reg), value};
        chip->i2cWrite(a, 3);
    }

private:
    std::shared_ptr<Ms7200Chip> chip;
};
}  // namespace

void EmuMS7200::attach(const QVariantMap& settings)
{
    dev = std::make_shared<Ms7200Chip>();
    uint8_t addr8 = settings.value("chip_addr", 146).toInt() == 144 ? 0x56 : 0xB2;
    Board& b = Board::instance();
    if (settings.value("gpio_i2c").toBool()) {
        b.attachGpioI2c(-1, addr8, std::make_shared<GpioPort>(dev));
    } else {
        int bus = settings.value("i2c_num", 0).toInt();
        b.addI2cBus(bus);
        b.attachI2c(bus, addr8 >> 1, dev);
    }
}

void EmuMS7200::setSource(const QVariantMap& source)
{
    if (dev) dev->setSource(source);
}

static bool registered = registerChipType("MS7200", [] { return std::make_shared<EmuMS7200>(); });

}  // namespace vsim
