// The MS7200 stack: its arithmetic, and the application walked pass by pass
// against the emulated chip on either bus.
#include <gtest/gtest.h>

#include <thread>

#include "driver/DriverBase.h"
#include "driver/video/ms7200/ms7200_app.h"
#include "driver/video/ms7200/ms7200_regs.h"
#include "sim/BoardClock.h"
#include "sim/EmuMS7200.h"
#include "sim/VirtualBoard.h"

using Rx = CMs7200drvHdmiRx;

TEST(Ms7200Eq, GainIsTheMiddleOfTheLowestAndFailsAbove256)
{
    struct Case {
        uint16_t counts[6];  // gains 2..7
        int gain;
        bool ok;
    } cases[] = {
        {{300, 0, 0, 0, 300, 300}, 4, true},
        {{300, 0, 0, 300, 300, 300}, 3, true},
        {{9, 9, 9, 9, 9, 1}, 7, true},
        {{400, 300, 257, 257, 999, 300}, 4, false},
        {{32767, 32767, 32767, 32767, 32767, 32767}, 4, false},
    };
    for (const Case& c : cases) {
        bool ok = !c.ok;
        EXPECT_EQ(Rx::eqChooseGain(c.counts, &ok), c.gain);
        EXPECT_EQ(ok, c.ok);
    }
}

TEST(Ms7200Eq, TwentyEightStepRangeAndVote)
{
    struct Range {
        uint8_t r[3];
        int low, high;
    } ranges[] = {{{5, 9, 13}, 1, 17}, {{2, 20, 27}, 0, 27}, {{12, 12, 12}, 8, 16}};
    for (const Range& c : ranges) {
        uint8_t low, high;
        Rx::_drv_hdmi_rx_pi_28eq_calc_next_search_range(c.r, &low, &high);
        EXPECT_EQ(low, c.low);
        EXPECT_EQ(high, c.high);
    }
    struct Vote {
        uint8_t a, b, c, want;
    } votes[] = {{10, 12, 14, 12}, {10, 12, 10, 10}, {10, 10, 14, 10}, {10, 12, 12, 12}};
    for (const Vote& v : votes) EXPECT_EQ(Rx::eq28Vote(v.a, v.b, v.c), v.want);
    EXPECT_EQ(ptEqGainVal[0], (std::array<uint8_t, 4>{{7, 7, 7, 7}}));
    EXPECT_EQ(ptEqGainVal[8], (std::array<uint8_t, 4>{{0, 6, 7, 7}}));
    EXPECT_EQ(ptEqGainVal[27], (std::array<uint8_t, 4>{{0, 0, 0, 1}}));
}

TEST(Ms7200Audio, RateAndPll)
{
    EXPECT_EQ(Rx::audioRate(14850, 6144, 148500), 479);  // 48 kHz at 148.5 MHz
    EXPECT_EQ(Rx::audioRate(14850, 6144, 0), 0);
    auto m1 = Rx::audioPllCalc(1, 14850, 6144, 148500, false);
    EXPECT_EQ(m1.d, 2);
    EXPECT_EQ(m1.p, 30);  // 3750000 / (479 * 128), halved
    EXPECT_EQ(m1.mInt, 120u);
    EXPECT_EQ(m1.mFrac, 0u);
    auto m3 = Rx::audioPllCalc(3, 30000, 6144, 148500, true);
    EXPECT_EQ(m3.d, 3);
    // 2p * 2^d * N / CTS, times 4
    double want = 2.0 * m3.p * 8 * 6144 / 148500 * 4;
    EXPECT_NEAR(m3.mInt + m3.mFrac / 1048576.0, want, 1e-5);
}

TEST(Ms7200Timing, InterlaceAndBadMeasurements)
{
    struct Case {
        Rx::RawTiming raw;
        bool ok;
        int vtotal, vactive, rate;
    } cases[] = {
        {{7, 2200, 1125, 1920, 1080, 6400, 14850, 0, 0, 0, 0}, true, 1125, 1080, 6000},
        {{6, 2200, 562, 1920, 540, 12800, 7425, 0, 0, 0, 0}, true, 1125, 1080, 6000},
        {{6, 2200, 563, 1920, 540, 12800, 7425, 0, 0, 0, 0}, true, 1125, 1080, 6000},
        {{6, 864, 625, 720, 288, 13824, 2700, 0, 0, 0, 0}, true, 1250, 576, 5000},
        {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, false, 0, 0, 0},
        {{1, 2200, 1125, 2300, 1080, 6400, 0, 0, 0, 0, 0}, false, 0, 0, 0},
        {{1, 2200, 2000, 1920, 1080, 65535, 0, 0, 0, 0, 0}, false, 0, 0, 0},  // 3.3 Hz
    };
    for (const Case& c : cases) {
        _T_MS7200_VIDEO_TIMING_ t;
        EXPECT_EQ(Rx::timingFromRaw(c.raw, &t), c.ok) << c.raw.htotal << " " << c.raw.period;
        if (!c.ok) continue;
        EXPECT_EQ(t.u16_vtotal, c.vtotal);
        EXPECT_EQ(t.u16_vactive, c.vactive);
        EXPECT_EQ(t.u16_vfreq, c.rate);
    }
}

namespace {
struct Rig {
    explicit Rig(const QVariantMap& settings)
    {
        vsim::Board::instance().activate();
        vsim::Board::instance().reset();
        emu = std::dynamic_pointer_cast<vsim::EmuMS7200>(
            vsim::Board::instance().addChip("hdmi", "MS7200", settings));
        rec.chip_addr = settings.value("chip_addr", 146).toInt();
        rec.gpio_i2c = settings.value("gpio_i2c").toBool();
        rec.ms7200 = 1;
        app.SetupIndex(rec.chip_addr);
    }
    // A pass, then a field's time for the info frames to come again.
    void passes(int n)
    {
        for (int i = 0; i < n; i++) {
            app.ms7200_loop();
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    std::shared_ptr<vsim::EmuMS7200> emu;
    it6602_dev_data rec;
    DriverBase bus;
    CMs7200App app{&rec, &bus};
};

QVariantMap source(int w, int h, double rate, bool interlace, int fs)
{
    return {{"width", w},        {"height", h},
            {"framerate", rate}, {"interlace", interlace},
            {"samplerate", fs},  {"eye", QVariantList{5, 7}},
            {"colorSpace", 2}};
}
}  // namespace

TEST(Ms7200Phy, ClockOf500PowersDownAnd501Searches)
{
    for (int raw : {759, 760}) {  // 500 and 501 in 10 kHz
        Rig rig({});
        rig.emu->setSource({{"tmdsRaw", raw}, {"eye", QVariantList{5, 7}}});
        rig.emu->chip()->setReg(ms7200reg::kPhyPower, 1);
        uint16_t clk = 0;
        uint8_t r = rig.app.ms7200_hdmirx_rxphy_config(&clk);
        EXPECT_EQ(clk, raw == 759 ? 500 : 501);
        EXPECT_EQ(r, raw == 759 ? 0 : 0x80);  // no source: the PLL has no lock
        EXPECT_EQ(rig.emu->chip()->reg(ms7200reg::kPhyPower) & 1, raw == 759 ? 0 : 1);
        EXPECT_EQ(rig.app.eqGains(),
                  raw == 759 ? QVector<int>({-1, -1, -1}) : QVector<int>({4, 4, 4}));
    }
}

// The 28-step search on a held board clock: narrowing, the eye cut at nine
// steps, the second range agreeing; and the fall-back without PLL lock.
TEST(Ms7200Phy, TwentyEightStepSearch)
{
    struct Case {
        QVariantMap extra;
        uint8_t result;
        int index;
    } cases[] = {
        {{}, 3, 12}, {{{"eye28", QVariantList{20, 27}}}, 3, 23}, {{{"noLock", true}}, 0, 13}};
    for (const Case& c : cases) {
        Rig rig({});
        QVariantMap s = source(1920, 1080, 60, false, 48000);
        for (auto it = c.extra.begin(); it != c.extra.end(); ++it) s[it.key()] = it.value();
        rig.emu->setSource(s);
        auto& clock = vsim::BoardClock::instance();
        clock.hold();
        uint8_t r = 0xFF;
        std::thread t([&] { r = rig.app.ms7200drv_hdmi_rx_pi_phy_config_with_28eq(14850, 255); });
        ASSERT_TRUE(clock.waitSleepers(1));
        clock.advance(20000);
        t.join();
        clock.release();
        EXPECT_EQ(r, c.result);
        EXPECT_EQ(rig.app.eqGains(), QVector<int>({c.index, c.index, c.index}));
    }
}

// Lock after three clean passes, a format change, an audio change, a drop;
// on the plain bus at 0xB2 and on the bit-banged bus at 0x56. At each lock
// the colour conversion follows the AVI frame (YCbCr 4:4:4 in, 4:2:2 out),
// which only the event word returned by the clear still shows.
TEST(Ms7200App, WalkLockChangeDrop)
{
    for (const QVariantMap& settings :
         {QVariantMap{{"chip_addr", 146}}, QVariantMap{{"chip_addr", 144}, {"gpio_i2c", true}}}) {
        Rig rig(settings);
        ASSERT_TRUE(rig.app.ms7200_CheckChipID());
        rig.app.ms7200_init();
        // The built-in EDID went into the chip's RAM, both blocks summing to 0.
        uint8_t sum[2] = {0, 0};
        for (int i = 0; i < 256; i++) {
            uint8_t b = rig.emu->chip()->reg(uint16_t(ms7200reg::kEdidRam + i));
            EXPECT_EQ(b, Default_Edid_Block[size_t(i)]);
            sum[i / 128] = uint8_t(sum[i / 128] + b);
        }
        EXPECT_EQ(sum[0] | sum[1], 0);
        EXPECT_EQ(Default_Edid_Block[1], 0xFF);
        rig.passes(2);
        EXPECT_EQ(rig.rec.lock, 0);

        rig.emu->setSource(source(1920, 1080, 60, false, 48000));
        rig.passes(2);
        EXPECT_EQ(rig.rec.lock, 0);
        EXPECT_EQ(rig.app.stableCount(), 2);
        EXPECT_EQ(rig.app.eqGains(), QVector<int>({6, 6, 6}));
        rig.passes(1);
        EXPECT_EQ(rig.rec.lock, 1);
        EXPECT_EQ(rig.rec.hold, 0);
        EXPECT_EQ(rig.rec.width, 1920);
        EXPECT_EQ(rig.rec.height, 1080);
        EXPECT_EQ(rig.rec.pclk, 60);
        EXPECT_EQ(rig.rec.flags & 1, 0);
        EXPECT_EQ(rig.rec.audio_samplerate, 47900);
        EXPECT_EQ(rig.emu->chip()->reg(ms7200reg::kCscCtrl), 0x06);

        rig.emu->setSource(source(1920, 1080, 50, true, 44100));
        rig.passes(2);
        EXPECT_EQ(rig.rec.lock, 0);
        rig.passes(1);
        EXPECT_EQ(rig.rec.lock, 1);
        EXPECT_EQ(rig.rec.height, 1080);
        EXPECT_EQ(rig.rec.pclk, 50);
        EXPECT_EQ(rig.rec.flags & 1, 1);
        EXPECT_NEAR(rig.rec.audio_samplerate, 44100, 200);
        EXPECT_EQ(rig.emu->chip()->reg(ms7200reg::kCscCtrl), 0x06);

        rig.emu->setSource(source(1920, 1080, 50, true, 32000));
        rig.passes(1);
        EXPECT_EQ(rig.rec.lock, 1);
        EXPECT_NEAR(rig.rec.audio_samplerate, 32000, 200);

        rig.emu->setSource({});
        rig.passes(1);
        EXPECT_EQ(rig.rec.lock, 0);
    }
}

TEST(Ms7200App, BadInput)
{
    // Nothing on the bus.
    {
        vsim::Board::instance().activate();
        vsim::Board::instance().reset();
        it6602_dev_data rec;
        DriverBase bus;
        for (uint8_t gpio : {0, 1}) {
            rec.gpio_i2c = gpio;
            CMs7200App app(&rec, &bus);
            app.SetupIndex(146);
            EXPECT_FALSE(app.ms7200_CheckChipID());
        }
        CMs7200App orphan(nullptr, nullptr);
        EXPECT_FALSE(orphan.ms7200_CheckChipID());
        orphan.ms7200_loop();
    }
    // No error counter valid: gain 4 whatever the eye, and the input still locks.
    {
        Rig rig({});
        rig.app.ms7200_init();
        QVariantMap s = source(1280, 720, 60, false, 48000);
        s["countersInvalid"] = true;
        rig.emu->setSource(s);
        rig.passes(3);
        EXPECT_EQ(rig.app.eqGains(), QVector<int>({4, 4, 4}));
        EXPECT_EQ(rig.rec.lock, 1);
        EXPECT_EQ(rig.rec.width, 1280);
    }
    // Measurements of 0: never published, however long it waits.
    {
        Rig rig({});
        rig.app.ms7200_init();
        QVariantMap s = source(1920, 1080, 60, false, 48000);
        s["measureZero"] = true;
        rig.emu->setSource(s);
        rig.passes(10);
        EXPECT_EQ(rig.rec.lock, 0);
    }
}
