#include "driver/video/Driver6911UXC.h"

#include <QThread>
#include <cmath>

#include "device/VeskGPIO.h"
#include "frame/VeskSys.h"

namespace {

constexpr unsigned kChip = 0x56;
constexpr unsigned kPage = 0xFF;

// Pad control words that give these lines their GPIO function.
struct Pad {
    const char* line;
    unsigned long reg;
    unsigned value;
};
const Pad kPads[] = {
    {"GPIO3_0", 0x10FF0060, 0x0},  {"GPIO3_1", 0x10FF0064, 0x0}, {"GPIO2_0", 0x10FF0040, 0x0},
    {"GPIO13_5", 0x11130094, 0x0}, {"GPIO1_0", 0x10FF0020, 0x0},
};

bool oneOf(int v, std::initializer_list<int> list)
{
    for (int x : list)
        if (v == x) return true;
    return false;
}

}  // namespace

Driver6911UXC::Driver6911UXC(QObject* parent) : DriverBase(parent), gpioName("GPIO1_0") {}

void Driver6911UXC::onCheck() {}

int Driver6911UXC::reg(unsigned bus, unsigned r)
{
    return read(bus, kChip, r, 1, 1) & 0xFF;
}

int Driver6911UXC::pair(unsigned bus, unsigned r)
{
    const int high = reg(bus, r);
    return high << 8 | reg(bus, r + 1);
}

void Driver6911UXC::init()
{
    if (data.contains("gpio")) gpioName = data.value("gpio").toString();
    const Pad* pad = nullptr;
    for (const Pad& p : kPads)
        if (gpioName.compare(QLatin1String(p.line), Qt::CaseInsensitive) == 0) pad = &p;
    // A line not in the list is taken as a GPIO already.
    if (pad) vsys::system(QString::asprintf("himm 0x%lX 0x%X", pad->reg, pad->value).toLatin1());

    gpio = new VeskGPIO(this);
    gpio->start();
    connect(gpio, &VeskObject::raised, this, &Driver6911UXC::onEvent);
    gpio->registEvent(gpioName);
    // The line only tells of changes: read what is there now.
    onEvent("up", gpioName);
}

void Driver6911UXC::onEvent(QString type, QVariant line)
{
    if (line.toString() != gpioName || type != "up") return;
    const unsigned bus = data.value("addr").toUInt();

    write(bus, kChip, kPage, 0x80, 1, 1);
    write(bus, kChip, 0xEE, 0x01, 1, 1);
    write(bus, kChip, kPage, 0x86, 1, 1);
    // One read a statement, so that the bus sees the registers in the order
    // given here: the operands of a single expression would be read in
    // whatever order the compiler picks.
    const int halfWidth = pair(bus, 0x80);
    const int htotal = pair(bus, 0x7A);
    const int vtotal = pair(bus, 0x7C);
    const int height = pair(bus, 0x7E);

    write(bus, kChip, kPage, 0x85, 1, 1);
    write(bus, kChip, 0x40, 0x21, 1, 1);
    QThread::msleep(10);  // the chip counts the pixel clock meanwhile
    int count = (reg(bus, 0x48) & 0x0F) << 16;
    count |= reg(bus, 0x49) << 8;
    count |= reg(bus, 0x4A);

    write(bus, kChip, kPage, 0x80, 1, 1);
    write(bus, kChip, 0xEE, 0x00, 1, 1);

    // Without totals there is no rate to measure; the size alone decides.
    const double frame = double(htotal) * vtotal * 2;
    const int rate = frame > 0 ? int(std::lround(count * 2000.0 / frame)) : 0;
    int width = halfWidth * 2;

    const bool avalible =
        oneOf(width, {1280, 1920, 3840}) && oneOf(height, {2160, 1080, 720, 540, 360});
    info["avalible"] = avalible;
    info["protocol"] = "HDMI";
    const QStringList protocols = data.value("protocols").toStringList();
    if (data.contains("protocols") && !protocols.isEmpty()) info["protocol"] = protocols[0];

    if (!avalible) {
        // The capture path keeps a plausible format while nothing is there.
        info["avs"] = false;
        info["width"] = 1920;
        info["height"] = 1080;
        info["framerate"] = 30;
        return;
    }
    info["width"] = width;
    info["height"] = height;
    info["framerate"] = rate;
    // Above 40 frames a 2160-line input comes as two halves.
    if (width == 3840 && rate > 40) {
        info["width"] = halfWidth;
        info["avs"] = true;
    } else {
        info["avs"] = height == 2160 && rate > 40;
    }
    // The chip counts the lines of one field.
    const bool field = height == 360 || height == 540;
    if (field) info["height"] = height * 2;
    info["interlace"] = field;
    info["full"] = true;
}
