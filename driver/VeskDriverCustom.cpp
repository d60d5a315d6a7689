#include "driver/VeskDriverCustom.h"

VeskDriverCustom::VeskDriverCustom(QObject* parent) : QObject(parent) {}

void VeskDriverCustom::start(QMap<QString, QVariant>) {}

QMap<QString, QVariant> VeskDriverCustom::getState()
{
    return {{"avalible", false}};
}
