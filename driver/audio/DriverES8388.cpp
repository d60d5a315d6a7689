#include "driver/audio/DriverES8388.h"

#include <fcntl.h>

#include <QDebug>
#include <cstdio>

#include "driver/audio/Es8388Ioctl.h"
#include "frame/VeskSys.h"

namespace {

constexpr uint32_t bit(unsigned n)
{
    return uint32_t(1) << n;
}

struct Step {
    unsigned nr;
    uint32_t clear;
    uint32_t set;
    const char* failure;
};

// `set` of kInput is filled in from the configuration; the level steps put
// their level into bits 17..24.
constexpr uint32_t kInput = kEs8388InputMask;
constexpr uint32_t kLevel = kEs8388LevelMask;
constexpr uint32_t kOutLevel = 0x1Eu << kEs8388LevelShift;

const Step kChain[] = {
    {0x0B, kInput, 0, "es83888 set left input fail."},
    {0x0C, kInput, 0, "es83888 set right input fail."},
    {0x19, bit(26), 0, "es83888 set left in power fail."},
    {0x1A, bit(26), 0, "es83888 set right in power fail."},
    {0x1B, bit(26), 0, "es83888 set left ADC power fail."},
    {0x1C, bit(26), 0, "es83888 set right ADC power fail."},
    {0x05, bit(16), 0, "es83888 set master/slave fail."},
    {0x03, bit(10), 0, "es83888 set ADC polarity or offset fail."},
    {0x04, 0, 0, "es83888 set DAC polarity or offset fail."},
    {0x06, bit(10), 0, "es83888 set bclk dir fail."},
    {0x09, bit(11) | bit(12), 0, "es83888 set ADC format fail."},
    {0x0A, bit(11) | bit(12), 0, "es83888 set DAC format fail."},
    {0x07, bit(15), bit(13) | bit(14), "es83888 set ADC width fail."},
    {0x08, bit(15), bit(13) | bit(14), "es83888 set DAC width fail."},
    {0x1D, bit(26), 0, "es83888 set left DAC power fail."},
    {0x1E, bit(26), 0, "es83888 set right DAC power fail."},
    {0x1F, 0, bit(26), "es83888 set left out1 enable fail."},
    {0x20, 0, bit(26), "es83888 set right out1 enable fail."},
    {0x21, 0, bit(26), "es83888 set left out2 enable fail."},
    {0x22, 0, bit(26), "es83888 set right out2 enable fail."},
    {0x0D, kLevel, 0, "es83888 set left gain fail."},
    {0x0E, kLevel, 0, "es83888 set right gain fail."},
    {0x0F, kLevel, 0, "es83888 set left ADC vol fail."},
    {0x10, kLevel, 0, "es83888 set right ADC vol fail."},
    {0x11, bit(25), 0, "es83888 set ADC unmute fail."},
    {0x14, kLevel, kOutLevel, "es83888 set left out1 vol fail."},
    {0x16, kLevel, kOutLevel, "es83888 set right out1 vol fail."},
    {0x15, kLevel, kOutLevel, "es83888 set left out2 vol fail."},
    {0x17, kLevel, kOutLevel, "es83888 set right out2 vol fail."},
    {0x12, kLevel, 0, "es83888 set left DAC vol fail."},
    {0x13, kLevel, 0, "es83888 set right DAC vol fail."},
    {0x18, bit(25), 0, "es83888 set DAC unmute fail."},
};

}  // namespace

DriverES8388::DriverES8388(QObject* parent) : DriverBase(parent) {}

void DriverES8388::init()
{
    int fd = vsys::open("/dev/es8388", O_RDWR);
    if (fd < 0) {
        qDebug() << "can't open es8388.";
        return;
    }
    Es8388Word word = 0;
    // A failed step leaves the device open: the codec stays as far as it got,
    // and the descriptor with it, for whoever looks at the board next.
    if (vsys::ioctl(fd, kEs8388Reset, static_cast<void*>(&word)) != 0) {
        printf("[Func]:%s [Line]:%d [Info]:%s\n", "init", 33, "es8388 reset failed");
        return;
    }
    uint32_t input = data.contains("input") ? uint32_t(data.value("input").toInt()) & 0x3 : 1;
    for (const Step& step : kChain) {
        uint32_t set = step.clear == kInput ? input << kEs8388InputShift : step.set;
        word = (word & ~step.clear) | set;
        if (vsys::ioctl(fd, es8388Request(step.nr), static_cast<void*>(&word)) != 0) {
            printf("[Func]:%s [Line]:%d [Info]:%s\n", "init", __LINE__, step.failure);
            return;
        }
    }
    vsys::close(fd);
}
