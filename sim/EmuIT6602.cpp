#include "sim/EmuIT6602.h"

#include <cmath>

#include "driver/video/It6602Regs.h"

using namespace it6602;

namespace vsim {

class It6602Core {
public:
    enum Page { Main, Edid, Cec };

    It6602Core(bool is6801)
    {
        regs[REG_ID0] = kVendorLo;
        regs[REG_ID0 + 1] = kVendorHi;
        regs[REG_ID0 + 2] = is6801 ? kDev6801Lo : kDev6602Lo;
        regs[REG_ID0 + 3] = is6801 ? kDev6801Hi : kDev6602Hi;
        regs[REG_EQ_CTRL_P0] = regs[REG_EQ_CTRL_P1] = EQ_AUTO_HELD;
        regs[REG_AMP_P0] = regs[REG_AMP_P1] = 0x90;
    }

    uint8_t read(int page, uint8_t r)
    {
        std::lock_guard<std::mutex> g(lock);
        if (page == Edid) return edid[r];
        if (page == Cec) return cec[r];
        if (r == REG_ECC_P0 || r == REG_ECC_P1) {
            const uint8_t value = regs[r == REG_ECC_P0 ? REG_EQ_VAL_P0 : REG_EQ_VAL_P1];
            for (int i = 0; i < 3; i++)
                if (value == IT6602EQTable[i]) return uint8_t(std::min(eqErrors[i], 255));
            return 0;
        }
        return regs[r];
    }

    void write(int page, uint8_t r, uint8_t v)
    {
        std::lock_guard<std::mutex> g(lock);
        if (page == Edid) {
            edid[r] = v;
            return;
        }
        if (page == Cec) {
            cec[r] = v;
            if (r == CEC_CMD && (v & CEC_FIRE))
                frames.push_back({cec[CEC_HEADER], cec[CEC_OPCODE], cec[CEC_OPERAND]});
            return;
        }
        switch (r) {
            case REG_ID0:
            case REG_ID0 + 1:
            case REG_ID0 + 2:
            case REG_ID0 + 3:
            case REG_STATUS_P0:
            case REG_STATUS_P1:
            case REG_ECC_P0:
            case REG_ECC_P1:
                return;
            case REG_INT_P0:
            case REG_INT_P1:
                regs[r] &= uint8_t(~v);
                return;
            case REG_EQ_CTRL_P0:
            case REG_EQ_CTRL_P1:
                regs[r] = uint8_t((v & ~EQ_AUTO_HELD) | (autoEqHeld ? EQ_AUTO_HELD : 0));
                return;
            default:
                regs[r] = v;
        }
        if (r == REG_HPD) update();
    }

    // Status bits follow the source and the hot-plug lines; each change of
    // power or sync raises its interrupt.
    void update()
    {
        for (int p = 0; p < 2; p++) {
            uint8_t st = 0;
            if (plugged && port == p) {
                st |= STATUS_5V;
                if (regs[REG_HPD] & (1 << p)) st |= STATUS_CLK | (syncOn ? STATUS_SCDT : 0);
            }
            const uint8_t sreg = p ? REG_STATUS_P1 : REG_STATUS_P0;
            const uint8_t ireg = p ? REG_INT_P1 : REG_INT_P0;
            const uint8_t diff = regs[sreg] ^ st;
            if (diff & STATUS_5V) regs[ireg] |= INT_5V_CHG;
            if (diff & STATUS_SCDT) regs[ireg] |= INT_SCDT_CHG;
            if ((st & STATUS_SCDT) && (diff & STATUS_SCDT)) regs[REG_VIDMUTE] |= 0x80;
            regs[sreg] = st;
        }
    }

    void setSource(const QVariantMap& s)
    {
        std::lock_guard<std::mutex> g(lock);
        const uint8_t sreg = port ? REG_STATUS_P1 : REG_STATUS_P0;
        const bool hadSync = regs[sreg] & STATUS_SCDT;
        const std::array<uint8_t, 16> before = measurements();
        const uint8_t quant = regs[REG_AVI_Q];

        plugged = !s.isEmpty();
        syncOn = s.value("sync", true).toBool();
        port = s.value("port", 0).toInt() ? 1 : 0;
        autoEqHeld = s.value("auto_eq_held", true).toBool();
        const QVariantList errs = s.value("eq_errors").toList();
        for (int i = 0; i < 3; i++) eqErrors[i] = i < errs.size() ? errs[i].toInt() : 0;
        for (uint8_t r : {REG_EQ_CTRL_P0, REG_EQ_CTRL_P1})
            regs[r] = uint8_t((regs[r] & ~EQ_AUTO_HELD) | (autoEqHeld ? EQ_AUTO_HELD : 0));
        if (plugged) setMeasurements(s);
        regs[REG_MODE] = s.value("dvi").toBool() ? 0 : MODE_HDMI;
        regs[REG_AVI_Q] = s.value("full", false).toBool() ? 0x08 : 0x04;
        regs[REG_AUD_IN] = s.value("audio", true).toBool() ? 0x80 : 0x00;
        regs[REG_AUD_IN + 1] = rateCode(s.value("samplerate", 48000).toInt());
        regs[REG_AUD_IN + 2] = 0x02;
        update();
        const uint8_t nreg = port ? REG_STATUS_P1 : REG_STATUS_P0;
        const uint8_t ireg = port ? REG_INT_P1 : REG_INT_P0;
        // A new format on a live link: the chip loses and regains lock.
        if (hadSync && (regs[nreg] & STATUS_SCDT) && before != measurements())
            regs[ireg] |= INT_SCDT_CHG;
        else if ((regs[nreg] & STATUS_SCDT) && quant != regs[REG_AVI_Q])
            regs[ireg] |= INT_AVI_CHG;
    }

    std::array<uint8_t, 16> measurements() const
    {
        std::array<uint8_t, 16> m;
        for (int i = 0; i < 16; i++) m[size_t(i)] = regs[REG_VID_MODE + i];
        return m;
    }

    void setMeasurements(const QVariantMap& s)
    {
        const int w = s.value("width").toInt(), h = s.value("height").toInt();
        const double rate = s.value("framerate").toDouble();
        const bool interlace = s.value("interlace").toBool();
        int ht = 0, vt = 0;
        if (w == 3840 && h == 2160) {
            ht = rate == 24 ? 5500 : (int(rate) % 25 == 0 ? 5280 : 4400);
            vt = 2250;
        } else if (w == 1920 && h == 1080) {
            ht = rate == 24 ? 2750 : (int(rate) % 25 == 0 ? 2640 : 2200);
            vt = 1125;
        } else if (w == 1280 && h == 720) {
            ht = int(rate) % 25 == 0 ? 1980 : 1650;
            vt = 750;
        } else if (w == 720 && h == 576) {
            ht = 864;
            vt = 625;
        } else if (w == 720 && h == 480) {
            ht = 858;
            vt = 525;
        } else {
            ht = w * 6 / 5;
            vt = h * 25 / 24;
        }
        ht = s.value("htotal", ht).toInt();
        vt = s.value("vtotal", vt).toInt();
        const int lines = interlace ? h / 2 : h;
        const int vfield = interlace ? vt / 2 : vt;
        const double pclkHz = double(ht) * (interlace ? vt / 2.0 : vt) * rate;
        int c = pclkHz > 0 ? int(std::lround(3.162e9 / pclkHz)) : 0;
        c = pclkHz > 0 ? std::max(1, std::min(c, 255)) : 0;
        c = s.value("pclk_reg", c).toInt();

        regs[REG_VID_MODE] = interlace ? 0x02 : 0x00;
        regs[REG_PCLK] = uint8_t(c);
        regs[REG_HTOTAL_L] = uint8_t(ht);
        regs[REG_HTOTAL_H] = uint8_t((ht >> 8) & 0x3F);
        regs[REG_HACT_L] = uint8_t(w);
        regs[REG_HACT_H] = uint8_t((w >> 8) & 0x3F);
        regs[REG_HSYNC] = 44;
        regs[REG_HBACK] = 148;
        regs[REG_VTOTAL_L] = uint8_t(vfield);
        regs[REG_VHIGH] = uint8_t(((lines >> 8) & 0x0F) << 4 | ((vfield >> 8) & 0x0F));
        regs[REG_VACT_L] = uint8_t(lines);
        regs[REG_VSYNC] = 5;
        regs[REG_VBACK] = 36;
        regs[REG_POL] = 0x09;
    }

    static uint8_t rateCode(int hz)
    {
        switch (hz) {
            case 44100:
                return 0;
            case 32000:
                return 3;
            case 24000:
                return 6;
            case 88200:
                return 8;
            case 96000:
                return 10;
            case 176400:
            case 176000:
                return 12;
            case 192000:
                return 14;
            default:
                return 2;  // 48000
        }
    }

    mutable std::mutex lock;
    std::array<uint8_t, 256> regs{};
    std::array<uint8_t, 256> edid{};
    std::array<uint8_t, 256> cec{};
    QVector<std::array<uint8_t, 3>> frames;
    bool plugged = false, syncOn = true, autoEqHeld = true;
    int port = 0;
    int eqErrors[3] = {0, 0, 0};
};

namespace {
// One register page, as the plain bus and the bit-banged bus see it.
class Page : public I2cDevice, public GpioI2cDevice {
public:
    Page(std::shared_ptr<It6602Core> c, int p) : core(std::move(c)), page(p) {}
    bool i2cWrite(const uint8_t* buf, size_t len) override
    {
        if (len == 0) return true;
        ptr = buf[0];
        for (size_t i = 1; i < len; i++) core->write(page, ptr++, buf[i]);
        return true;
    }
    bool i2cRead(uint8_t* buf, size_t len) override
    {
        for (size_t i = 0; i < len; i++) buf[i] = core->read(page, ptr++);
        return true;
    }
    uint8_t read(uint16_t r, bool) override { return core->read(page, uint8_t(r)); }
    void write(uint16_t r, uint8_t v, bool) override { core->write(page, uint8_t(r), v); }

private:
    std::shared_ptr<It6602Core> core;
    int page;
    uint8_t ptr = 0;
};
}  // namespace

void EmuIT6602::attach(const QVariantMap& settings)
{
    core = std::make_shared<It6602Core>(settings.value("model").toString() == "IT6801");
    const int addr = settings.value("addr", kMainAddr).toInt();
    const int addrs[3] = {addr, kEdidAddr, kCecAddr};
    Board& b = Board::instance();
    const bool gpio = settings.value("gpio_i2c").toBool();
    const int bus = settings.value("bus", 0).toInt();
    const int index = settings.value("index", -1).toInt();
    if (!gpio) b.addI2cBus(bus);
    for (int p = 0; p < 3; p++) {
        auto page = std::make_shared<Page>(core, p);
        if (gpio)
            b.attachGpioI2c(index, uint8_t(addrs[p]), page);
        else
            b.attachI2c(bus, uint8_t(addrs[p] >> 1), page);
    }
}

void EmuIT6602::setSource(const QVariantMap& source)
{
    if (core) core->setSource(source);
}

uint8_t EmuIT6602::reg(uint8_t r) const
{
    std::lock_guard<std::mutex> g(core->lock);
    return core->regs[r];
}

bool EmuIT6602::hpd(int port) const
{
    return reg(REG_HPD) & (1 << port);
}

QByteArray EmuIT6602::edid() const
{
    std::lock_guard<std::mutex> g(core->lock);
    return QByteArray(reinterpret_cast<const char*>(core->edid.data()), 256);
}

QVector<std::array<uint8_t, 3>> EmuIT6602::cecFrames() const
{
    std::lock_guard<std::mutex> g(core->lock);
    return core->frames;
}

static bool registered = registerChipType("IT6602", [] { return std::make_shared<EmuIT6602>(); });

}  // namespace vsim
