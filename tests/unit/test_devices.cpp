// The device nodes and the receiver that listens to a GPIO line, driven
// through their public interfaces on the virtual board: GPIO edges, codes
// and clock settings come from scenario steps with their own time stamps.
#include <sys/ioctl.h>

#include <memory>

#include "device/VeskDevice.h"
#include "device/VeskGPIO.h"
#include "driver/Driver.h"
#include "driver/mcu/DriverVesk.h"
#include "driver/video/Driver6911UXC.h"
#include "sim/Peripherals.h"
#include "tests/unit/CaptureHarness.h"

using capture::Log;
using vsim::Board;

namespace {

class Devices : public capture::GraphTest {
protected:
    void step(const QVariantMap& s)
    {
        QString error;
        ASSERT_TRUE(Board::instance().applyStep(s, &error)) << error.toStdString();
    }
    // Edges of one line as (ms, level) pairs, all stamped by this one step.
    void edges(const char* line, std::initializer_list<std::pair<int, int>> list)
    {
        QVariantList e;
        for (auto [ms, level] : list) e << QVariantMap{{"ms", ms}, {"level", level}};
        step({{"gpio", line}, {"edges", e}});
    }
    // "event:value" of the node's events; with `value`, only those.
    QStringList names(const QString& node, const QString& value = QString())
    {
        QStringList out;
        for (const auto& e : events)
            if (e.node == node && (value.isNull() || e.value == value))
                out << e.name + ":" + e.value.toString();
        return out;
    }
    bool waitEvents(const QString& node, int n)
    {
        return waitFor([&] { return names(node).size() >= n; });
    }
    QVariant call(const char* node, const char* method, const QVariant& arg = QVariant())
    {
        return graph->invoke(node, method, arg);
    }
};

TEST_F(Devices, GpioEdgesDebounceAndClicks)
{
    make<VeskGPIO>("keys", {});
    EXPECT_TRUE(call("keys", "registEvent", "GPIO2_1").toBool());
    EXPECT_FALSE(call("keys", "registEvent", "gpio2_1").toBool());  // same line
    EXPECT_EQ(vsim::GpioLines::instance().consumer(2, 1), "VeskGPIO");
    EXPECT_TRUE(call("keys", "registEvent", "GPIO3_2").toBool());

    // A bounce 5 ms after the press is dropped; the release at 300 ms is a click.
    edges("GPIO2_1", {{0, 0}, {5, 1}, {300, 1}});
    ASSERT_TRUE(waitEvents("keys", 3));
    // Bounces count from the last accepted edge: 1015 is dropped, and 1030,
    // 30 ms after the press though 15 ms after that bounce, is the release.
    edges("GPIO2_1", {{1000, 0}, {1015, 1}, {1030, 1}});
    edges("GPIO2_1", {{2000, 0}, {2500, 1}});             // 500 ms: no click
    edges("GPIO2_1", {{3000, 0}, {3499, 1}, {3600, 1}});  // a repeated level is no edge
    // A line whose first edge rises: "up", never a click.
    edges("GPIO3_2", {{0, 1}});
    ASSERT_TRUE(waitEvents("keys", 12));
    // Lines are read independently: their events interleave in any order.
    EXPECT_EQ(names("keys", "GPIO2_1").join(" "),
              "down:GPIO2_1 up:GPIO2_1 click:GPIO2_1 down:GPIO2_1 up:GPIO2_1 click:GPIO2_1 "
              "down:GPIO2_1 up:GPIO2_1 down:GPIO2_1 up:GPIO2_1 click:GPIO2_1");
    EXPECT_EQ(names("keys", "GPIO3_2").join(" "), "up:GPIO3_2");

    // A name without a pin is line 0 of its chip; a missing chip, or a line
    // sysfs holds, cannot be watched.
    EXPECT_TRUE(call("keys", "registEvent", "GPIO7").toBool());
    EXPECT_EQ(vsim::GpioLines::instance().consumer(7, 0), "VeskGPIO");
    EXPECT_FALSE(call("keys", "registEvent", "GPIO99_0").toBool());
    EXPECT_TRUE(Log::has("Failed to open  /dev/gpiochip99"));
    EXPECT_TRUE(call("keys", "setGPIO", QVariantList{"GPIO4_0", 1}).toBool());
    EXPECT_FALSE(call("keys", "registEvent", "GPIO4_0").toBool());
    EXPECT_TRUE(Log::has("Failed to issue GET EVENT  -1 0"));
    EXPECT_FALSE(call("keys", "registEvent", "GPIO4_0").toBool());  // tried once only
}

TEST_F(Devices, GpioLevelsThroughSysfs)
{
    VeskGPIO* gpio = make<VeskGPIO>("io", {});
    EXPECT_EQ(gpio->shareName, "share");
    EXPECT_EQ(gpio->shareDepth, 2);
    EXPECT_EQ(gpio->data.value("config"), "/vesk/config/gpio.json");
    auto& lines = vsim::GpioLines::instance();
    auto commands = [] { return Board::instance().commands(); };

    EXPECT_TRUE(call("io", "setGPIO", QVariantList{"GPIO13_5", 2}).toBool());
    EXPECT_EQ(commands(), QStringList({"echo 109 > /sys/class/gpio/export",
                                       "echo out > /sys/class/gpio/gpio109/direction",
                                       "echo 1 > /sys/class/gpio/gpio109/value"}));
    EXPECT_TRUE(lines.level(13, 5));
    EXPECT_TRUE(call("io", "setGPIO", QVariantList{"gpio13_5", false}).toBool());
    EXPECT_EQ(commands().size(), 4);  // exported already: the value line alone
    EXPECT_FALSE(lines.level(13, 5));

    // Reading makes the line an input, showing what drives it from outside.
    step({{"gpio", "GPIO13_5"}, {"level", 1}});
    EXPECT_TRUE(call("io", "getGPIO", "GPIO13_5").toBool());
    EXPECT_EQ(commands().mid(4), QStringList({"echo in > /sys/class/gpio/gpio109/direction"}));
    EXPECT_FALSE(lines.isOutput(13, 5));
    EXPECT_FALSE(call("io", "getGPIO", "GPIO0_3").toBool());
    EXPECT_EQ(commands().mid(5), QStringList({"echo 3 > /sys/class/gpio/export",
                                              "echo in > /sys/class/gpio/gpio3/direction"}));

    // A part that does not parse counts as 0 and the shell lines run; only
    // three entries, or a number past the int range, are refused.
    const int before = commands().size();
    EXPECT_TRUE(call("io", "setGPIO", QVariantList{"GPIO11", 1}).toBool());
    EXPECT_EQ(commands().mid(before), QStringList({"echo 88 > /sys/class/gpio/export",
                                                   "echo out > /sys/class/gpio/gpio88/direction",
                                                   "echo 1 > /sys/class/gpio/gpio88/value"}));
    EXPECT_TRUE(call("io", "setGPIO", QVariantList{"key_x", 0}).toBool());
    EXPECT_EQ(commands().last(), "echo 0 > /sys/class/gpio/gpio0/value");
    const int after = commands().size();
    EXPECT_FALSE(call("io", "setGPIO", QVariantList{"GPIO1_1", 1, 2}).toBool());
    EXPECT_FALSE(call("io", "setGPIO", QVariantList{"GPIO999999999_7", 1}).toBool());
    EXPECT_FALSE(call("io", "getGPIO", "GPIO999999999_7").toBool());
    EXPECT_EQ(commands().size(), after);
}

TEST_F(Devices, DeviceNode)
{
    VeskDevice* dev = make<VeskDevice>("dev", {});
    EXPECT_EQ(dev->shareName, "share");
    EXPECT_EQ(dev->shareDepth, 2);
    EXPECT_TRUE(VeskGraph::classes().contains("VeskDevice"));
    EXPECT_TRUE(VeskGraph::classes().contains("VeskGPIO"));

    // Temperature: low 16 bits of the sensor word, truncated twice.
    for (auto [word, celsius] : {std::pair<uint32_t, int>{0xABCD007F, -30}, {0, -49}, {514, 30}}) {
        step({{"mem", "0x1102A008"}, {"value", word}});
        EXPECT_EQ(call("dev", "getTemperature").toInt(), celsius) << word;
    }

    EXPECT_TRUE(call("dev", "enableIR").toBool());
    EXPECT_TRUE(Log::has("open ir ok"));
    auto irDrained = [&] {
        int queued = -1;
        return waitFor([&] { return ::ioctl(dev->irFd, FIONREAD, &queued) == 0 && !queued; });
    };
    step({{"ir", QVariantMap{{"hex", "0102030405060708090a0b"}}}});  // 11 bytes: no record
    ASSERT_TRUE(irDrained());
    QByteArray two = vsim::irRecord(0xFFFFFFFF, 0x40BF00FF, 1) + vsim::irRecord(1, 2, 3);
    step({{"ir", QVariantMap{{"hex", QString(two.toHex())}}}});  // the second is lost
    ASSERT_TRUE(irDrained());
    ASSERT_TRUE(waitEvents("dev", 1));
    EXPECT_EQ(eventsOf("dev", "IR").size(), 1);
    EXPECT_EQ(
        eventsOf("dev", "IR").value(0).value.toMap(),
        QVariantMap(
            {{"state", qint64(1)}, {"high", qint64(0xFFFFFFFF)}, {"low", qint64(0x40BF00FF)}}));

    // Without "/dev/OT_IR" the other receiver's name; without both, a bad
    // descriptor that never reports.
    make<VeskDevice>("dev2", {});
    step({{"device", "/dev/OT_IR"}, {"absent", true}});
    EXPECT_TRUE(call("dev2", "enableIR").toBool());
    step({{"ir", QVariantMap{{"high", 0}, {"low", "0x10"}}}});
    ASSERT_TRUE(waitEvents("dev2", 1));
    EXPECT_EQ(eventsOf("dev2", "IR").value(0).value.toMap().value("low"), 16);
    step({{"device", "/dev/Hi_IR"}, {"absent", true}});
    make<VeskDevice>("dev3", {});
    EXPECT_TRUE(call("dev3", "enableIR").toBool());
    EXPECT_TRUE(Log::has("open ir faild"));

    EXPECT_TRUE(graph->invoke("dev", "onKeyPress", QVariantList{"MENU", "long"}).isNull());
    ASSERT_TRUE(waitFor([&] { return !eventsOf("dev", "keyPress").isEmpty(); }));
    EXPECT_EQ(eventsOf("dev", "keyPress").value(0).value, "MENU");

    QVariant otp = call("dev", "readOTP", 1);
    EXPECT_EQ(otp.userType(), QMetaType::QByteArray);
    EXPECT_TRUE(otp.toByteArray().isEmpty());
    for (const char* m : {"setTally", "writeSYMC", "writeOTP"})
        EXPECT_EQ(call("dev", m, 1), QVariant(true)) << m;

    // Boot mode and power-off go to the line's owner; a board without one
    // says so instead of failing.
    DriverVesk::instance = nullptr;
    EXPECT_EQ(call("dev", "poweroff"), QVariant(true));
    EXPECT_TRUE(Log::has("no front-panel microcontroller"));
    DriverVesk mcu;
    DriverVesk::instance = &mcu;
    EXPECT_EQ(call("dev", "setBootMode", "standby"), QVariant(true));
    EXPECT_EQ(mcu.bootMode, "standby");
    DriverVesk::instance = nullptr;
}

TEST_F(Devices, ClockFromWallTime)
{
    make<VeskDevice>("dev", {});
    VeskDevice::inited = false;
    VeskHi::absPTS = false;
    // An unset clock: nothing happens until one with a real year.
    step({{"clock", "1970-01-01T00:00:07Z"}});
    EXPECT_EQ(call("dev", "syncRTC"), QVariant(false));
    EXPECT_TRUE(platform().calls().isEmpty());
    EXPECT_FALSE(VeskHi::absPTS);

    const qint64 t2024 =
        QDateTime::fromString("2024-05-06T07:08:09Z", Qt::ISODate).toMSecsSinceEpoch();
    step({{"clock", "2024-05-06T07:08:09Z"}});
    EXPECT_EQ(call("dev", "syncRTC"), QVariant(true));
    EXPECT_TRUE(VeskHi::absPTS);
    ASSERT_EQ(platform().callNames(), QStringList({"hi_mpi_sys_init_pts_base"}));
    EXPECT_NEAR(platform().calls()[0].args[0].toDouble(), t2024 * 1000.0, 2e6);
    // Later calls keep the clock in step whatever year it shows.
    step({{"clock", "1970-01-01T00:00:07Z"}});
    EXPECT_EQ(call("dev", "syncRTC"), QVariant(true));
    EXPECT_EQ(platform().callNames().value(1), "hi_mpi_sys_sync_pts");
    EXPECT_LT(platform().sysPts(), 60ull * 1000000);

    // The host's clock instead of the platform's.
    step({{"clock", "2024-05-06T07:08:09Z"}});
    const long long before = VeskHi::getPTS(nullptr, false);
    EXPECT_EQ(call("dev", "syncRTC2"), QVariant(true));
    const long long now = VeskHi::getPTS(nullptr, false);
    EXPECT_NEAR(double(now), t2024 * 1000.0, 2e6);
    VeskHi::setPTSOffset(before - now);
}

// The receiver measures when its line rises, following the emulated source.
TEST_F(Devices, Receiver6911FollowsItsLine)
{
    Board::instance().addChip("hdmi1", "6911uxc", {{"bus", 2}, {"gpio", "GPIO3_1"}});
    std::unique_ptr<Driver6911UXC> drv(static_cast<Driver6911UXC*>(Driver::createV("6911uxc")));
    drv->setData({{"addr", 2}, {"gpio", "GPIO3_1"}});
    drv->init();
    EXPECT_TRUE(Board::instance().commands().contains("himm 0x10FF0064 0x0"));
    const QVariantMap none = {{"avalible", false}, {"protocol", "HDMI"}, {"avs", false},
                              {"width", 1920},     {"height", 1080},     {"framerate", 30}};
    EXPECT_EQ(drv->getInfo(), none);

    struct Case {
        QVariantMap source, info;
    };
    auto format = [](int w, int h, int rate, bool avs, bool interlace) {
        return QVariantMap{{"avalible", true},
                           {"protocol", "HDMI"},
                           {"width", w},
                           {"height", h},
                           {"framerate", rate},
                           {"avs", avs},
                           {"interlace", interlace},
                           {"full", true}};
    };
    auto src = [](int w, int h, double rate, bool interlace = false) {
        return QVariantMap{
            {"width", w}, {"height", h}, {"framerate", rate}, {"interlace", interlace}};
    };
    const Case cases[] = {
        {src(1920, 1080, 59.94), format(1920, 1080, 60, false, false)},
        {src(3840, 2160, 60), format(1920, 2160, 60, true, false)},  // halves side by side
        {src(3840, 2160, 30), format(3840, 2160, 30, false, false)},
        {src(1920, 2160, 50), format(1920, 2160, 50, true, false)},
        {src(1920, 1080, 50, true), format(1920, 1080, 50, false, true)},  // fields of 540
        {src(1280, 720, 60, true), format(1280, 720, 60, false, true)},    // fields of 360
        {src(1280, 720, 50), format(1280, 720, 50, false, false)},
    };
    for (const Case& c : cases) {
        Board::instance().applyStep({{"chip", "hdmi1"}, {"source", c.source}}, nullptr);
        EXPECT_TRUE(waitFor([&] { return drv->getInfo() == c.info; }))
            << QVariant(c.source).toString().toStdString() << " "
            << VeskHost::toJsonText(drv->getInfo()).toStdString();
    }
    // The source gone, the line pulses and the pass finds nothing.
    Board::instance().applyStep({{"chip", "hdmi1"}, {"source", QVariantMap()}}, nullptr);
    EXPECT_TRUE(waitFor([&] { return !drv->getInfo().value("avalible").toBool(); }));
    // A size outside the lists is no signal either; the configured protocol
    // names it. What that pass does not write stays from the pass before.
    drv->setData({{"protocols", QStringList{"DVI", "HDMI"}}});
    Board::instance().applyStep({{"chip", "hdmi1"}, {"source", src(720, 576, 50)}}, nullptr);
    QVariantMap dvi = none;
    dvi["protocol"] = "DVI";
    dvi["interlace"] = false;
    dvi["full"] = true;
    EXPECT_TRUE(waitFor([&] { return drv->getInfo() == dvi; }))
        << VeskHost::toJsonText(drv->getInfo()).toStdString();
}

}  // namespace
