#include "driver/audio/DriverCS5368.h"

#include <QDebug>

bool DriverCS5368::inited = false;

DriverCS5368::DriverCS5368(QObject* parent) : DriverBase(parent) {}

void DriverCS5368::init()
{
    if (inited) return;
    inited = true;
    qDebug() << "5368 init";
    for (unsigned dev : {0x98u, 0x9Au}) {
        write0_8(dev, 1, 0x98);
        write0_8(dev, 6, 0);
    }
}
