// Capture through an FPGA that deserialises the video and reports the format
// in two status bytes on I2C.
#pragma once

#include "driver/DriverBase.h"

class DriverFPGA : public DriverBase {
    Q_OBJECT
public:
    explicit DriverFPGA(QObject* parent = nullptr);

    struct Resolution {
        int width, height;
    };
    struct Rate {
        int framerate;
        bool interlace;
    };
    static const Resolution fpga_resolution[4];
    static const Rate fpga_fps[8];

    // Eight-bit address form, as the board description writes it.
    int device = 0;
    int regAddr = 0;
    int bus = 0;

public slots:
    void init() override;
    void onCheck() override;
};
