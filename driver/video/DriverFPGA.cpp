#include "driver/video/DriverFPGA.h"

const DriverFPGA::Resolution DriverFPGA::fpga_resolution[4] = {
    {1440, 576}, {1280, 720}, {1920, 1035}, {1920, 1080}};

const DriverFPGA::Rate DriverFPGA::fpga_fps[8] = {{0, false},  {24, false}, {25, false},
                                                  {30, false}, {50, true},  {60, true},
                                                  {50, false}, {60, false}};

DriverFPGA::DriverFPGA(QObject* parent) : DriverBase(parent) {}

namespace {
// Board files write addresses as numbers or as text ("0x60").
int number(const QVariant& v)
{
    bool ok = false;
    int n = v.type() == QVariant::String ? v.toString().toInt(&ok, 0) : v.toInt(&ok);
    return ok ? n : 0;
}
}  // namespace

void DriverFPGA::init()
{
    device = number(data.value("dev_addr"));
    regAddr = number(data.value("reg_addr"));
    bus = number(data.value("i2c_num"));
}

void DriverFPGA::onCheck()
{
    // The bus path answers -1 when the bus is missing; as a byte that is all
    // ones, which decodes to a signal like any other reading.
    unsigned a = unsigned(read(unsigned(bus), unsigned(device), unsigned(regAddr), 1, 1)) & 0xFF;
    unsigned b =
        unsigned(read(unsigned(bus), unsigned(device), unsigned(regAddr + 1), 1, 1)) & 0xFF;

    // Built whole each pass: nothing of an earlier format survives.
    QMap<QString, QVariant> next;
    next["avalible"] = bool(b & 0x10);
    if (b & 0x10) {
        const Resolution& res = fpga_resolution[a & 3];
        const Rate& rate = fpga_fps[(a >> 4) & 7];
        next["width"] = res.width;
        next["height"] = res.height;
        next["framerate"] = rate.framerate;
        next["interlace"] = rate.interlace;
    }
    next["protocol"] = "SDI";
    info = next;
    // Assignment hands over the working map's sharable data; pollers must
    // keep getting deep copies.
    info.setSharable(false);
}
