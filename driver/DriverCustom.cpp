#include "driver/DriverCustom.h"

#include <dlfcn.h>

#include <QDebug>

#include "driver/VeskDriverCustom.h"
#include "frame/VeskSys.h"

DriverCustom::DriverCustom(QObject* parent) : DriverBase(parent) {}

void DriverCustom::init()
{
    const QString path = data["path"].toString();
    // An empty path stays empty: dlopen then gives the main program.
    const QByteArray file = (path.isEmpty() ? path : vsys::path(path)).toLocal8Bit();
    void* handle = dlopen(file.constData(), RTLD_LAZY);
    if (!handle) {
        qDebug().noquote() << "Cannot load library: " + path + " " +
                                  QString::fromLocal8Bit(dlerror());
        return;
    }
    dlerror();
    void* create = dlsym(handle, "create");
    if (const char* error = dlerror()) {
        qDebug().noquote() << "Cannot load symbol create: " + QString::fromLocal8Bit(error);
        return;
    }
    // The handle stays open and the object alive for the rest of the process.
    plugin = reinterpret_cast<VeskDriverCustomCreate>(create)();
    if (plugin) plugin->start(data);
}

void DriverCustom::onCheck()
{
    // A plug-in that did not load must not take the capture node with it: the
    // interface simply has no signal.
    if (!plugin) {
        if (!warned) qDebug().noquote() << "custom driver without a plug-in: no signal";
        warned = true;
        return;
    }
    info = plugin->getState();
}
