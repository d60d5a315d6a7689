// The board's TLV320AIC31 codec. At start its kernel driver is told the audio
// format; afterwards every configuration change goes to the chip's registers
// over the bit-banged I2C device.
#pragma once

#include "device/VeskGPIO.h"
#include "driver/DriverBase.h"

// The start sequence on "/dev/tlv320aic31": 0, or -1 when the device does not
// open or a format step fails.
int SAMPLE_Tlv320_CfgAudio3();

class DriverTlv32 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverTlv32(QObject* parent = nullptr);

    // The same sequence, announcing itself and leaving the device open when a
    // format step fails.
    int SAMPLE_Tlv320_CfgAudio();

    VeskGPIO gpio;

public slots:
    void init() override;
    void onSetData(QMap<QString, QVariant> newData) override;
};
