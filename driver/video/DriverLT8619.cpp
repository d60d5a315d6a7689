#include "driver/video/DriverLT8619.h"

#include "driver/video/LT8619.h"

DriverLT8619::DriverLT8619(QObject* parent) : DriverBase(parent)
{
    // Not a child: the driver moves to its poller's thread, the loop stays.
    lt = new LT8619(this);
    lt->start(QThread::InheritPriority);  // 7
}

DriverLT8619::~DriverLT8619()
{
    lt->requestInterruption();
    lt->wait();
    delete lt;
}

void DriverLT8619::init() {}

void DriverLT8619::onCheck()
{
    info["avalible"] = LT8619::enable.load();
    if (!info["avalible"].toBool()) return;
    info["width"] = LT8619::width.load();
    info["height"] = LT8619::height.load();
    info["framerate"] = LT8619::fps.load();
    info["interlace"] = LT8619::interlace.load();
    info["full"] = LT8619::full.load();
}

QMap<QString, QVariant> DriverLT8619::diagnostics()
{
    return lt->diagnostics();
}
