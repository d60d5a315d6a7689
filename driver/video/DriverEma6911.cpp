#include "driver/video/DriverEma6911.h"

#include <fcntl.h>

#include <QDebug>

#include "driver/video/Ema6911Ioctl.h"
#include "frame/VeskSys.h"

namespace {
struct Size {
    int width, height;
};
// Row n is format index n; row 0 is not a format the chip reports.
const Size kResolutions[] = {
    {0, 0},      {1920, 1080}, {1440, 900}, {1366, 768}, {1280, 1024}, {1280, 800}, {1280, 768},
    {1280, 720}, {1024, 768},  {800, 600},  {720, 576},  {720, 480},   {640, 480},  {3840, 2160},
};
constexpr int kRows = int(sizeof kResolutions / sizeof kResolutions[0]);
constexpr int kUhdIndex = 13;
}  // namespace

DriverEma6911::DriverEma6911(QObject* parent) : DriverBase(parent) {}

bool DriverEma6911::resolution(int index, int& width, int& height)
{
    if (index < 1 || index >= kRows) return false;
    width = kResolutions[index].width;
    height = kResolutions[index].height;
    return true;
}

int DriverEma6911::port() const
{
    // Board files write the port as a number or as text ("1", "0x1").
    QVariant v = data.value("addr");
    bool ok = false;
    int n = v.type() == QVariant::String ? v.toString().toInt(&ok, 0) : v.toInt(&ok);
    return ok ? n & 0x0F : 0;
}

bool DriverEma6911::query(int& index, int& framerate)
{
    int f = vsys::open("/dev/hdmicapture", O_RDWR);
    if (f < 0) {
        // Once per outage: the poll runs every second.
        if (!openFailed) qDebug("open /dev/hdmicapture failed!");
        openFailed = true;
        return false;
    }
    openFailed = false;
    Ema6911Request req{};
    req.port = uint8_t(port());
    int r = vsys::ioctl(f, kEma6911GetStatus, static_cast<void*>(&req));
    vsys::close(f);
    if (r < 0) return false;
    index = int(ema6911Index(req.status));
    framerate = req.framerate;
    return true;
}

void DriverEma6911::onCheck()
{
    int index = kEma6911NoSignal, rate = 0;
    query(index, rate);
    int width = 0, height = 0;
    bool avalible = false;
    if (index != int(kEma6911NoSignal)) {
        avalible = resolution(index, width, height);
        // A format past the table has no size to publish: it is taken as no
        // signal rather than as a 0x0 picture.
        if (!avalible && index != reportedIndex)
            qDebug("EMA6911 port %d: unknown format index %d", port(), index);
    }
    reportedIndex = index;

    info["avalible"] = avalible;
    if (avalible) {
        int framerate = (rate + 2) / 5 * 5;
        bool avs = index == kUhdIndex && framerate > 30;
        // Above 30 frames the 2160-line input arrives as two halves side by side.
        info["width"] = avs ? width / 2 : width;
        info["height"] = height;
        info["framerate"] = framerate;
        info["avs"] = avs;
    } else {
        // The capture path keeps running on a plausible format while nothing
        // is plugged in.
        info["avs"] = false;
        info["width"] = 1920;
        info["height"] = 1080;
        info["framerate"] = 30;
    }
    info["interlace"] = false;
    info["full"] = true;
    info["protocol"] = "HDMI";
}
