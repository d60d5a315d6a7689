// Application layer of the MS7200 receiver stack: bring-up, the media
// service that follows the input, and the report into the TC7509 record.
#pragma once

#include <QVector>

#include "driver/video/it6602_dev_data.h"

class DriverBase;

class CMs7200App {
public:
    CMs7200App(it6602_dev_data* record, DriverBase* bus);
    ~CMs7200App();

    void SetupIndex(int chipAddr);
    bool ms7200_CheckChipID();
    void ms7200_init();
    void ms7200_loop();

    int stableCount() const;
    QVector<int> eqGains() const;

private:
    it6602_dev_data* m_record;
    DriverBase* m_bus;
};
