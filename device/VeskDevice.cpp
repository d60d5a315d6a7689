#include "device/VeskDevice.h"

#include <fcntl.h>

#include <QDateTime>
#include <QDebug>
#include <QSocketNotifier>
#include <cerrno>
#include <cstring>

#include "driver/DriverBase.h"
#include "driver/mcu/DriverVesk.h"
#include "frame/VeskHi.h"
#include "frame/VeskRegister.h"
#include "frame/VeskSys.h"
#include "frame/hi_mpi.h"

VESK_REGISTER(VeskDevice)

bool VeskDevice::inited = false;

namespace {

// The SoC's temperature sensor: its reading in the low 16 bits.
constexpr unsigned long kSensorWord = 0x1102A008;
// One record of the infra-red driver: high, low, state.
constexpr int kIrRecord = 12;
constexpr int kIrRead = 48;

// Wall time in microseconds, as the board's clock shows it.
int64_t wallClockUs()
{
    timespec ts{};
    vsys::clock_gettime(CLOCK_REALTIME, &ts);
    const int64_t ms = int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    return ms * 1000;
}

}  // namespace

VeskDevice::VeskDevice(QObject* parent) : VeskObject(parent)
{
    shareName = "share";
    shareDepth = 2;
}

void VeskDevice::onStart() {}

void VeskDevice::log(const QString& text) const
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << text;
}

QVariant VeskDevice::getTemperature()
{
    DriverBase regs;
    const unsigned raw = unsigned(regs.mread(kSensorWord) & 0xFFFF);
    // The sensor's scale; both truncations belong to the reported value.
    const int celsius = int(((double(raw) - 127) / 784) * 165 - 40);
    return int(celsius * 0.75);
}

void VeskDevice::onKeyPress(QString key, QString act)
{
    newEvent("keyPress", key);
    log(QStringLiteral("key %1 %2").arg(key, act));
}

QVariant VeskDevice::poweroff()
{
    if (!DriverVesk::instance) {
        log("poweroff: no front-panel microcontroller on this board, nothing sent");
        return true;
    }
    QMap<QString, QVariant> cmd;
    cmd["Cmd"] = "power";
    cmd["act"] = "off";
    cmd["SeqNum"] = 100;
    DriverVesk::instance->sendCmd(cmd);
    return true;
}

QVariant VeskDevice::setBootMode(QVariant mode)
{
    if (!DriverVesk::instance) {
        log("setBootMode: no front-panel microcontroller on this board, mode not kept");
        return true;
    }
    // Reaches the microcontroller with its next configuration report.
    DriverVesk::instance->bootMode = mode.toString();
    return true;
}

QVariant VeskDevice::setTally(QVariant)
{
    return true;
}

QVariant VeskDevice::enableIR()
{
    const char* path = vsys::exists("/dev/OT_IR") ? "/dev/OT_IR" : "/dev/Hi_IR";
    irFd = vsys::open(path, O_RDWR);
    qDebug(irFd < 0 ? "open ir faild" : "open ir ok");
    vsys::ioctl(irFd, 2, 1UL);
    irNotifier = new QSocketNotifier(irFd, QSocketNotifier::Read, this);
    connect(irNotifier, &QSocketNotifier::activated, this, &VeskDevice::onReadIR);
    return true;
}

void VeskDevice::onReadIR(int fd)
{
    unsigned char buf[kIrRead];
    ssize_t n = vsys::read(fd, buf, sizeof buf);
    if (n <= 0 && !(n < 0 && (errno == EAGAIN || errno == EINTR))) {
        // A receiver that ended stays readable for ever; left on, the
        // notifier would keep the thread spinning.
        if (auto* notifier = qobject_cast<QSocketNotifier*>(sender())) {
            notifier->setEnabled(false);
            log(QStringLiteral("infra-red device ended (read %1), no longer read").arg(n));
        }
        return;
    }
    if (n < kIrRecord) return;
    // Only the first record of a read counts.
    uint32_t high, low, state;
    std::memcpy(&high, buf, 4);
    std::memcpy(&low, buf + 4, 4);
    std::memcpy(&state, buf + 8, 4);
    qDebug("state:%ld,high:%#lx,low:%#lx", long(state), (unsigned long)high, (unsigned long)low);
    QVariantMap code;
    code["state"] = qint64(state);
    code["high"] = qint64(high);
    code["low"] = qint64(low);
    sendEvent("IR", code);
}

QVariant VeskDevice::syncRTC()
{
    const int64_t us = wallClockUs();
    if (!inited) {
        // Before 2000 the system clock has not been set: a base taken from it
        // would be worthless.
        if (QDateTime::fromMSecsSinceEpoch(us / 1000).date().year() < 2000) return false;
        VeskHi::absPTS = true;
        int r = hi_mpi_sys_init_pts_base(td_u64(us));
        if (r != 0) log(QString::asprintf("hi_mpi_sys_init_pts_base failed %#x", unsigned(r)));
        inited = true;
        return true;
    }
    int r = hi_mpi_sys_sync_pts(td_u64(us));
    if (r != 0) log(QString::asprintf("hi_mpi_sys_sync_pts failed %#x", unsigned(r)));
    return true;
}

QVariant VeskDevice::syncRTC2()
{
    const long long pts = VeskHi::getPTS(nullptr, false);
    const int64_t us = wallClockUs();
    VeskHi::setPTSOffset(us - pts);
    return true;
}

void VeskDevice::onNewEvent(QString type, QVariant info)
{
    qDebug().noquote() << QStringLiteral("[%1]").arg(name()) << type << info;
    if (type != "tally") return;
    QVariantMap m = info.toMap();
    if (m.value("program").toBool())
        setTally(2);
    else
        setTally(m.value("preview").toBool() ? 1 : 0);
}

QVariant VeskDevice::writeSYMC(QVariant)
{
    return true;
}

QVariant VeskDevice::writeOTP(QVariant)
{
    return true;
}

QVariant VeskDevice::readOTP(QVariant)
{
    return QByteArray();
}
