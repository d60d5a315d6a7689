// The ES8388 codec, set up once through its kernel driver ("/dev/es8388"):
// input selection, power, format, levels and unmute.
#pragma once

#include "driver/DriverBase.h"

class DriverES8388 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverES8388(QObject* parent = nullptr);

public slots:
    void init() override;
};
