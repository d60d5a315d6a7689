#include "device/VeskGPIO.h"

#include <fcntl.h>
#include <linux/gpio.h>

#include <QDebug>
#include <QSocketNotifier>
#include <QStringList>
#include <cerrno>
#include <climits>
#include <cstring>

#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"

VESK_REGISTER(VeskGPIO)

static_assert(sizeof(gpioevent_request) == 48, "event request of the GPIO character device");
static_assert(sizeof(gpioevent_data) == 16, "event record of the GPIO character device");

namespace {

// Edges closer than this to the last accepted one are contact bounce.
constexpr qint64 kBounceMs = 20;
// A release this soon after the press makes the press a click.
constexpr qint64 kClickMs = 500;

QString sysfsLine(int number, const char* file)
{
    return QStringLiteral("/sys/class/gpio/gpio%1/%2").arg(number).arg(QLatin1String(file));
}

void shell(const QString& line)
{
    vsys::system(line.toLocal8Bit().constData());
}

// Exported lines have a direction file; export the line when it has none.
void exportLine(int number)
{
    if (vsys::exists(sysfsLine(number, "direction"))) return;
    shell(QStringLiteral("echo %1 > /sys/class/gpio/export").arg(number));
}

// A sysfs value file is a digit and a newline; anything longer is not read.
QByteArray readSmallFile(const QString& path)
{
    int fd = vsys::open(path.toLocal8Bit().constData(), O_RDONLY);
    if (fd < 0) return QByteArray();
    char buf[64];
    QByteArray text;
    ssize_t n;
    while (text.size() < int(sizeof buf) &&
           (n = vsys::read(fd, buf, sizeof buf - size_t(text.size()))) > 0)
        text.append(buf, int(n));
    vsys::close(fd);
    return text;
}

}  // namespace

VeskGPIO::VeskGPIO(QObject* parent) : VeskObject(parent)
{
    shareName = "share";
    shareDepth = 2;
    // Read by the application only.
    data["config"] = "/vesk/config/gpio.json";
}

void VeskGPIO::onSetData(QMap<QString, QVariant>) {}
void VeskGPIO::onStart() {}

void VeskGPIO::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

bool VeskGPIO::sysfsNumber(const QString& line, int* number) const
{
    // Whatever does not parse counts as 0, so "GPIO7" is line 56 and "led" is
    // line 0: the shell lines run for it all the same.
    const QStringList parts = line.toLower().remove("gpio").split("_");
    const qint64 n = qint64(parts.value(0).toInt()) * 8 + parts.value(1).toInt();
    if (n < INT_MIN || n > INT_MAX) {
        log(QStringLiteral("GPIO name \"%1\" is past every line number, ignored").arg(line));
        return false;
    }
    *number = int(n);
    return true;
}

QVariant VeskGPIO::setGPIO(QVariant info)
{
    QVariantList args = info.toList();
    if (args.size() != 2) return false;
    int number = 0;
    if (!sysfsNumber(args[0].toString(), &number)) return false;
    if (!vsys::exists(sysfsLine(number, "direction"))) {
        exportLine(number);
        shell(QStringLiteral("echo out > /sys/class/gpio/gpio%1/direction").arg(number));
    }
    shell(QStringLiteral("echo %1 > /sys/class/gpio/gpio%2/value")
              .arg(args[1].toBool() ? 1 : 0)
              .arg(number));
    return true;
}

QVariant VeskGPIO::getGPIO(QVariant info)
{
    int number = 0;
    if (!sysfsNumber(info.toString(), &number)) return false;
    exportLine(number);
    shell(QStringLiteral("echo in > /sys/class/gpio/gpio%1/direction").arg(number));
    return readSmallFile(sysfsLine(number, "value")).startsWith('1');
}

QVariant VeskGPIO::registEvent(QVariant info)
{
    const QString given = info.toString();
    const QString lower = given.toLower();
    if (registered.contains(lower)) return false;
    // Kept also when a step below fails: a line is tried once.
    registered.append(lower);

    // The chip is what stands before the first "_", the line the number
    // after it (0 when there is none).
    QString device = lower;
    device.replace("gpio", "/dev/gpiochip");
    const int offset = device.section('_', 1, 1).toInt();
    device = device.section('_', 0, 0);

    int chip = vsys::open(device.toLocal8Bit().constData(), O_RDONLY);
    if (chip < 0) {
        qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << "Failed to open " << device;
        return false;
    }
    gpioevent_request req;
    std::memset(&req, 0, sizeof req);
    req.lineoffset = uint32_t(offset);
    req.handleflags = GPIOHANDLE_REQUEST_INPUT;
    req.eventflags = GPIOEVENT_REQUEST_BOTH_EDGES;
    std::strncpy(req.consumer_label, "VeskGPIO", sizeof req.consumer_label - 1);
    // The chip's descriptor stays open: the event descriptor lives on its own.
    if (vsys::ioctl(chip, GPIO_GET_LINEEVENT_IOCTL, static_cast<void*>(&req)) < 0) {
        qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << "Failed to issue GET EVENT "
                           << -1 << offset;
        return false;
    }
    names[req.fd] = given;
    auto* notifier = new QSocketNotifier(req.fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &VeskGPIO::onRead);
    return true;
}

void VeskGPIO::onRead(int fd)
{
    if (!names.contains(fd)) return;
    gpioevent_data event;
    ssize_t n = vsys::read(fd, &event, sizeof event);
    if (n == ssize_t(sizeof event)) {
        gpio_state state;
        state.value = event.id == GPIOEVENT_EVENT_RISING_EDGE;
        state.time = int(int64_t(event.timestamp / 1000000));
        onGPIO(fd, state);
        return;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    // An event descriptor that ended or broke stays readable for ever; left
    // on, it would keep the thread spinning.
    if (auto* notifier = qobject_cast<QSocketNotifier*>(sender())) {
        notifier->setEnabled(false);
        log(QStringLiteral("events of %1 ended (read %2), no longer watched")
                .arg(names.value(fd))
                .arg(n));
    }
}

void VeskGPIO::onGPIO(int fd, gpio_state state)
{
    auto it = states.find(fd);
    gpio_state last = state;  // the first edge of a line is always taken
    if (it != states.end()) {
        last = it.value();
        if (last.value == state.value) return;
        // Measured from the last accepted edge, so a train of bounces cannot
        // creep forward.
        if (qAbs(qint64(last.time) - qint64(state.time)) < kBounceMs) return;
    }
    const QString line = names.value(fd);
    sendEvent(state.value ? "up" : "down", line);
    if (state.value && !last.value && qAbs(qint64(last.time) - qint64(state.time)) < kClickMs)
        sendEvent("click", line);
    states[fd] = state;
}
