// HDMI receiver that tells of a new signal on a GPIO line: the driver does
// nothing on the capture node's poll and measures the signal from the chip's
// registers each time the line goes "up".
#pragma once

#include <QString>
#include <QVariant>

#include "driver/DriverBase.h"

class VeskGPIO;

class Driver6911UXC : public DriverBase {
    Q_OBJECT
public:
    explicit Driver6911UXC(QObject* parent = nullptr);

    QString gpioName;
    VeskGPIO* gpio = nullptr;

public slots:
    void init() override;
    void onCheck() override;
    // Measures the signal when its own line goes "up".
    void onEvent(QString type, QVariant line);

private:
    int reg(unsigned bus, unsigned r);
    // Registers r and r + 1, high byte first.
    int pair(unsigned bus, unsigned r);
};
