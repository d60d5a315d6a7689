#include "driver/audio/DriverTlv32.h"

#include <fcntl.h>

#include <QDebug>
#include <cmath>
#include <cstdio>

#include "driver/audio/Tlv32Ioctl.h"
#include "frame/VeskSys.h"

namespace {

constexpr const char* kDevice = "/dev/tlv320aic31";
constexpr uint32_t kRate = 48000;
constexpr unsigned kChipAddr = 0x30;

enum class OnFail { Ignore, Report, Abort };

struct Step {
    unsigned long request;
    uint32_t clear;
    uint32_t set;
    OnFail onFail;
    const char* message;
};

constexpr uint32_t kSlot = tlv32Bits(7, 13);
constexpr uint32_t kBit5 = tlv32Bits(5, 5);
constexpr uint32_t kBit6 = tlv32Bits(6, 6);

// The format is fixed: slave, work mode 2, 48 kHz. Only the named fields are
// touched between requests; the kernel driver keeps the rest.
const Step kSteps[] = {
    {kTlv32Reset, tlv32Bits(0, 2), 0, OnFail::Report, "tlv320aic31 reset failed"},
    {0x24, tlv32Bits(18, 18) | tlv32Bits(21, 21) | tlv32Bits(14, 17), 0, OnFail::Ignore, nullptr},
    {kTlv32TransMode, tlv32Bits(24, 25), 0, OnFail::Abort, "set tlv320aic31 trans_mode err"},
    {0x22, 0, 0, OnFail::Abort, "ioctl err1"},
    {0x21, 0, 0, OnFail::Abort, "ioctl err2"},
    {0x25, kBit5 | kSlot, 0, OnFail::Ignore, nullptr},
    {0x26, 0, 0, OnFail::Ignore, nullptr},
    {0x27, 0, kBit6, OnFail::Ignore, nullptr},
    {0x28, 0, 0, OnFail::Ignore, nullptr},
    {0x23, tlv32Bits(19, 20), 0, OnFail::Ignore, nullptr},
    {0x16, kSlot, kBit5, OnFail::Ignore, nullptr},
    {0x19, 0, 0, OnFail::Ignore, nullptr},
    {0x17, kSlot, kBit5 | kBit6, OnFail::Ignore, nullptr},
    {0x20, 0, 0, OnFail::Ignore, nullptr},
    {0x30, kBit5 | kSlot, 0, OnFail::Ignore, nullptr},
    {0x31, 0, 0, OnFail::Ignore, nullptr},
    {0x00, kSlot, 0, OnFail::Ignore, nullptr},
    {0x01, 0, 0, OnFail::Ignore, nullptr},
    {0x08, kSlot, kBit5 | kBit6, OnFail::Ignore, nullptr},
    {0x11, 0, 0, OnFail::Ignore, nullptr},
};

int cfgAudio(const char* func, bool closeOnFailure)
{
    int fd = vsys::open(kDevice, O_RDWR);
    if (fd < 0) {
        printf("can't open tlv320,%s\n", kDevice);
        return -1;
    }
    Tlv32Control block{};
    for (const Step& step : kSteps) {
        block.bits = (block.bits & ~step.clear) | step.set;
        if (step.request == 0x24) block.samplerate = kRate;
        if (vsys::ioctl(fd, step.request, static_cast<void*>(&block)) == 0) continue;
        if (step.onFail == OnFail::Report) {
            printf("[Func]:%s [Line]:%d [Info]:%s\n", func, __LINE__, step.message);
        } else if (step.onFail == OnFail::Abort) {
            printf("%s\n", step.message);
            if (closeOnFailure) vsys::close(fd);
            return -1;
        }
    }
    vsys::close(fd);
    printf("Set aic31 ok: bMaster = %d, enWorkmode = %d, enSamplerate = %d\n", 0, 2, int(kRate));
    return 0;
}

// Whole part of a gain product; false for what no register could hold.
bool whole(double x, int* out)
{
    if (!std::isfinite(x) || std::fabs(x) > 1e6) return false;
    *out = int(x);
    return true;
}

}  // namespace

int SAMPLE_Tlv320_CfgAudio3()
{
    return cfgAudio(__FUNCTION__, true);
}

DriverTlv32::DriverTlv32(QObject* parent) : DriverBase(parent) {}

int DriverTlv32::SAMPLE_Tlv320_CfgAudio()
{
    printf("%s\n", __FUNCTION__);
    return cfgAudio(__FUNCTION__, false);
}

void DriverTlv32::init()
{
    SAMPLE_Tlv320_CfgAudio3();
}

void DriverTlv32::onSetData(QMap<QString, QVariant>)
{
    const QVariantMap driver = data.value("driver").toMap();
    if (driver.isEmpty()) return;

    auto put = [this](unsigned reg, int value) {
        swrite(kChipAddr, reg, unsigned(value) & 0xFF, -1, false);
    };
    static const int kBase[][2] = {{0x13, 0x84}, {0x15, 0x80}, {0x16, 0x84}, {0x18, 0x80},
                                   {0x1A, 0x00}, {0x1D, 0x00}, {0x19, 0x80}};
    for (const auto& w : kBase) put(unsigned(w[0]), w[1]);

    // Each path: muted or not, and its gain scaled by `scale`, turned around
    // (1.0 is loudest, so the attenuation steps count from the top) unless
    // `direct`. Nonsense gains leave that path as it was.
    auto path = [](const QVariantMap& sub, const char* name, double scale, bool direct, bool* muted,
                   int* steps) {
        *muted = sub.value("mute").toBool();
        *steps = 0;
        if (*muted) return true;
        double gain = sub.value("gain").toDouble();
        if (whole((direct ? gain : 1.0 - gain) * scale, steps)) return true;
        qDebug() << "tlv32:" << name << "gain" << gain << "is out of range, path left as it was";
        return false;
    };
    bool muted;
    int n;

    const QVariantMap input = driver.value("input").toMap();
    int loop = input.value("loop").toBool() ? 0x80 : 0x00;
    put(0x2E, loop);
    put(0x3F, loop);
    if (path(input, "input", 48, true, &muted, &n)) {
        put(0x0F, muted ? 0x80 : n);
        put(0x10, muted ? 0x80 : n);
    }
    if (path(driver.value("output").toMap(), "output", 9, true, &muted, &n)) {
        put(0x33, muted ? 0x00 : (n * 16) | 0x0F);
        put(0x41, muted ? 0x00 : (n * 16) | 0x0F);
    }
    if (path(driver.value("mic1").toMap(), "mic1", 8, false, &muted, &n)) {
        put(0x13, muted ? 0xFC : (n * 8) | 0x84);
        put(0x18, muted ? 0xF8 : (n * 8) | 0x80);
    }
    if (path(driver.value("mic2").toMap(), "mic2", 8, false, &muted, &n)) {
        put(0x15, muted ? 0xF8 : (n * 8) | 0x80);
        put(0x16, muted ? 0xFC : (n * 8) | 0x84);
    }
    if (path(driver.value("line").toMap(), "line", 8, false, &muted, &n)) {
        put(0x11, muted ? 0xFF : (n * 16) | 0x0F);
        put(0x12, muted ? 0xFF : n | 0xF0);
    }
    if (path(driver.value("extend").toMap(), "extend", 120, false, &muted, &n)) {
        put(0x2B, muted ? 0x80 : n);
        put(0x2C, muted ? 0x80 : n);
    }
}
