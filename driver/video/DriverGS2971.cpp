#include "driver/video/DriverGS2971.h"

#include <fcntl.h>

#include <QDebug>

#include "driver/video/Gs2971Ioctl.h"
#include "frame/VeskSys.h"

// Order matters: several standards share a code family and the first match
// is the one the board's sources send.
const DriverGS2971::Format DriverGS2971::res_tab[18] = {
    {720, 576, 0, 50, 24},   {1440, 576, 0, 50, 26},  {1280, 720, 1, 60, 32},
    {1280, 720, 1, 60, 0},   {1280, 720, 1, 30, 2},   {1280, 720, 1, 25, 6},
    {1280, 720, 1, 50, 36},  {1280, 720, 1, 50, 4},   {1920, 1080, 0, 60, 42},
    {1920, 1080, 0, 60, 10}, {1920, 1080, 0, 50, 44}, {1920, 1080, 0, 50, 12},
    {1920, 1080, 1, 60, 43}, {1920, 1080, 1, 30, 11}, {1920, 1080, 1, 50, 45},
    {1920, 1080, 1, 25, 13}, {1920, 1080, 1, 24, 48}, {1920, 1080, 1, 24, 16},
};

DriverGS2971::DriverGS2971(QObject* parent) : DriverBase(parent) {}

DriverGS2971::~DriverGS2971()
{
    if (device >= 0) vsys::close(device);
}

const DriverGS2971::Format* DriverGS2971::find(int code)
{
    for (const Format& row : res_tab)
        if (row.code == code) return &row;
    return nullptr;
}

unsigned int DriverGS2971::Read(int f, int reg, unsigned int* out)
{
    // The preset survives a failed request and decodes to code 15, which no
    // row has: a silent device reads as no signal.
    Gs2971Request req{0, kGs2971CmdRead, uint8_t(reg), 0x0F0F};
    vsys::ioctl(f, kGs2971Read, static_cast<void*>(&req));
    if (out) *out = req.value;
    return req.value;
}

void DriverGS2971::enableB(int f)
{
    unsigned int value = Read(f, 1, nullptr);
    Gs2971Request req{0, kGs2971CmdWrite, 1, uint16_t(value & 0xFEFF)};
    vsys::ioctl(f, kGs2971Write, static_cast<void*>(&req));
    Read(f, 1, nullptr);
}

void DriverGS2971::init()
{
    if (device >= 0) return;
    device = vsys::open("/dev/GV2971A", O_RDWR);
    if (device < 0) {
        device = -1;
        qDebug() << "open GS2971 failed!";
        return;
    }
    enableB(device);
}

void DriverGS2971::onCheck()
{
    // A device that was not there at start-up stays out of the picture.
    if (device == -1) return;
    const Format* row = find(gs2971Code(Read(device, 6, nullptr)));
    int code7 = gs2971Code(Read(device, 7, nullptr));
    info["avalible"] = row != nullptr;
    info["protocol"] = "SDI";
    if (!row) return;
    info["width"] = row->width;
    info["height"] = row->height;
    info["framerate"] = row->framerate;
    // An interlaced row whose two registers agree is a progressive (segmented
    // frame) source.
    info["interlace"] = row->progressive != 1 && row->code != code7;
}
