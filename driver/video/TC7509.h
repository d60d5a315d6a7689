// The thread that owns the HDMI receiver of a "TC7509" input: it finds out
// which chip answers, brings it up and then runs that chip's state machine
// every 100 ms, writing what it sees into the device record.
#pragma once

#include <QThread>
#include <atomic>

#include "driver/video/IT6602.h"
#include "driver/video/it6602_dev_data.h"

class CMs7200App;
class DriverBase;

class TC7509 : public QThread {
    Q_OBJECT
public:
    enum Path { Starting, PathIT6602, PathMS7200, Ended };

    explicit TC7509(DriverBase* bus);
    ~TC7509() override;

    it6602_dev_data dev;
    IT6602Class it6602;
    std::atomic<int> path{Starting};
    // Set once the MS7200 answered; read by diagnostics from other threads.
    std::atomic<CMs7200App*> ms7200{nullptr};

protected:
    void run() override;

private:
    void runMs7200();
    DriverBase* bus;
};
