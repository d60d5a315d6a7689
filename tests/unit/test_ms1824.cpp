// The MS1824 scaler service against the virtual board's chip and the stand-in
// of the host's scaler library, one timer tick at a time.
#include <gtest/gtest.h>

#include "driver/Driver.h"
#include "driver/video/DriverMS1824.h"
#include "sim/Ms1824Lib.h"
#include "sim/VirtualBoard.h"

using vsim::Board;

namespace {

QStringList logged;

QVariantMap shown(int width, int height, int framerate)
{
    return {{"avalible", true},       {"protocol", "VGA"},  {"width", width}, {"height", height},
            {"framerate", framerate}, {"interlace", false}, {"full", true}};
}
const QVariantMap none = {{"avalible", false}, {"protocol", "VGA"}};

class Ms1824 : public ::testing::Test {
protected:
    // A fresh board and a driver brought up on it, as the registry does.
    void start(uint8_t inputPort, const QVariantMap& source, bool withChip = true)
    {
        Board::instance().activate();
        Board::instance().reset();
        if (withChip) Board::instance().addChip("vga1", "MS1824", {})->setSource(source);
        g_u8_InputPort = inputPort;
        g_u8_OutputPort = 4;
        g_u8_input_mode1 = g_u8_input_mode2 = 255;
        g_st_input_timing1 = g_st_input_timing2 = ms1824_timing_t{};
        g_u8_cvbs_count = 0;
        logged.clear();
        qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& text) { logged << text; });
        driver = new DriverMS1824;
        Driver::driverMapV["vga1"] = driver;
        driver->init();
    }
    void TearDown() override
    {
        qInstallMessageHandler(nullptr);
        Driver::driverMapV.remove("vga1");
        delete driver;
        Board::instance().deactivate();
    }
    // One step of the scenario, then one tick of the driver's timer.
    QVariantMap tick(const QVariantMap& source)
    {
        QString error;
        EXPECT_TRUE(Board::instance().applyStep({{"chip", "vga1"}, {"source", source}}, &error))
            << error.toStdString();
        driver->onTimer();
        return Driver::getInfoV("vga1");
    }
    static QStringList calls(const QString& name)
    {
        return vsim::Ms1824Lib::instance().calls().filter(name);
    }

    DriverMS1824* driver = nullptr;
};

TEST_F(Ms1824, VgaVicIsPublishedOnTheTickItChangesWithTheSizeRules)
{
    start(1, {});
    EXPECT_EQ(Driver::getInfoV("vga1"), none);
    const struct {
        int vic;
        QVariantMap info;
    } rows[] = {
        {16, shown(1920, 1080, 60)},
        {31, shown(1920, 1080, 50)},
        {6, shown(720, 480, 59)},  // pixels repeated: half the width; 59.94 Hz
        {21, shown(720, 576, 50)},
        {20, shown(1920, 1080, 50)},
        {19, shown(1280, 720, 50)},
        {4, shown(1280, 360, 60)},    // outside 5..39: half the height
        {129, shown(1024, 384, 60)},  // the driver's own timing table
        {100, none},                  // a VIC without timing
        {255, none},
        {16, shown(1920, 1080, 60)},
    };
    for (const auto& row : rows) EXPECT_EQ(tick({{"vga", row.vic}}), row.info) << row.vic;
    // Another input's signal is not this port's.
    EXPECT_EQ(tick({{"ypbpr", 16}, {"cvbs", 0}}), none);
}

TEST_F(Ms1824, ChangeReconfiguresTheChipOnceAndLossOnlyShowsThePattern)
{
    start(1, {});
    EXPECT_EQ(calls("config_input"), QStringList{"config_input_video2_port(2)"});
    vsim::Ms1824Lib::instance().clear();
    tick({{"vga", 16}});
    EXPECT_EQ(vsim::Ms1824Lib::instance().calls(),
              QStringList({"pattern_on(1, 1)", "set_input_timing(1, 1920x1080@6000)",
                           "osd_win_enable(0, 0)", "config_output_video_port(16)",
                           "set_output_timing(1920x1080@6000)", "pattern_on(0, 0)",
                           "set_video_window(1, 0, 0, 1920x1080)", "set_video2_alpha_ratio(100)",
                           "display_trigger(3)", "set_video_scaler(1, 1920x1080, 1920x1080, 4050)",
                           "display_trigger(2)", "pattern_off(1)", "pattern_off(1)"}));
    vsim::Ms1824Lib::instance().clear();
    tick({{"vga", 16}});
    EXPECT_TRUE(vsim::Ms1824Lib::instance().calls().isEmpty());
    tick({});
    EXPECT_EQ(vsim::Ms1824Lib::instance().calls(),
              QStringList({"pattern_on(1, 1)", "pattern_off(1)"}));
}

TEST_F(Ms1824, OutputVicFollowsTheOutputPort)
{
    start(1, {});
    const struct {
        uint8_t port;
        int tmds;
        QStringList output;
    } rows[] = {
        {0, 255, {"set_output_timing(1024x768@6000)"}},
        {1, 255, {"set_output_timing(720x480@5994)"}},
        {2, 255, {}},  // the external encoder times itself
        {3, 4, {"set_output_timing(1920x1080@6000)"}},
        {4, 255, {"set_output_timing(1920x1080@6000)"}},
        {4, 0, {"set_output_timing(1920x1080@6000)"}},
        {4, 4, {"set_output_timing(1280x720@6000)"}},
    };
    for (const auto& row : rows) {
        g_u8_OutputPort = row.port;
        tick({});
        vsim::Ms1824Lib::instance().clear();
        EXPECT_EQ(tick({{"vga", 16}, {"tmds", row.tmds}}), shown(1920, 1080, 60));
        EXPECT_EQ(calls("set_output_timing"), row.output) << int(row.port) << " " << row.tmds;
    }
}

// A standard outside 0-5 (VIC 9 here) keeps the path's timing and sets the
// chip to it again: the last picture's size after PAL, none after a loss.
TEST_F(Ms1824, CvbsStandardIsLookedForAgainEverySixthSteadyTick)
{
    start(2, {});
    EXPECT_EQ(calls("config_input"), QStringList{"config_input_video1_port(0)"});
    const QVariantMap ntsc = shown(720, 480, 59), pal = shown(720, 576, 50);
    const QString n = "set_input_timing(0, 720x480@5994)", p = "set_input_timing(0, 720x576@5000)";
    const struct {
        int vic, ticks;
        QVariantMap info;
        int lookAgain, freeRun;
        QStringList input;
    } rows[] = {
        {0, 5, ntsc, 0, 0, {n}},
        {0, 1, ntsc, 1, 0, {}},
        {0, 12, ntsc, 2, 0, {}},
        {1, 10, ntsc, 0, 0, {n}},  // standards 1 and 3 are trusted
        {3, 10, ntsc, 0, 0, {n}},
        {4, 1, pal, 0, 0, {p}},
        {4, 1, pal, 1, 0, {}},
        {2, 1, pal, 0, 0, {p}},
        {5, 6, pal, 1, 0, {p}},
        {9, 1, pal, 0, 0, {p}},
        {9, 6, pal, 1, 0, {}},
        {255, 3, none, 0, 3, {}},
        {9, 1, none, 0, 0, {"set_input_timing(0, 0x0@5000)"}},
        {4, 1, pal, 0, 0, {p}},
    };
    int r = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(++r);
        vsim::Ms1824Lib::instance().clear();
        for (int i = 0; i < row.ticks; ++i) EXPECT_EQ(tick({{"cvbs", row.vic}}), row.info);
        EXPECT_EQ(calls("set_tvd_mode(1").size(), row.lookAgain);
        EXPECT_EQ(calls("set_tvd_mode(0").size(), row.freeRun);
        EXPECT_EQ(calls("set_input_timing"), row.input);
    }
}

TEST_F(Ms1824, BadInputGivesNoSignal)
{
    const struct {
        const char* what;
        uint8_t port;
        QVariantMap source;
        bool chip;
        const char* log;
    } rows[] = {
        {"VIC 255 from the start", 1, {}, true, nullptr},
        {"chip never answers",
         1,
         {{"vga", 16}, {"silent", true}},
         true,
         "ms1824 CMD_I2C_READ_IPC error! 0x59 0x102 "},
        {"no chip on the bus", 1, {}, false, nullptr},
    };
    for (const auto& row : rows) {
        start(row.port, row.source, row.chip);
        for (int i = 0; i < 3; ++i) {
            driver->onTimer();
            EXPECT_EQ(Driver::getInfoV("vga1"), none) << row.what;
        }
        if (row.log) {
            EXPECT_FALSE(logged.filter(row.log).isEmpty()) << row.what;
        }
        TearDown();
        driver = nullptr;
    }
}

TEST_F(Ms1824, LabelShowsOutputAndInputAndHidesAfterThirtyTicks)
{
    start(0, {});
    g_u8_OutputPort = 1;
    vsim::Ms1824Lib::instance().clear();
    _switch_input_mode();
    const QString blank = "\"             \"";
    EXPECT_EQ(
        calls("osd_"),
        QStringList(
            {"osd_win_enable(0, 0)", "osd_set_window(0, 55, 10, 13x4)",
             "osd_show_string(0, 0, 0, " + blank + ")", "osd_show_string(0, 1, 0, " + blank + ")",
             "osd_show_string(0, 2, 0, " + blank + ")", "osd_show_string(0, 3, 0, " + blank + ")",
             "osd_show_string(0, 0, 0, \"MS1824 AV OUT\")",
             "osd_show_string(0, 2, 0, \"YPbPr  INPUT \")", "osd_win_enable(0, 1)"}));
    vsim::Ms1824Lib::instance().clear();
    for (int i = 0; i < 29; ++i) osd_service();
    EXPECT_TRUE(calls("osd_win_enable").isEmpty());
    osd_service();
    EXPECT_EQ(calls("osd_win_enable"), QStringList{"osd_win_enable(0, 0)"});
}

// The pattern comes back only from a frozen frame memory, that of the
// port's own path; a chip that does not answer fails the test.
TEST_F(Ms1824, MemoryTestFreezesThePortsPathAndReadsItBack)
{
    start(1, {});
    for (uint8_t port = 0; port < 3; ++port) {
        vsim::Ms1824Lib::instance().clear();
        EXPECT_TRUE(ms1824_memory_test(port)) << int(port);
        const int path = port == 1 ? 1 : 0;
        EXPECT_EQ(calls("video_freeze"), QStringList({QString("video_freeze(%1, 1)").arg(path),
                                                      QString("video_freeze(%1, 0)").arg(path)}));
    }
    Board::instance().setI2cFailing(1, vsim::EmuMS1824::kAddr >> 1, true);
    EXPECT_FALSE(ms1824_memory_test(1));
}

}  // namespace
