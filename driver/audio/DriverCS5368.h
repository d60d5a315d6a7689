// The board's two CS5368 multichannel converters: put in their working mode
// once, whichever interface names them first.
#pragma once

#include "driver/DriverBase.h"

class DriverCS5368 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverCS5368(QObject* parent = nullptr);

    // Both converters sit on one bus, so several interfaces may share them.
    static bool inited;

public slots:
    void init() override;
};
