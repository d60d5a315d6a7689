#include "sim/EmuFPGA.h"

#include <QDebug>

namespace vsim {

namespace {
int number(const QVariant& v)
{
    bool ok = false;
    int n = v.type() == QVariant::String ? v.toString().toInt(&ok, 0) : v.toInt(&ok);
    return ok ? n : 0;
}

const int kSizes[4][2] = {{1440, 576}, {1280, 720}, {1920, 1035}, {1920, 1080}};
// Index 0 is "no rate"; a source never has it.
const struct {
    int rate;
    bool interlace;
} kRates[8] = {{0, false}, {24, false}, {25, false}, {30, false},
               {50, true}, {60, true},  {50, false}, {60, false}};
}  // namespace

void EmuFPGA::attach(const QVariantMap& settings)
{
    int bus = number(settings.value("bus"));
    int addr = number(settings.value("addr"));
    reg = number(settings.value("reg")) & 0xFF;
    if (bus < 0 || addr < 0 || addr > 0xFF) {
        qWarning("fpga emulator: bus %d address %#x cannot be built", bus, addr);
        return;
    }
    regs = std::make_shared<RegisterChip>(1);
    Board::instance().attachI2c(bus, uint8_t(addr >> 1), regs);
}

void EmuFPGA::setSource(const QVariantMap& source)
{
    if (!regs) return;
    int a = 0, b = 0;
    if (source.contains("a") || source.contains("b")) {
        a = number(source.value("a"));
        b = number(source.value("b"));
    } else if (!source.isEmpty()) {
        int w = source.value("width").toInt(), h = source.value("height").toInt();
        int rate = source.value("framerate").toInt();
        bool interlace = source.value("interlace").toBool();
        int size = -1, fps = -1;
        for (int i = 0; i < 4; i++)
            if (kSizes[i][0] == w && kSizes[i][1] == h) size = i;
        for (int i = 1; i < 8; i++)
            if (kRates[i].rate == rate && kRates[i].interlace == interlace) fps = i;
        if (size < 0 || fps < 0) {
            qWarning("fpga emulator: %dx%d%s%d is not a format of the FPGA", w, h,
                     interlace ? "i" : "p", rate);
        } else {
            a = fps << 4 | size;
            b = 0x10;
        }
    }
    regs->setReg(uint16_t(reg), uint8_t(a));
    regs->setReg(uint16_t((reg + 1) & 0xFF), uint8_t(b));
}

static bool registered = registerChipType("fpga", [] { return std::make_shared<EmuFPGA>(); });

}  // namespace vsim
