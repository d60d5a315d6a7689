// SDI deserialiser behind its own kernel driver; the chip reports a standard
// code that is looked up in a table of known formats.
#pragma once

#include "driver/DriverBase.h"

class DriverGS2971 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverGS2971(QObject* parent = nullptr);
    ~DriverGS2971() override;

    struct Format {
        int width;
        int height;
        int progressive;
        int framerate;
        int code;
    };
    static const Format res_tab[18];
    // The first row with this code, or null.
    static const Format* find(int code);

    unsigned int Read(int f, int reg, unsigned int* out);
    void enableB(int f);

    int32_t device = -1;

public slots:
    void init() override;
    void onCheck() override;
};
