// HDMI receiver polled over I2C bus 1.
#pragma once

#include "driver/DriverBase.h"

class Driver7611 : public DriverBase {
    Q_OBJECT
public:
    explicit Driver7611(QObject* parent = nullptr);

    bool check7611(int& width, int& height, int& framerate, bool& interlace);
    bool isFullRange();
    void loadEDID(QString path);

public slots:
    void init() override;
    void onCheck() override;
};
