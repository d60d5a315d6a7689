// The LT8619C receiver's thread against its emulator, walked pass by pass on
// a held board clock and read through the registry as a capture node would.
#include <gtest/gtest.h>

#include "driver/Driver.h"
#include "driver/video/DriverLT8619.h"
#include "driver/video/LT8619.h"
#include "driver/video/lt8619c.h"
#include "sim/BoardClock.h"
#include "sim/EmuLT8619.h"
#include "sim/VirtualBoard.h"
#include "tests/support/LogCapture.h"

using vsim::Board;

namespace {

int logged(const QString& part)
{
    return vesktest::LogCapture::count(part);
}

QVariantMap published(int w, int h, int fps, bool interlace, bool full)
{
    return {{"avalible", true},       {"width", w},  {"height", h}, {"framerate", fps},
            {"interlace", interlace}, {"full", full}};
}

class Lt8619 : public ::testing::Test {
protected:
    Lt8619()
    {
        vesktest::LogCapture::install();
        vesktest::LogCapture::clear();
    }
    // A fresh board whose chip has `source` plugged in at power-up, and the
    // driver started with the board clock held.
    void powerUp(const QVariantMap& source = {}, const QVariantMap& chip = {})
    {
        Board::instance().activate();
        Board::instance().reset();
        emu = std::dynamic_pointer_cast<vsim::EmuLT8619>(
            Board::instance().addChip("hdmi1", "LT8619", chip));
        emu->setSource(source);
        LT8619::enable = false;
        LT8619::width = 1920;
        LT8619::height = 1080;
        LT8619::fps = 60;
        LT8619::interlace = false;
        LT8619::full = true;
        // The chip loop's counters as a freshly loaded library has them.
        print_en = 0;
        LoopCounter = 0;
        clock.hold();
        driver = new DriverLT8619;
        Driver::driverMapV["hdmi1"] = driver;
        ASSERT_TRUE(clock.waitSleepers(1));
    }
    void TearDown() override
    {
        if (driver) driver->lt->requestInterruption();
        clock.release();
        Driver::driverMapV.remove("hdmi1");
        delete driver;
        driver = nullptr;
        Board::instance().deactivate();
    }
    // Steps the board clock until the receiver's loop has made `n` more passes.
    void passes(int n)
    {
        const int target = driver->lt->passes() + n;
        while (driver->lt->passes() < target) clock.advance(1);
    }
    QVariantMap info() { return Driver::getInfoV("hdmi1"); }
    int reg16(uint8_t hi) { return emu->reg(0x60, hi) << 8 | emu->reg(0x60, uint8_t(hi + 1)); }

    vsim::BoardClock& clock = vsim::BoardClock::instance();
    std::shared_ptr<vsim::EmuLT8619> emu;
    DriverLT8619* driver = nullptr;
};

// Start-up, counting, publication, the once-a-second pass, a format change
// that keeps sync, a sync drop in the sixth check and a lost clock.
TEST_F(Lt8619, WalksFromHotPlugToPublicationAndBackToNoClock)
{
    const QVariantMap p720{
        {"vic", 19}, {"width", 1280}, {"height", 720}, {"framerate", 50}, {"quantisation", 4}};
    powerUp(p720);
    passes(1);  // the clock's first pass restarts the PLL and goes no further
    const auto hpd = emu->hotPlug();
    ASSERT_EQ(hpd.size(), 2u);
    EXPECT_FALSE(hpd[0].second);
    EXPECT_TRUE(hpd[1].second);
    EXPECT_GE(hpd[1].first - hpd[0].first, 3000000);
    EXPECT_EQ(emu->edid(), QByteArray(reinterpret_cast<const char*>(ONCHIP_EDID), 256));
    EXPECT_EQ(emu->reg(0x60, 0x6D), 0x08);
    EXPECT_EQ(emu->reg(0x60, 0x6E), 0x07);
    for (const char* line :
         {"ChipID is OK:0x1604", "set to OUTPUT_BT1120_16BIT", "clk detected!!!", "pll lock!!!"})
        EXPECT_EQ(logged(line), 1) << line;
    EXPECT_EQ(info(), (QVariantMap{{"avalible", false}}));

    // Present from the first stable pass, the format only at the tenth.
    const QVariantMap before = published(1920, 1080, 60, false, true);
    for (int i = 1; i <= 10; i++) {
        passes(1);
        EXPECT_EQ(info(), i < 10 ? before : published(1280, 720, 50, false, false)) << i;
    }

    // Settled: the sync register is read on every tenth pass only, and a new
    // format that keeps sync (VIC change included) reaches the output timing
    // but is not published.
    emu->setSource({{"vic", 16}, {"width", 1920}, {"height", 1080}, {"framerate", 60}});
    int reads = emu->syncReads();
    passes(9);
    EXPECT_EQ(emu->syncReads(), reads);
    passes(11);
    EXPECT_GT(emu->syncReads(), reads);
    EXPECT_EQ(info(), published(1280, 720, 50, false, false));
    EXPECT_EQ(reg16(0x63), 1920);
    EXPECT_EQ(reg16(0x69), 1080);

    // Sync lost, then back with a drop in the sixth of the eight checks: the
    // next pass counts all eight again.
    emu->setSource({{"hsync", false}});
    passes(10);
    EXPECT_EQ(logged("Hsync unstable#####"), 1);
    EXPECT_FALSE(info()["avalible"].toBool());
    QVariantMap p1080i{{"vic", 20},         {"width", 1920},   {"height", 1080},
                       {"interlace", true}, {"framerate", 50}, {"syncDropAtCheck", 6}};
    emu->setSource(p1080i);
    reads = emu->syncReads();
    passes(1);
    EXPECT_EQ(emu->syncReads() - reads, 1 + 6);
    EXPECT_FALSE(info()["avalible"].toBool());
    passes(1);
    EXPECT_EQ(emu->syncReads() - reads, 7 + 1 + 8 + 1);
    EXPECT_EQ(logged("Hsync stable!!!"), 2);
    passes(9);
    // Interlaced by VIC: the frame's height and an odd doubled total.
    EXPECT_EQ(info(), published(1920, 1080, 50, true, false));
    EXPECT_EQ(reg16(0x6B), 1125);
    EXPECT_EQ(emu->reg(0x60, 0x68), 0x17);
    EXPECT_EQ(emu->reg(0x60, 0x60) & 0x08, 0x08);

    emu->setSource({});
    passes(1);
    EXPECT_EQ(logged("clk disappear!!!"), 1);
    QVariantMap last = published(1920, 1080, 50, true, false);
    last["avalible"] = false;
    EXPECT_EQ(info(), last);
}

// What one lock publishes, by source. Each row unplugs the one before, so
// that a row without quantisation (DVI, or HDMI with Q 0) shows the range
// the row before it left.
TEST_F(Lt8619, PublishesSnappedHeightTableRateAndFieldDoubling)
{
    struct Row {
        QVariantMap source;
        QVariantMap expected;
        int vTotal;  // written to the output timing, -1: not looked at
        int r68;     // -1: left as it was
    };
    const QVariantMap p1080{{"vic", 16}, {"width", 1920}, {"framerate", 60}};
    auto with = [](QVariantMap m, const QVariantMap& more) {
        for (auto it = more.begin(); it != more.end(); ++it) m[it.key()] = it.value();
        return m;
    };
    const Row rows[] = {
        {with(p1080, {{"height", 1079}, {"quantisation", 4}}),
         published(1920, 1080, 60, false, false), 1124, 0x00},
        {with(p1080, {{"height", 1081}, {"quantisation", 8}}),
         published(1920, 1080, 60, false, true), 1126, 0x00},
        {with(p1080, {{"height", 1050}, {"frameCounter", 410000}, {"quantisation", 4}}),
         published(1920, 1050, 60, false, false), -1, 0x00},
        {with(p1080, {{"height", 1080}, {"frameCounter", 420000}}),
         published(1920, 1080, 50, false, false), -1, 0x00},
        {with(p1080, {{"height", 1080}, {"framerate", 59.94}}),
         published(1920, 1080, 60, false, false), -1, 0x00},
        {{{"hdmi", false},
          {"width", 1920},
          {"height", 1080},
          {"interlace", true},
          {"framerate", 50},
          {"quantisation", 8}},
         published(1920, 1080, 50, true, false),
         1125,
         0x17},
        {{{"hdmi", false},
          {"width", 1440},
          {"height", 576},
          {"interlace", true},
          {"vtotal", 625},
          {"framerate", 50}},
         published(1440, 576, 50, true, false),
         625,
         0x19},
        {{{"vic", 21},
          {"width", 1440},
          {"height", 576},
          {"interlace", true},
          {"vtotal", 626},
          {"framerate", 50},
          {"quantisation", 8}},
         published(1440, 576, 50, true, true),
         625,
         0x19},
        {{{"hdmi", false}, {"width", 1280}, {"height", 1024}, {"frameCounter", 0}},
         published(1280, 1024, 100, false, true),
         -1,
         -1},
        // Past the table the rate is the counter's ten-thousands, low 8 bits.
        {{{"hdmi", false}, {"width", 1024}, {"height", 768}, {"frameCounter", 3145728}},
         published(1024, 768, 314 - 256, false, true),
         -1,
         -1},
    };
    powerUp();
    passes(1);
    int n = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(++n);
        emu->setSource({});
        passes(1);
        emu->setSource(row.source);
        emu->clearWrites();
        passes(11);
        EXPECT_EQ(info(), row.expected);
        if (row.vTotal >= 0) {
            EXPECT_EQ(reg16(0x6B), row.vTotal);
        }
        EXPECT_EQ(emu->wrote(0x60, 0x68), row.r68 >= 0);
        if (row.r68 >= 0) {
            EXPECT_EQ(emu->reg(0x60, 0x68), row.r68);
        }
    }
}

// A chip that never answers, one with another ID, a PLL that never locks:
// each ends in a defined state, logged, with the loop still at its pace.
TEST_F(Lt8619, BadChipsAreLoggedAndTheLoopKeepsItsPace)
{
    const QVariantMap p720{{"width", 1280}, {"height", 720}, {"framerate", 50}};
    QVariantMap noPll = p720;
    noPll["pll"] = false;
    const struct {
        QVariantMap source, chip;
        bool silent;
        const char* log;
        bool avalible;
    } cases[] = {
        {p720, {}, true, "ChipID Fail!!!!", false},
        {p720, {{"chipId", "0x1605"}}, false, "ChipID Fail!!!!", true},
        {noPll, {}, false, "pll unlock#####", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        powerUp(c.source, c.chip);
        Board::instance().setI2cFailing(1, I2CADR >> 1, c.silent);
        passes(2);
        const int64_t t0 = clock.nowUs();
        passes(10);
        EXPECT_GE(clock.nowUs() - t0, 10 * 100000);
        EXPECT_GE(logged(c.log), 1);
        EXPECT_EQ(info().value("avalible"), c.avalible);
        TearDown();
    }
}

}  // namespace
