#include "sim/EmuGS2971.h"

#include <QDebug>
#include <cerrno>
#include <cstring>

#include "driver/video/Gs2971Ioctl.h"

namespace vsim {

namespace {
// The standards the chip reports: size, field or frame rate, and the code
// for the interlaced and for the progressive form (-1: none).
struct Standard {
    int width, height, rate, interlaced, progressive;
};
const Standard kStandards[] = {
    {720, 576, 50, 24, -1},   {1440, 576, 50, 26, -1},  {1280, 720, 60, -1, 32},
    {1280, 720, 30, -1, 2},   {1280, 720, 25, -1, 6},   {1280, 720, 50, -1, 36},
    {1920, 1080, 60, 42, 43}, {1920, 1080, 50, 44, 45}, {1920, 1080, 30, -1, 11},
    {1920, 1080, 25, -1, 13}, {1920, 1080, 24, -1, 48},
};

// Bits outside the code field carry unrelated status on the chip; they are
// set so that a reader which forgets to mask is caught.
uint16_t codeWord(int code)
{
    return uint16_t(0xC000 | (code & 0x3F) << 8 | 0x5A);
}
}  // namespace

Gs2971Device::Gs2971Device()
{
    regs[1] = 0x0300;  // both outputs enabled after reset
    regs[6] = codeWord(EmuGS2971::kNoSignal);
    regs[7] = codeWord(EmuGS2971::kNoSignal);
}

long Gs2971Device::ioctl(uint64_t&, unsigned long request, void* arg, unsigned long)
{
    if (request != kGs2971Read && request != kGs2971Write) return -ENOTTY;
    if (!arg) return -EFAULT;
    Gs2971Request req;
    std::memcpy(&req, arg, sizeof req);
    std::lock_guard<std::mutex> g(lock);
    if (silent) return -EIO;
    if (request == kGs2971Read) {
        req.value = regs[req.reg];
        std::memcpy(arg, &req, sizeof req);
    } else {
        regs[req.reg] = req.value;
        log.emplace_back(req.reg, req.value);
    }
    return 0;
}

uint16_t Gs2971Device::reg(uint8_t r) const
{
    std::lock_guard<std::mutex> g(lock);
    return regs[r];
}

void Gs2971Device::setReg(uint8_t r, uint16_t value)
{
    std::lock_guard<std::mutex> g(lock);
    regs[r] = value;
}

void Gs2971Device::setSilent(bool s)
{
    std::lock_guard<std::mutex> g(lock);
    silent = s;
}

std::vector<std::pair<uint8_t, uint16_t>> Gs2971Device::writes() const
{
    std::lock_guard<std::mutex> g(lock);
    return log;
}

void EmuGS2971::attach(const QVariantMap&)
{
    dev = std::make_shared<Gs2971Device>();
    Board::instance().addDevice("/dev/GV2971A", dev);
}

void EmuGS2971::setSource(const QVariantMap& source)
{
    if (!dev) return;
    dev->setSilent(source.value("silent").toBool());
    int code6 = kNoSignal, code7 = kNoSignal;
    if (source.contains("code6")) {
        code6 = source.value("code6").toInt();
        code7 = source.value("code7", code6).toInt();
    } else if (source.contains("width")) {
        int w = source.value("width").toInt(), h = source.value("height").toInt();
        int rate = source.value("framerate").toInt();
        bool interlace = source.value("interlace").toBool();
        bool found = false;
        for (const Standard& s : kStandards) {
            int code = interlace ? s.interlaced : s.progressive;
            if (s.width != w || s.height != h || s.rate != rate || code < 0) continue;
            // The two detectors disagree on an interlaced source.
            code6 = code;
            code7 = interlace ? code + 1 : code;
            found = true;
            break;
        }
        if (!found)
            qWarning("GS2971 emulator: %dx%d%s%d is not a standard of the chip", w, h,
                     interlace ? "i" : "p", rate);
    }
    dev->setReg(6, codeWord(code6));
    dev->setReg(7, codeWord(code7));
}

static bool registered = registerChipType("GS2971", [] { return std::make_shared<EmuGS2971>(); });

}  // namespace vsim
