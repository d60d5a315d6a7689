// HDMI capture chip behind its own kernel driver, one port per input; the
// device is asked afresh on every pass.
#pragma once

#include "driver/DriverBase.h"

class DriverEma6911 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverEma6911(QObject* parent = nullptr);

    // One status request for this input's port. False when the device could
    // not be asked; index and rate are then untouched.
    bool query(int& index, int& framerate);
    // Size of a format index; false for an index the table does not hold.
    static bool resolution(int index, int& width, int& height);
    int port() const;

public slots:
    void onCheck() override;

private:
    bool openFailed = false;
    int reportedIndex = -1;
};
