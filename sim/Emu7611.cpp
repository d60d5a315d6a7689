#include "sim/Emu7611.h"

#include <cmath>

namespace vsim {

void Emu7611::attach(const QVariantMap& settings)
{
    bus = settings.value("bus", 1).toInt();
    Board& b = Board::instance();
    b.addI2cBus(bus);
    for (uint8_t a : {kIo, kCp, kHdmi, kRepeater, kEdid}) {
        auto chip = std::make_shared<RegisterChip>(1);
        maps[a] = chip;
        b.attachI2c(bus, a >> 1, chip);
    }
}

std::shared_ptr<RegisterChip> Emu7611::map(uint8_t addr8) const
{
    auto it = maps.find(addr8);
    return it == maps.end() ? nullptr : it->second;
}

QByteArray Emu7611::edid() const
{
    QByteArray out(256, 0);
    auto m = map(kEdid);
    for (int i = 0; m && i < 256; i++) out[i] = char(m->reg(uint16_t(i)));
    return out;
}

void Emu7611::setSource(const QVariantMap& source)
{
    auto hdmi = map(kHdmi), cp = map(kCp);
    if (!hdmi || !cp) return;
    int width = source.value("width").toInt();
    int height = source.value("height").toInt();
    bool interlace = source.value("interlace").toBool();
    double rate = source.value("framerate").toDouble();
    int divisor = 0;
    if (source.contains("divisor"))
        divisor = source.value("divisor").toInt();
    else if (rate > 0)
        // The chip counts a fixed reference clock per field; the driver turns
        // it back with 111861 / divisor.
        divisor = int(std::floor(111861.0 / rate));
    int lines = interlace ? height / 2 : height;

    hdmi->setReg(0x07, uint8_t((width >> 8) & 0x1F));
    hdmi->setReg(0x08, uint8_t(width & 0xFF));
    hdmi->setReg(0x09, uint8_t((lines >> 8) & 0x1F));
    hdmi->setReg(0x0A, uint8_t(lines & 0xFF));
    hdmi->setReg(0x0B, interlace ? 0x20 : 0x00);
    int range = source.contains("range") ? source.value("range").toInt()
                                         : (source.value("full", true).toBool() ? 1 : 2);
    hdmi->setReg(0x53, uint8_t(range & 0x0F));
    cp->setReg(0xB8, uint8_t((divisor >> 8) & 0x1F));
    cp->setReg(0xB9, uint8_t(divisor & 0xFF));
}

static bool registered = registerChipType("7611", [] { return std::make_shared<Emu7611>(); });

}  // namespace vsim
