#include "driver/mcu/DriverVesk.h"

#include <QDebug>
#include <QFile>
#include <QMutexLocker>
#include <QSerialPort>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <cstdlib>

#include "frame/Vesk.h"
#include "frame/VeskSys.h"

QSerialPort* DriverVesk::com = nullptr;
DriverVesk* DriverVesk::instance = nullptr;
QMutex DriverVesk::mutex;
QMap<QString, QVariant> DriverVesk::infoMap;
QTimer* DriverVesk::timer = nullptr;
bool DriverVesk::alive = true;
int DriverVesk::tempVal = 0;

namespace {
const char kPort[] = "/dev/ttyAMA2";
// Input names come from the peer; a board has a handful.
constexpr int kMaxInputs = 64;
}  // namespace

DriverVesk::DriverVesk(QObject* parent) : DriverBase(parent)
{
    rates << 24 << 25 << 30 << 50 << 60 << 85 << 120;
    widths << 720 << 640 << 800 << 960 << 1024 << 1280 << 1366 << 1440 << 1600 << 1680 << 1920
           << 2560 << 3840;
    heights << 576 << 360 << 480 << 600 << 640 << 720 << 768 << 800 << 900 << 960 << 1024 << 1050
            << 1080 << 1200 << 1440 << 2160;
}

void DriverVesk::registDev(QObject* dev)
{
    connect(this, SIGNAL(keyPress(QString, QString)), dev, SLOT(onKeyPress(QString, QString)));
}

bool DriverVesk::setLine()
{
    return com->setBaudRate(QSerialPort::Baud115200) && com->setDataBits(QSerialPort::Data8) &&
           com->setParity(QSerialPort::NoParity) &&
           com->setFlowControl(QSerialPort::NoFlowControl) &&
           com->setStopBits(QSerialPort::OneStop);
}

void DriverVesk::init()
{
    if (com) return;
    QMutexLocker lock(&mutex);
    if (com) return;

    com = new QSerialPort(this);
    com->setPortName(vsys::path(kPort));
    vsys::system("rm /tmp/*ttyAMA2  2>/dev/null");
    if (!com->open(QIODevice::ReadWrite)) {
        qDebug() << "can not open tty";
        std::exit(0);
    }
    // The board's set-up waits here until the microcontroller has spoken.
    for (;;) {
        // Every setting again from the baud rate until all of them take.
        while (!setLine()) {
        }
        if (com->isOpen()) {
            if (com->waitForReadyRead(3000) && !com->readAll().isEmpty()) break;
        } else {
            // A port that did not reopen answers at once; keep the pace.
            QThread::msleep(3000);
        }
        qDebug() << "can not read tty";
        com->close();
        com->open(QIODevice::ReadWrite);
    }

    instance = this;
    timer = new QTimer();
    timer->start(3000);
    connect(com, &QSerialPort::readyRead, this, &DriverVesk::onRead);
    connect(timer, &QTimer::timeout, this, &DriverVesk::onTimer);
    onRead();
    sendCmd({{"Cmd", "GetVer"}, {"SeqNum", 1000}});
}

void DriverVesk::sendCmd(QMap<QString, QVariant> cmd)
{
    const QString text = Json::encode(QVariant(cmd), false) + "#####";
    mcu::observe(QStringLiteral("sent"), text);
    writeLine(text.toLatin1());
}

void DriverVesk::writeLine(const QByteArray& bytes)
{
    QSerialPort* port = com;
    if (!port) {
        qDebug() << "mcu: no line yet, command not sent:" << bytes;
        return;
    }
    // Other nodes (the device node, the display) send from their own
    // threads. QSerialPort is not thread-safe: a second thread writing into
    // it while the line's thread reads or writes can corrupt its buffers, so
    // the write is handed over to the line's thread and runs there.
    if (QThread::currentThread() == port->thread())
        port->write(bytes);
    else
        QMetaObject::invokeMethod(port, [port, bytes] { port->write(bytes); });
}

void DriverVesk::onRead()
{
    if (!com) return;
    while (com->bytesAvailable() > 0) {
        const QByteArray block = com->readAll();
        mcu::observe(QStringLiteral("read"), block.size());
        received.append(block);
    }
    QString text, raw;
    while (received.next(&text, &raw)) {
        alive = true;
        bool handled = false;
        const QVariantMap message = mcu::dispatch(this, text, &handled);
        mcu::observe(QStringLiteral("frame"),
                     QVariantMap{{"raw", raw}, {"message", message}, {"handled", handled}});
    }
}

void DriverVesk::onTimer()
{
    if (alive) {
        alive = false;
        mcu::observe(QStringLiteral("alive"), true);
        return;
    }
    qDebug() << "tty time out";
    mcu::observe(QStringLiteral("timeout"), com->portName());
    disconnect(com, &QSerialPort::readyRead, this, &DriverVesk::onRead);
    com->close();
    com->open(QIODevice::ReadWrite);
    com->setBaudRate(QSerialPort::Baud115200);
    com->setDataBits(QSerialPort::Data8);
    com->setParity(QSerialPort::NoParity);
    com->setFlowControl(QSerialPort::NoFlowControl);
    com->setStopBits(QSerialPort::OneStop);
    connect(com, &QSerialPort::readyRead, this, &DriverVesk::onRead);
    onRead();
    alive = false;
}

void DriverVesk::res_info(QVariantMap msg)
{
    QMutexLocker lock(&mutex);
    const QString name = msg.value("name").toString();
    if (!infoMap.contains(name) && infoMap.size() >= kMaxInputs) {
        qDebug() << "mcu: status of a further input" << name << "dropped: already" << kMaxInputs;
        return;
    }
    infoMap[name] = QVariant(msg);
}

void DriverVesk::debug(QVariantMap) {}

void DriverVesk::temp(QVariantMap msg)
{
    tempVal = msg.value("value").toInt();
}

void DriverVesk::key(QVariantMap msg)
{
    emit keyPress(msg.value("key").toString(), msg.value("act").toString());
}

void DriverVesk::Version(QVariantMap msg)
{
    QFile f(vsys::path("/tmp/mcuVersion"));
    f.open(QIODevice::ReadWrite);
    f.resize(0);
    f.write(msg.value("value").toString().toLatin1());
}

void DriverVesk::cfg_info(QVariantMap msg)
{
    if (bootMode.isEmpty()) return;
    // After "standby" the microcontroller reports "standby_redon".
    if (msg.value("on_mode").toString().contains(bootMode)) return;
    QMap<QString, QVariant> reply;
    reply["Cmd"] = "config";
    reply["brdtype"] = msg.value("cfgtype").toString();
    reply["SeqNum"] = 100;
    reply["off_mode"] = "off_red_on";
    reply["on_mode"] = bootMode;
    if (bootMode == "standby") reply["on_mode"] = bootMode + "_redon";
    reply["KeyConfirm"] = 1000;
    sendCmd(reply);
}

void DriverVesk::onCheck()
{
    QMutexLocker lock(&mutex);
    const QString name = data.value("name").toString();
    const QVariant entry = infoMap.value(name);
    if (!entry.isValid()) return;
    const QVariantMap status = entry.toMap();
    QMap<QString, QVariant> work;

    if (data.contains("samplerate")) {
        work["samplerate"] = status.value("lock").toInt() == 0 ? 0 : status.value("as").toInt();
        info = work;
        return;
    }

    const int lock_ = status.value("lock").toInt();
    const QStringList protocols = data.value("protocols").toStringList();
    work["avalible"] = lock_ > 0;
    // A number past the configured names reads as an empty name.
    work["protocol"] = protocols.value(std::max(lock_ - 1, 0));
    work["width"] = status.value("w").toInt();
    work["height"] = status.value("h").toInt();
    work["framerate"] = status.value("f").toInt();
    if (work["framerate"].toInt() == 99) work["framerate"] = 30;
    if (status.contains("ddr")) work["double"] = status.value("ddr").toInt() == 1;
    work["interlace"] = status.contains("p") ? status.value("p").toInt() == 0 : false;

    const bool filter = !(data.contains("check") && !data.value("check").toBool());
    if (work["avalible"].toBool() && filter &&
        (!rates.contains(work["framerate"].toInt()) || !widths.contains(work["width"].toInt()) ||
         !heights.contains(work["height"].toInt())))
        return;
    info = work;
}
