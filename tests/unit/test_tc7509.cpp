// The TC7509 input: its thread runs the receiver's state machine against the
// emulated chip, pass by pass on a held board clock; what the capture side
// sees comes through the registry, what the machine is doing through its
// video state and device record.
#include <gtest/gtest.h>

#include <QThread>

#include "driver/Driver.h"
#include "driver/video/DriverTC7509.h"
#include "driver/video/TC7509.h"
#include "driver/video/ms7200/ms7200_app.h"
#include "sim/BoardClock.h"
#include "sim/EmuIT6602.h"
#include "sim/VirtualBoard.h"

using vsim::Board;
using vsim::BoardClock;

namespace {

const QVariantMap k1080p60 = {{"width", 1920}, {"height", 1080}, {"framerate", 60}};

class TC7509Input : public ::testing::Test {
protected:
    void SetUp() override
    {
        Board::instance().activate();
        Board::instance().reset();
        BoardClock::instance().hold();
    }
    void TearDown() override
    {
        stop();
        Board::instance().deactivate();
    }
    // Builds the chip (unless `chip` is false) and the driver, and runs the
    // thread through its bring-up and first pass.
    void start(const QVariantMap& source, bool chip = true, const QVariantMap& extra = {},
               const QVariantMap& chipSettings = {{"bus", 2}})
    {
        if (chip) {
            emu = std::dynamic_pointer_cast<vsim::EmuIT6602>(
                Board::instance().addChip("hdmi3", "IT6602", chipSettings));
            emu->setSource(source);
        }
        driver = new DriverTC7509;
        QVariantMap settings{{"chip", "TC7509"}, {"i2c_num", 2}};
        settings.insert(extra);
        driver->setData(settings);
        driver->init();
        Driver::driverMapV["hdmi3"] = driver;
        Driver::driverMapA["hdmi3"] = driver;
        if (!chip) return;
        ASSERT_TRUE(BoardClock::instance().waitSleepers(1));
        BoardClock::instance().advance(1001);
    }
    void stop()
    {
        BoardClock::instance().release();
        Driver::driverMapV.remove("hdmi3");
        Driver::driverMapA.remove("hdmi3");
        delete driver;
        driver = nullptr;
        emu.reset();
        Board::instance().reset();
        BoardClock::instance().hold();
    }
    void passes(int n)
    {
        for (int i = 0; i < n; i++) BoardClock::instance().advance(100);
    }
    const it6602_dev_data& dev() { return driver->thread()->dev; }
    bool avalible() { return Driver::getInfoV("hdmi3").value("avalible").toBool(); }

    DriverTC7509* driver = nullptr;
    std::shared_ptr<vsim::EmuIT6602> emu;
};

// Nothing plugged at boot: the machine stays off until an event. Power and
// clock without sync wait; sync then holds two passes before the picture is on,
// and formats, rates and audio follow.
TEST_F(TC7509Input, OffAtBootThenVideoOnAtSecondSyncPassThenFormatsRatesAndAudioFollow)
{
    start({});
    passes(3);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_Off);
    EXPECT_TRUE(emu->hpd(0));
    EXPECT_FALSE(avalible());
    QVariantMap noSync = k1080p60;
    noSync["sync"] = false;
    emu->setSource(noSync);
    passes(1);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_SyncWait);
    emu->setSource(k1080p60);
    passes(1);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_SyncChecking);
    EXPECT_FALSE(avalible());
    passes(1);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn);

    // Source rate, the rate published (100 to 130 is 120; above 28 to the
    // nearest ten, 61..70 down to 60), interlace, full range, sample rate.
    struct Row {
        int width, height, rate, published;
        bool interlace, full;
        int samplerate;
    };
    const Row rows[] = {
        {1920, 1080, 60, 60, false, false, 48000},  {1280, 720, 50, 50, false, false, 44100},
        {1920, 1080, 60, 60, true, false, 32000},   {3840, 2160, 30, 30, false, false, 96000},
        {1920, 1080, 24, 24, false, false, 192000}, {1920, 1080, 120, 120, false, false, 88200},
        {1024, 768, 75, 80, false, false, 48000},   {1024, 768, 66, 60, false, false, 48000},
        {1024, 768, 60, 60, false, true, 24000},
    };
    for (const Row& r : rows) {
        emu->setSource({{"width", r.width},
                        {"height", r.height},
                        {"framerate", r.rate},
                        {"interlace", r.interlace},
                        {"full", r.full},
                        {"samplerate", r.samplerate}});
        passes(4);
        EXPECT_EQ(Driver::getInfoV("hdmi3"), (QVariantMap{{"avalible", true},
                                                          {"protocol", "HDMI"},
                                                          {"width", r.width},
                                                          {"height", r.height},
                                                          {"framerate", r.published},
                                                          {"interlace", r.interlace},
                                                          {"full", r.full},
                                                          {"samplerate", r.samplerate}}))
            << r.width << "x" << r.height << "@" << r.rate;
        EXPECT_EQ(Driver::getSamplerate("hdmi3"), r.samplerate);
    }

    // Sizes outside the lists and rates outside 20..140 are not published...
    const QVariantMap last = Driver::getInfoV("hdmi3");
    for (const QVariantMap& odd :
         {QVariantMap{{"width", 1000}, {"height", 700}, {"framerate", 60}},
          QVariantMap{{"width", 1920}, {"height", 1080}, {"framerate", 60}, {"pclk_reg", 3}},
          QVariantMap{{"width", 1024}, {"height", 768}, {"framerate", 15}},
          // Bad measurements: no pixel clock, no size.
          QVariantMap{{"width", 1920}, {"height", 1080}, {"framerate", 60}, {"pclk_reg", 0}},
          QVariantMap{{"width", 0}, {"height", 0}, {"framerate", 60}}}) {
        emu->setSource(odd);
        passes(4);
        EXPECT_EQ(Driver::getInfoV("hdmi3"), last) << odd.value("width").toInt();
    }
    // ...unless the check is off.
    driver->setData({{"check", false}});
    emu->setSource({{"width", 1000}, {"height", 700}, {"framerate", 60}});
    passes(4);
    EXPECT_EQ(Driver::getInfoV("hdmi3").value("width"), 1000);
}

TEST_F(TC7509Input, BriefSyncDropKeepsThePictureLongerDropAndPowerLossDoNot)
{
    // Plugged in at boot: its pending power and sync events start the machine.
    start(k1080p60);
    passes(2);
    ASSERT_EQ(driver->GetVideoState(), VSTATE_VideoOn);
    QVariantMap noSync = k1080p60;
    noSync["sync"] = false;

    // Back within the 200 ms re-check.
    emu->setSource(noSync);
    passes(1);
    emu->setSource(k1080p60);
    BoardClock::instance().advance(200);
    for (int i = 0; i < 3; i++) {
        passes(1);
        EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn) << i;
    }
    EXPECT_TRUE(avalible());

    // Gone for longer.
    emu->setSource(noSync);
    passes(1);
    BoardClock::instance().advance(200);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_SyncWait);
    EXPECT_EQ(dev().m_AState, ASTATE_AudioOff);
    EXPECT_FALSE(avalible());
    EXPECT_EQ(Driver::getSamplerate("hdmi3"), 0);

    // Back, then pulled out: power loss wins and the hot-plug goes low.
    emu->setSource(k1080p60);
    passes(2);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn);
    emu->setSource({});
    passes(1);
    BoardClock::instance().advance(200);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_SWReset);
    EXPECT_FALSE(emu->hpd(0));
    EXPECT_FALSE(avalible());

    // Plugged in again: hot-plug high, sync, picture.
    emu->setSource(k1080p60);
    passes(3);
    EXPECT_TRUE(emu->hpd(0));
    EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn);
}

// Power and clock without sync: after 21 passes the link is given an
// equaliser run, one step a pass even once sync has come, which tries the
// three values and keeps the best.
TEST_F(TC7509Input, EqualiserRunChoosesTheValueWithFewestErrors)
{
    struct Row {
        QVariantList errors;
        bool autoHeld;
        int index;
        uint8_t written;
    };
    const Row rows[] = {{{3, 1, 2}, true, 1, 0x9F},
                        {{3, 3, 3}, true, 2, 0x83},
                        {{1, 3, 2}, true, 0, 0xFF},
                        {{3, 1, 2}, false, 1, 0x90}};  // the chip's own amplitude
    for (const Row& r : rows) {
        SCOPED_TRACE(r.errors.value(0).toInt() * 100 + r.errors.value(1).toInt() * 10 +
                     r.errors.value(2).toInt());
        QVariantMap source = k1080p60;
        source["eq_errors"] = r.errors;
        source["auto_eq_held"] = r.autoHeld;
        source["sync"] = false;
        start(source);
        EXPECT_EQ(driver->GetVideoState(), VSTATE_SyncWait);
        passes(20);
        EXPECT_EQ(dev().m_EQActive[0], 0);
        passes(1);
        EXPECT_EQ(dev().m_EQActive[0], 1);
        EXPECT_EQ(dev().m_EQStep[0], 1);
        source["sync"] = true;
        emu->setSource(source);
        passes(5);
        EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn);
        EXPECT_EQ(dev().m_EQStep[0], 6);
        passes(76);
        EXPECT_EQ(dev().m_EQStep[0], 255);
        EXPECT_EQ(dev().m_EQActive[0], 1);
        passes(1);
        EXPECT_EQ(dev().m_EQActive[0], 0);
        EXPECT_EQ(dev().m_EQBest[0], r.index);
        EXPECT_EQ(emu->reg(0x27), r.written);
        stop();
    }
}

TEST_F(TC7509Input, BitBangedBusCarriesTheSameMachine)
{
    start(k1080p60, true, {{"gpio_i2c", true}, {"i2c_num", -1}},
          {{"gpio_i2c", true}, {"model", "IT6801"}});
    passes(2);
    EXPECT_EQ(driver->GetVideoState(), VSTATE_VideoOn);
    EXPECT_EQ(Driver::getInfoV("hdmi3").value("width"), 1920);
    EXPECT_EQ(Driver::getSamplerate("hdmi3"), 48000);
}

TEST_F(TC7509Input, NoChipAnsweringEndsTheThreadWithoutSignal)
{
    start({}, false);
    ASSERT_TRUE(driver->thread()->wait(5000));
    EXPECT_EQ(BoardClock::instance().sleepers(), 0);
    EXPECT_FALSE(avalible());
    EXPECT_EQ(Driver::getSamplerate("hdmi3"), 0);
}

// The EDID from the board's file unless it is short, the colour mode from its
// file; CEC sends User Control Pressed then Released, key 9, to address 4.
TEST_F(TC7509Input, EdidColourModeAndCec)
{
    const QByteArray builtin(reinterpret_cast<const char*>(Default_Edid_Block.data()), 256);
    const QByteArray own(256, '\x5A');
    struct Row {
        QByteArray file;
        QByteArray expected;
    };
    for (const Row& r :
         {Row{QByteArray(), builtin}, Row{QByteArray(100, '\x11'), builtin}, Row{own, own}}) {
        if (!r.file.isNull()) Board::instance().writeFile("/vesk/config/edid/edid.bin", r.file);
        Board::instance().writeFile("/vesk/config/edid/colorMode", "2\n");
        start(k1080p60);
        passes(2);
        EXPECT_EQ(emu->edid(), r.expected) << r.file.size();
        EXPECT_EQ(emu->reg(0x65) & 0x03, 2);
        EXPECT_EQ(driver->callFunc("CEC", {}), QVariant(true));
        const auto frames = emu->cecFrames();
        ASSERT_EQ(frames.size(), 2);
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(frames[i][0] & 0x0F, 4);
            EXPECT_EQ(frames[i][1], i ? 0x45 : 0x44);
            EXPECT_EQ(frames[i][2], 9);
        }
        stop();
    }
}

}  // namespace
