// The CX207 audio processor: echo cancelling, automatic gain and a twelve-band
// equaliser behind 16-bit registers on I2C bus 0. Its start-up takes more
// than a second, so configuration that comes meanwhile is held and applied
// once the chip is up.
#pragma once

#include <QMutex>

#include "device/VeskGPIO.h"
#include "driver/DriverBase.h"

class DriverCx207 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverCx207(QObject* parent = nullptr);

    void write16(unsigned int reg, unsigned int value);

    // Last option word and echo cancelling level sent to the chip, for every
    // instance: committing them costs half a second, so only a change is sent.
    static int curVal;
    static int lastAecLevel;

    VeskGPIO gpio;  // the reset lines

public slots:
    void init() override;
    void onSetData(QMap<QString, QVariant> newData) override;

private:
    // `ready` and `held` change hands between the set-up thread and the
    // configuring node's thread.
    QMutex holdLock;
    bool ready = false;
    QMap<QString, QVariant> held;
};
