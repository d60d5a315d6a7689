// The TC7509 input: its thread runs the receiver's state machine against the
// emulated chip, pass by pass on a held board clock; what the capture side
// sees comes through the registry, what the machine is doing through the
// driver's diagnostics.
#include <gtest/gtest.h>

#include <QThread>

#include "driver/Driver.h"
#include "driver/video/DriverTC7509.h"
#include "driver/video/TC7509.h"
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
    QString video() { return driver->diagnostics().value("video").toString(); }
    bool avalible() { return Driver::getInfoV("hdmi3").value("avalible").toBool(); }

    DriverTC7509* driver = nullptr;
    std::shared_ptr<vsim::EmuIT6602> emu;
};

TEST_F(TC7509Input, VideoOnAtSecondSyncPassThenFormatsRatesAndAudioFollow)
{
    start(k1080p60);
    EXPECT_EQ(video(), "VSTATE_SyncChecking");
    EXPECT_FALSE(avalible());
    passes(1);
    EXPECT_EQ(video(), "VSTATE_VideoOn");
    EXPECT_TRUE(emu->hpd(0));

    struct Row {
        QVariantMap source;
        int width, height, framerate;
        bool interlace;
        int samplerate;
    };
    const Row rows[] = {
        {k1080p60, 1920, 1080, 60, false, 48000},
        {{{"width", 1280}, {"height", 720}, {"framerate", 50}, {"samplerate", 44100}},
         1280,
         720,
         50,
         false,
         44100},
        {{{"width", 1920},
          {"height", 1080},
          {"framerate", 60},
          {"interlace", true},
          {"samplerate", 32000}},
         1920,
         1080,
         60,
         true,
         32000},
        {{{"width", 3840}, {"height", 2160}, {"framerate", 30}, {"samplerate", 96000}},
         3840,
         2160,
         30,
         false,
         96000},
        {{{"width", 1920}, {"height", 1080}, {"framerate", 24}, {"samplerate", 192000}},
         1920,
         1080,
         24,
         false,
         192000},
        // 100 to 130 is 120; above 28 to the nearest ten, 61..70 down to 60.
        {{{"width", 1920}, {"height", 1080}, {"framerate", 120}, {"samplerate", 88200}},
         1920,
         1080,
         120,
         false,
         88200},
        {{{"width", 1024}, {"height", 768}, {"framerate", 75}}, 1024, 768, 80, false, 48000},
        {{{"width", 1024}, {"height", 768}, {"framerate", 66}}, 1024, 768, 60, false, 48000},
        {{{"width", 1024},
          {"height", 768},
          {"framerate", 60},
          {"full", true},
          {"samplerate", 24000}},
         1024,
         768,
         60,
         false,
         24000},
    };
    for (const Row& r : rows) {
        emu->setSource(r.source);
        passes(4);
        const QVariantMap info = Driver::getInfoV("hdmi3");
        EXPECT_EQ(info, (QVariantMap{{"avalible", true},
                                     {"protocol", "HDMI"},
                                     {"width", r.width},
                                     {"height", r.height},
                                     {"framerate", r.framerate},
                                     {"interlace", r.interlace},
                                     {"full", r.source.value("full", false)},
                                     {"samplerate", r.samplerate}}))
            << r.width << "x" << r.height << "@" << r.source.value("framerate").toInt();
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
    start(k1080p60);
    passes(1);
    ASSERT_EQ(video(), "VSTATE_VideoOn");
    QVariantMap noSync = k1080p60;
    noSync["sync"] = false;

    // Back within the 200 ms re-check.
    emu->setSource(noSync);
    passes(1);
    emu->setSource(k1080p60);
    BoardClock::instance().advance(200);
    for (int i = 0; i < 3; i++) {
        passes(1);
        EXPECT_EQ(video(), "VSTATE_VideoOn") << i;
    }
    EXPECT_TRUE(avalible());

    // Gone for longer.
    emu->setSource(noSync);
    passes(1);
    BoardClock::instance().advance(200);
    EXPECT_EQ(video(), "VSTATE_SyncWait");
    EXPECT_EQ(driver->diagnostics().value("audio"), "ASTATE_AudioOff");
    EXPECT_FALSE(avalible());
    EXPECT_EQ(Driver::getSamplerate("hdmi3"), 0);

    // Back, then pulled out: power loss wins and the hot-plug goes low.
    emu->setSource(k1080p60);
    passes(2);
    EXPECT_EQ(video(), "VSTATE_VideoOn");
    emu->setSource({});
    passes(1);
    BoardClock::instance().advance(200);
    EXPECT_EQ(video(), "VSTATE_SWReset");
    EXPECT_FALSE(emu->hpd(0));
    EXPECT_FALSE(avalible());

    // Plugged in again: hot-plug high, sync, picture.
    emu->setSource(k1080p60);
    passes(3);
    EXPECT_TRUE(emu->hpd(0));
    EXPECT_EQ(video(), "VSTATE_VideoOn");
}

// Power and clock without sync: after 21 passes the link is given an
// equaliser run, which tries the three values and keeps the best.
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
        QVariantMap source = k1080p60;
        source["sync"] = false;
        source["eq_errors"] = r.errors;
        source["auto_eq_held"] = r.autoHeld;
        start(source);
        EXPECT_EQ(video(), "VSTATE_SyncWait");
        passes(20);
        EXPECT_EQ(driver->diagnostics().value("scdt"), 21);
        passes(1);
        EXPECT_TRUE(driver->diagnostics().value("eq").toString().startsWith("step"));
        passes(90);
        EXPECT_EQ(driver->diagnostics().value("eq"), r.index)
            << r.errors.value(0).toInt() << r.errors.value(1).toInt() << r.errors.value(2).toInt();
        EXPECT_EQ(emu->reg(0x27), r.written)
            << r.errors.value(0).toInt() << r.errors.value(1).toInt() << r.errors.value(2).toInt();
        stop();
    }
    EXPECT_EQ(IT6602Class::JudgeBestEQ(3, 1, 2), 1);
}

TEST_F(TC7509Input, BitBangedBusCarriesTheSameMachine)
{
    start(k1080p60, true, {{"gpio_i2c", true}, {"i2c_num", -1}},
          {{"gpio_i2c", true}, {"model", "IT6801"}});
    passes(1);
    EXPECT_EQ(video(), "VSTATE_VideoOn");
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
    EXPECT_EQ(driver->diagnostics().value("path"), "no chip answers");
}

TEST_F(TC7509Input, EdidFromFileUnlessShortAndColourModeFromFile)
{
    const QByteArray builtin(reinterpret_cast<const char*>(DriverTC7509::Default_Edid_Block), 256);
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
        passes(1);
        EXPECT_EQ(emu->edid(), r.expected) << r.file.size();
        EXPECT_EQ(emu->reg(0x65) & 0x03, 2);
        EXPECT_EQ(driver->callFunc("CEC", {}), QVariant(true));
        EXPECT_EQ(emu->cecFrames().size(), 2);
        stop();
    }
}

}  // namespace
