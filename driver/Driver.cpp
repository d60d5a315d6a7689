#include "driver/Driver.h"

#include <QThread>
#include <functional>

#include "driver/DriverBase.h"
#include "driver/DriverCustom.h"
#include "driver/audio/DriverCS5368.h"
#include "driver/audio/DriverCx207.h"
#include "driver/audio/DriverES8388.h"
#include "driver/audio/DriverTlv32.h"
#include "driver/mcu/DriverVesk.h"
#include "driver/video/Driver6604.h"
#include "driver/video/Driver6911UXC.h"
#include "driver/video/Driver7611.h"
#include "driver/video/DriverEma6911.h"
#include "driver/video/DriverFPGA.h"
#include "driver/video/DriverGS2971.h"
#include "driver/video/DriverLT8619.h"
#include "driver/video/DriverMS1824.h"
#include "driver/video/DriverTC7509.h"
#include "frame/Vesk.h"

QMap<QString, DriverBase*> Driver::driverMapV;
QMap<QString, DriverBase*> Driver::driverMapA;

Driver::Driver()
{
    driverMapV.setSharable(false);
    driverMapA.setSharable(false);
}

namespace {
using Make = std::function<DriverBase*()>;
template <typename T>
Make make()
{
    return [] { return new T(nullptr); };
}

// Tested in this order, exact and case-sensitive. Chips whose driver is not
// in this build yet get a plain DriverBase: no signal, never a crash.
const QList<QPair<QString, Make>>& videoTable()
{
    static const QList<QPair<QString, Make>> table = {
        {"6604", make<Driver6604>()},       {"7611", make<Driver7611>()},
        {"Vesk", make<DriverVesk>()},       {"LT8619", make<DriverLT8619>()},
        {"EMA6911", make<DriverEma6911>()}, {"6911uxc", make<Driver6911UXC>()},
        {"GS2971", make<DriverGS2971>()},   {"TC7509", make<DriverTC7509>()},
        {"IT6801", make<DriverTC7509>()},   {"custom", make<DriverCustom>()},
        {"fpga", make<DriverFPGA>()},       {"MS1824", make<DriverMS1824>()},
    };
    return table;
}

const QList<QPair<QString, Make>>& audioTable()
{
    static const QList<QPair<QString, Make>> table = {
        {"cs5368", make<DriverCS5368>()}, {"tlv32", make<DriverTlv32>()},
        {"cx207", make<DriverCx207>()},   {"Vesk", make<DriverVesk>()},
        {"TC7509", make<DriverTC7509>()}, {"ES8388", make<DriverES8388>()},
        {"IT6801", make<DriverTC7509>()},
    };
    return table;
}

DriverBase* create(const QList<QPair<QString, Make>>& table, const QString& chip)
{
    for (const auto& row : table)
        if (row.first == chip) return row.second();
    return new DriverBase(nullptr);
}

DriverBase* lookup(const QMap<QString, DriverBase*>& map, const QString& name)
{
    auto it = map.constFind(name);
    return it == map.constEnd() ? nullptr : it.value();
}

void bringUp(DriverBase* driver, const QMap<QString, QVariant>& settings)
{
    driver->moveToThread(QThread::currentThread());
    driver->setData(settings);
    driver->init();
}
}  // namespace

DriverBase* Driver::createV(const QString& chip)
{
    return create(videoTable(), chip);
}
DriverBase* Driver::createA(const QString& chip)
{
    return create(audioTable(), chip);
}

void Driver::initV()
{
    static bool inited = false;
    if (inited) return;
    inited = true;
    buildV(Vesk::getConfig());
}

void Driver::buildV(const QVariantMap& config)
{
    QVariantMap video = config.value("interfaceV").toMap();
    QVariantMap audio = config.value("interfaceA").toMap();
    for (auto it = video.constBegin(); it != video.constEnd(); ++it) {
        QVariantMap settings = it.value().toMap();
        DriverBase* driver = createV(settings.value("chip").toString());
        bringUp(driver, settings);
        driverMapV[it.key()] = driver;
        // The receiver also serves the embedded audio of its input.
        if (audio.contains(it.key()) && audio.value(it.key()).toMap().contains("chip"))
            driverMapA[it.key()] = driver;
    }
}

void Driver::initA()
{
    static bool inited = false;
    if (inited) return;
    inited = true;
    buildA(Vesk::getConfig());
}

void Driver::buildA(const QVariantMap& config)
{
    QVariantMap video = config.value("interfaceV").toMap();
    QVariantMap audio = config.value("interfaceA").toMap();
    for (auto it = audio.constBegin(); it != audio.constEnd(); ++it) {
        QVariantMap settings = it.value().toMap();
        if (!settings.contains("chip")) continue;
        if (video.contains(it.key())) continue;  // initV builds it and shares it
        DriverBase* driver = createA(settings.value("chip").toString());
        bringUp(driver, settings);
        driverMapA[it.key()] = driver;
    }
}

QMap<QString, QVariant> Driver::getInfoV(QString name)
{
    DriverBase* d = lookup(driverMapV, name);
    return d ? d->getInfo() : QMap<QString, QVariant>();
}

QMap<QString, QVariant> Driver::getInfoA(QString name)
{
    DriverBase* d = lookup(driverMapA, name);
    return d ? d->getInfo() : QMap<QString, QVariant>();
}

int Driver::getSamplerate(QString name)
{
    DriverBase* d = lookup(driverMapA, name);
    return d ? d->getSamplerate() : 0;
}

QMap<QString, QVariant> Driver::getDiagnosticsV(QString name)
{
    DriverBase* d = lookup(driverMapV, name);
    return d ? d->diagnostics() : QMap<QString, QVariant>();
}

QMap<QString, QVariant> Driver::getDiagnosticsA(QString name)
{
    DriverBase* d = lookup(driverMapA, name);
    return d ? d->diagnostics() : QMap<QString, QVariant>();
}

QVariant Driver::callFuncV(QString name, QString func, QVariant arg)
{
    DriverBase* d = lookup(driverMapV, name);
    return d ? d->callFunc(func, arg) : QVariant(false);
}

QVariant Driver::callFuncA(QString name, QString func, QVariant arg)
{
    DriverBase* d = lookup(driverMapA, name);
    return d ? d->callFunc(func, arg) : QVariant(false);
}

bool Driver::setDataV(QString name, QMap<QString, QVariant> map)
{
    DriverBase* d = lookup(driverMapV, name);
    if (!d) return false;
    d->setData(map);
    return true;
}

bool Driver::setDataA(QString name, QMap<QString, QVariant> map)
{
    DriverBase* d = lookup(driverMapA, name);
    if (!d) return false;
    d->setData(map);
    return true;
}
