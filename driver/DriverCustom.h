// The chip word "custom": a receiver driver the board integrator brings as a
// plug-in (driver/VeskDriverCustom.h), loaded from the interface's "path".
#pragma once

#include "driver/DriverBase.h"

class VeskDriverCustom;

class DriverCustom : public DriverBase {
    Q_OBJECT
public:
    explicit DriverCustom(QObject* parent = nullptr);

    VeskDriverCustom* plugin = nullptr;

public slots:
    void init() override;
    void onCheck() override;

private:
    bool warned = false;
};
