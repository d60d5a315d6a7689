#include "sim/EmuEma6911.h"

#include <QDebug>
#include <cerrno>
#include <cstring>

#include "driver/video/Ema6911Ioctl.h"

namespace vsim {

namespace {
const char* kPath = "/dev/hdmicapture";

// The chip's own numbering of formats; row n is index n.
const int kSizes[][2] = {{0, 0},      {1920, 1080}, {1440, 900}, {1366, 768}, {1280, 1024},
                         {1280, 800}, {1280, 768},  {1280, 720}, {1024, 768}, {800, 600},
                         {720, 576},  {720, 480},   {640, 480},  {3840, 2160}};

int number(const QVariant& v)
{
    bool ok = false;
    int n = v.type() == QVariant::String ? v.toString().toInt(&ok, 0) : v.toInt(&ok);
    return ok ? n : 0;
}
}  // namespace

HdmiCaptureDevice::HdmiCaptureDevice()
{
    ports.fill(Port{ema6911Status(kEma6911NoSignal), 0});
}

long HdmiCaptureDevice::ioctl(uint64_t&, unsigned long request, void* arg, unsigned long)
{
    if (request != kEma6911GetStatus) return -ENOTTY;
    if (!arg) return -EFAULT;
    Ema6911Request req;
    std::memcpy(&req, arg, sizeof req);
    std::lock_guard<std::mutex> g(lock);
    const Port& p = ports[req.port & 0x0F];
    req.status = p.status;
    req.framerate = p.framerate;
    count++;
    std::memcpy(arg, &req, sizeof req);
    return 0;
}

void HdmiCaptureDevice::setPort(int port, uint16_t status, uint8_t framerate)
{
    std::lock_guard<std::mutex> g(lock);
    ports[size_t(port & 0x0F)] = Port{status, framerate};
}

int HdmiCaptureDevice::requests() const
{
    std::lock_guard<std::mutex> g(lock);
    return count;
}

void EmuEma6911::attach(const QVariantMap& settings)
{
    port = number(settings.value("addr")) & 0x0F;
    Board& b = Board::instance();
    bool absent = false;
    dev = std::dynamic_pointer_cast<HdmiCaptureDevice>(b.deviceAt(kPath, &absent));
    if (!dev) {
        dev = std::make_shared<HdmiCaptureDevice>();
        b.addDevice(kPath, dev);
    }
}

void EmuEma6911::setSource(const QVariantMap& source)
{
    if (!dev) return;
    uint8_t rate = uint8_t(qBound(0, source.value("framerate").toInt(), 255));
    uint16_t status = ema6911Status(kEma6911NoSignal);
    if (source.contains("status")) {
        status = uint16_t(number(source.value("status")));
    } else if (source.contains("index")) {
        status = ema6911Status(unsigned(number(source.value("index"))));
    } else if (!source.isEmpty()) {
        int w = source.value("width").toInt(), h = source.value("height").toInt();
        bool found = false;
        for (unsigned i = 1; i < sizeof kSizes / sizeof kSizes[0] && !found; i++) {
            if (kSizes[i][0] == w && kSizes[i][1] == h) {
                status = ema6911Status(i);
                found = true;
            }
        }
        if (!found) qWarning("EMA6911 emulator: %dx%d is not a format of the chip", w, h);
    }
    if (ema6911Index(status) == kEma6911NoSignal) rate = 0;
    dev->setPort(port, status, rate);
}

static bool registered = registerChipType("EMA6911", [] { return std::make_shared<EmuEma6911>(); });

}  // namespace vsim
