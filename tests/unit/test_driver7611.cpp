// The register-polled HDMI receiver against its emulator on bus 1.
#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "driver/video/Driver7611.h"
#include "sim/Emu7611.h"
#include "sim/VirtualBoard.h"

using vsim::Board;
using vsim::Emu7611;

namespace {

class Receiver7611 : public ::testing::Test {
protected:
    Receiver7611()
    {
        Board::instance().activate();
        Board::instance().reset();
        emu = std::dynamic_pointer_cast<Emu7611>(Board::instance().addChip("hdmi1", "7611", {}));
    }
    void TearDown() override { Board::instance().deactivate(); }
    QVariantMap check()
    {
        driver.onCheck();
        return driver.info;
    }

    std::shared_ptr<Emu7611> emu;
    Driver7611 driver;
};

TEST_F(Receiver7611, FollowsSourceAndKeepsLastFormatWhenItGoes)
{
    EXPECT_EQ(check(), (QVariantMap{{"avalible", false}}));

    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 60}});
    QVariantMap expected{{"avalible", true}, {"width", 1920},      {"height", 1080},
                         {"framerate", 60},  {"interlace", false}, {"full", true}};
    EXPECT_EQ(check(), expected);

    // The chip counts field lines; the driver reports the frame at the field rate.
    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 50}, {"interlace", true}});
    expected["framerate"] = 50;
    expected["interlace"] = true;
    EXPECT_EQ(check(), expected);

    emu->setSource({{"width", 1280}, {"height", 720}, {"framerate", 50}, {"full", false}});
    expected = {{"avalible", true}, {"width", 1280},      {"height", 720},
                {"framerate", 50},  {"interlace", false}, {"full", false}};
    EXPECT_EQ(check(), expected);

    emu->setSource({});
    expected["avalible"] = false;
    EXPECT_EQ(check(), expected);
}

TEST_F(Receiver7611, RateIsTruncatedNeverSnappedAndThreeRangeCodesAreFull)
{
    // 111861 / 1864 = 60.01 and / 1865 = 59.98.
    for (int code = 0; code < 16; code++) {
        emu->setSource(
            {{"width", 1920}, {"height", 1080}, {"divisor", 1864 + code % 2}, {"range", code}});
        QVariantMap info = check();
        EXPECT_EQ(info["framerate"], code % 2 ? 59 : 60) << code;
        EXPECT_EQ(info["full"], code == 1 || code == 6 || code == 7) << code;
    }
    // No divisor: no signal, and nothing else is rewritten.
    QVariantMap before = check();
    emu->setSource({{"width", 720}, {"height", 1080}, {"divisor", 0}});
    before["avalible"] = false;
    EXPECT_EQ(check(), before);
}

// The thirteen-bit masks turn a bus that cannot be opened into this.
TEST_F(Receiver7611, MissingBusReadsAsAllOnes)
{
    Board::instance().setAbsent("/dev/i2c-1", true);
    const QVariantMap allOnes{{"avalible", true}, {"width", 8191},     {"height", 16382},
                              {"framerate", 13},  {"interlace", true}, {"full", false}};
    EXPECT_EQ(check(), allOnes);
}

TEST_F(Receiver7611, InitWritesTheSequenceInOrderAndLoadsTheEdid)
{
    QByteArray edid(256, 0);
    for (int i = 0; i < 256; i++) edid[i] = char(255 - i);
    Board::instance().writeFile("/vesk/config/edid.bin", edid);

    QElapsedTimer t;
    t.start();
    driver.init();
    EXPECT_GE(t.elapsed(), 400);  // four pauses of 100 ms belong to the sequence

    using W = std::vector<std::pair<uint16_t, uint8_t>>;
    const W io{{0x01, 0x06}, {0x02, 0xF5}, {0x03, 0x80}, {0x05, 0x2C}, {0x06, 0xA6}, {0x0B, 0x44},
               {0x0C, 0x42}, {0x14, 0x3F}, {0x15, 0xBE}, {0x19, 0x94}, {0x33, 0x40}, {0xF4, 0x80},
               {0xF5, 0x7C}, {0xF8, 0x4C}, {0xF9, 0x64}, {0xFA, 0x6C}, {0xFB, 0x68}, {0xFD, 0x44},
               {0x20, 0x70}, {0x20, 0xF0}, {0x15, 0xA0}};
    const W repeater{{0x40, 0x81}, {0x77, 0x00}, {0x77, 0x00}, {0x52, 0x20},
                     {0x53, 0x00}, {0x70, 0x9E}, {0x74, 0x03}};
    W hdmi{{0x9B, 0x03}};
    for (uint16_t r = 0xC1; r <= 0xCC; r++) hdmi.push_back({r, 0x01});
    const W rest{{0x00, 0x00}, {0x83, 0xFE}, {0x6F, 0x08}, {0x85, 0x1F}, {0x87, 0x70},
                 {0x8D, 0x04}, {0x8E, 0x1E}, {0x1A, 0x8A}, {0x57, 0xDA}, {0x58, 0x01},
                 {0x75, 0x10}, {0x6C, 0xA7}, {0x6C, 0xA6}};
    hdmi.insert(hdmi.end(), rest.begin(), rest.end());
    EXPECT_EQ(emu->map(Emu7611::kIo)->writes(), io);
    EXPECT_EQ(emu->map(Emu7611::kCp)->writes(), (W{{0xBA, 0x01}}));
    EXPECT_EQ(emu->map(Emu7611::kRepeater)->writes(), repeater);
    EXPECT_EQ(emu->map(Emu7611::kHdmi)->writes(), hdmi);
    EXPECT_EQ(emu->edid(), edid);

    // A short or missing file leaves the rest of the buffer zero.
    Board::instance().writeFile("/vesk/config/edid.bin", QByteArray("\x00\xFF\xFF", 3));
    driver.loadEDID("/vesk/config/edid.bin");
    QByteArray expected(256, 0);
    expected[1] = expected[2] = char(0xFF);
    EXPECT_EQ(emu->edid(), expected);
    driver.loadEDID("/vesk/config/none.bin");
    EXPECT_EQ(emu->edid(), QByteArray(256, 0));
}

}  // namespace
