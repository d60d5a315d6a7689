#include "driver/video/TC7509.h"

#include <QDebug>

#include "driver/video/ms7200/ms7200_app.h"
#include "frame/VeskSys.h"

TC7509::TC7509(DriverBase* b) : it6602(&dev, b), bus(b)
{
    dev.chip_addr = 146;
    it6602.edidAddr = 168;
    it6602.cecAddr = 200;
    it6602.swapYC = true;
}

TC7509::~TC7509()
{
    requestInterruption();
    wait();
    delete ms7200.load();
}

void TC7509::run()
{
    it6602.i2c_open();
    if (!it6602.CheckChipID()) {
        runMs7200();
        return;
    }
    path = PathIT6602;
    it6602.IT6602_fsm_init();
    vsys::msleep(500);
    it6602.it6602HPDCtrl(0, true);
    vsys::msleep(500);
    it6602.IT6602_fsm();
    int count = 0;
    while (!isInterruptionRequested()) {
        vsys::msleep(100);
        it6602.IT6602_fsm();
        if (++count < 10) continue;
        it6602.get_vid_info();
        for (int i = 0; i < 3 && !isInterruptionRequested(); i++) {
            vsys::msleep(100);
            it6602.IT6602_fsm();
        }
        count = 2;
    }
    it6602.i2c_close();
}

void TC7509::runMs7200()
{
    auto* app = new CMs7200App(&dev, bus);
    app->SetupIndex(dev.chip_addr);
    dev.ms7200 = 1;
    if (!app->ms7200_CheckChipID()) {
        delete app;
        it6602.i2c_close();
        qDebug("TC7509: no receiver answers at %#x on %s %d; the input stays without signal",
               dev.chip_addr, dev.gpio_i2c ? "gpio_i2c" : "i2c", dev.i2c_num);
        path = Ended;
        return;
    }
    path = PathMS7200;
    ms7200 = app;
    qDebug("MS7200 start");
    app->ms7200_init();
    while (!isInterruptionRequested()) {
        app->ms7200_loop();
        vsys::msleep(100);
    }
    it6602.i2c_close();
}
