// Board audio capture on the virtual board: what the input unit delivers
// (tones per lane, stop, source rate) reaching a sink through the capture
// node, the records the node gives the unit, the silence filler, the held-back
// packets, and a channel the unit refuses.
#include <cmath>

#include "CaptureHarness.h"
#include "driver/Driver.h"
#include "driver/DriverBase.h"
#include "input/VeskInputAi.h"
#include "sim/AudioIn.h"

using capture::inNode;
using capture::Log;
using vsim::AudioIn;
using vsim::Board;

namespace {

struct Unit {
    QByteArray bytes;
    qint64 pts = 0, dts = 0;
    int frameType = 0;
    const char* data = nullptr;
};

class Sink : public VeskObject {
public:
    Sink() { shareDepth = 1000; }
    void onNewPacketA(VeskObject::Packet p) override
    {
        units << Unit{QByteArray(p.data, p.len), p.pts, p.dts, p.frameType, p.data};
    }
    QList<Unit> units;
};

// Samples of one side of interleaved stereo, or of mono, from `from` on.
QVector<int16_t> samples(const QList<Unit>& units, int side, int stride, int from = 0)
{
    QVector<int16_t> out;
    for (int u = from; u < units.size(); ++u) {
        const auto* s = reinterpret_cast<const int16_t*>(units[u].bytes.constData());
        for (int i = side; i < units[u].bytes.size() / 2; i += stride) out << s[i];
    }
    return out;
}

// The unit's tones start at phase 0 when the device is enabled.
bool isTone(const QVector<int16_t>& s, double hz, int rate)
{
    for (int n = 0; n < s.size(); ++n)
        if (std::abs(s[n] - std::lround(0.25 * 32767 * std::sin(2 * M_PI * hz * n / rate))) > 1)
            return false;
    return !s.isEmpty();
}

class AudioCapture : public capture::GraphTest {
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        // Drivers are built once per process: one board for every case.
        QVariantMap line{{"chip", "rig"}, {"did", 0}, {"cid", 0}, {"mode", "i2ss"}};
        QVariantMap panel{{"chip", "rig"}, {"did", -1}};
        VeskHost::setConfig({{"interfaceA", QVariantMap{{"line", line}, {"panel", panel}}}});
        Board::instance().applyStep({{"ai", 0}, {"tone", QVariantList{1000, 2000}}}, nullptr);
    }
    void TearDown() override
    {
        VeskHost::detach(&sink);
        if (DriverBase* d = Driver::driverMapA.value("line")) d->samplerate = 0;
        GraphTest::TearDown();
    }
    VeskInputAi* capture(const QVariantMap& data)
    {
        auto* n = make<VeskInputAi>("mic", data);
        VeskHost::link(n, &sink, VeskHost::LinkA);
        graph->start("mic");
        return n;
    }
    QVariantMap lastInfo()
    {
        auto all = eventsOf("mic", "infoA");
        return all.isEmpty() ? QVariantMap() : all.last().value.toMap().value("params").toMap();
    }
    bool waitUnits(int n, int ms = 3000)
    {
        return waitFor([&] { return sink.units.size() >= n; }, ms);
    }
    Sink sink;
};

TEST_F(AudioCapture, StereoFramesInterleaveByTrackAndCarryTheUnitsClock)
{
    auto* n = capture({{"interface", "line"}, {"channels", 2}});
    ASSERT_TRUE(waitUnits(8));
    EXPECT_EQ(lastInfo(), (QVariantMap{{"samplerate", 48000}, {"channels", 2}, {"num", 1024u}}));
    const AudioIn::Dev dev = AudioIn::instance().dev(0);
    EXPECT_EQ(dev.attr.work_mode, OT_AIO_MODE_I2S_SLAVE);
    EXPECT_EQ(dev.attr.snd_mode, OT_AUDIO_SOUND_MODE_STEREO);
    EXPECT_EQ(dev.attr.frame_num, 20u);
    EXPECT_EQ(dev.attr.i2s_type, OT_AIO_I2STYPE_EXTERN);
    EXPECT_EQ(AudioIn::instance().chn(0, 0).depth, 20u);

    const QList<Unit> got = sink.units.mid(0, 8);
    EXPECT_TRUE(isTone(samples(got, 0, 2), 1000, 48000));
    EXPECT_TRUE(isTone(samples(got, 1, 2), 2000, 48000));
    for (int i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].bytes.size(), 4096);
        EXPECT_EQ(got[i].frameType, 3);
        EXPECT_EQ(got[i].dts, -1);
        if (i) {
            EXPECT_NEAR(got[i].pts - got[i - 1].pts, 21333, 2);
        }
    }
    qint64 now = 0;
    VeskHi::getPTS(&now, false);
    EXPECT_GT(got.last().pts, now - 1000000);
    EXPECT_LE(got.last().pts, now);

    // "track" 1: the left side on both; no rebuild for it.
    const int calls = countCalls("hi_mpi_ai_set_pub_attr");
    set(n, {{"track", 1}});
    QCoreApplication::processEvents();  // what was sent before the change
    const int from = sink.units.size() + 1;
    ASSERT_TRUE(waitUnits(from + 3));
    const QVector<int16_t> l = samples(sink.units, 0, 2, from), r = samples(sink.units, 1, 2, from);
    EXPECT_EQ(l, r);
    EXPECT_EQ(countCalls("hi_mpi_ai_set_pub_attr"), calls);
}

TEST_F(AudioCapture, VoiceFormatAndResamplingShapeTheFrames)
{
    // "agc" with stereo: 16 kHz, two mono channels side by side.
    capture({{"interface", "line"}, {"channels", 2}, {"agc", true}});
    ASSERT_TRUE(waitUnits(4));
    EXPECT_EQ(lastInfo(), (QVariantMap{{"samplerate", 16000}, {"channels", 2}, {"num", 1024u}}));
    AudioIn::Dev dev = AudioIn::instance().dev(0);
    EXPECT_EQ(dev.attr.snd_mode, OT_AUDIO_SOUND_MODE_MONO);
    EXPECT_EQ(dev.attr.point_num_per_frame, 3072u);
    for (int c : {0, 1}) {
        EXPECT_TRUE(AudioIn::instance().chn(0, c).resample);
        EXPECT_EQ(AudioIn::instance().chn(0, c).outRate, 16000u);
    }
    EXPECT_EQ(sink.units[0].bytes.size(), 4096);
    EXPECT_TRUE(isTone(samples(sink.units.mid(0, 4), 0, 2), 1000, 16000));
    EXPECT_TRUE(isTone(samples(sink.units.mid(0, 4), 1, 2), 2000, 16000));

    // 44100 Hz resampled to 48000: the hardware frame is 940 points.
    auto* n = graph->node("mic");
    set(n, {{"agc", false},
            {"channels", 1},
            {"cid2", -1},
            {"samplerate", 44100},
            {"resamplerate", 48000}});
    dev = AudioIn::instance().dev(0);
    EXPECT_EQ(dev.attr.sample_rate, 44100u);
    EXPECT_EQ(dev.attr.point_num_per_frame, 940u);
    EXPECT_EQ(lastInfo().value("samplerate"), 48000);

    // The same rate on both sides: no resampler, the rate stands as it is.
    platform().clearCalls();
    set(n, {{"resamplerate", 44100}});
    EXPECT_EQ(countCalls("hi_mpi_ai_enable_resample"), 0);
    EXPECT_EQ(countCalls("hi_mpi_ai_disable_resample"), 1);
    EXPECT_EQ(AudioIn::instance().dev(0).attr.point_num_per_frame, 1024u);
    EXPECT_EQ(lastInfo().value("samplerate"), 44100);
}

TEST_F(AudioCapture, SilenceFillsAStoppedInputStampedAt48k)
{
    capture({{"interface", "line"}, {"samplerate", 8000}});
    ASSERT_TRUE(waitUnits(2));
    EXPECT_EQ(sink.units[0].bytes.size(), 2048);
    Board::instance().applyStep({{"ai", 0}, {"stop", true}}, nullptr);
    ASSERT_TRUE(waitFor([&] { return sink.units.last().bytes.size() == 4096; }, 1000));
    const int first = sink.units.size() - 1;
    ASSERT_TRUE(waitUnits(first + 6, 1500));
    const QList<Unit> quiet = sink.units.mid(first, 6);
    for (int i = 0; i < quiet.size(); ++i) {
        EXPECT_EQ(quiet[i].bytes, QByteArray(4096, 0));
        EXPECT_EQ(quiet[i].data, quiet[0].data);  // one buffer per silence
        EXPECT_EQ(quiet[i].pts - quiet[0].pts, i * 1024 * 1000 / 48);
    }
    EXPECT_GT(quiet[0].pts, sink.units[first - 1].pts);

    Board::instance().applyStep({{"ai", 0}, {"stop", false}}, nullptr);
    ASSERT_TRUE(waitFor([&] { return sink.units.last().bytes.size() == 2048; }, 1000));
}

TEST_F(AudioCapture, DriverRateRebuildsTheInputAndHeldPacketsTrim)
{
    auto* n = capture({{"interface", "line"}, {"delay2", 3}});
    // Three packets stay behind: the first out is the first captured.
    ASSERT_TRUE(waitUnits(2));
    EXPECT_EQ(inNode(n, [n] { return n->packetsA.size(); }), 3);
    set(n, {{"delay2", 1}});
    EXPECT_LE(inNode(n, [n] { return n->packetsA.size(); }), 1);

    // A rate of 0 changes nothing; a new rate rebuilds and is announced.
    DriverBase* driver = Driver::driverMapA.value("line");
    ASSERT_TRUE(driver);
    driver->samplerate = 0;
    ASSERT_TRUE(waitFor([&] { return countCalls("hi_mpi_ai_get_frame") > 60; }, 3000));
    EXPECT_EQ(AudioIn::instance().dev(0).attr.sample_rate, 48000u);
    driver->samplerate = 44100;
    ASSERT_TRUE(waitFor([&] { return lastInfo().value("samplerate") == 44100; }, 2500));
    EXPECT_EQ(AudioIn::instance().dev(0).attr.sample_rate, 44100u);

    // Driver-only interface: no device, and silence all the same.
    graph->stop("mic");
    VeskHost::detach(&sink);
    sink.units.clear();
    auto* panel = make<VeskInputAi>("panel", {{"interface", "panel"}});
    VeskHost::link(panel, &sink, VeskHost::LinkA);
    platform().clearCalls();
    graph->start("panel");
    ASSERT_TRUE(waitUnits(1, 1500));
    EXPECT_EQ(countCalls("hi_mpi_ai_get_fd"), 0);
}

TEST_F(AudioCapture, RefusedChannelIsSilenceAndItsDescriptorIsAskedForOnce)
{
    // A refused channel has no descriptor; the graph gets silence.
    platform().failNext("hi_mpi_ai_enable_chn", OT_ERR_AI_NOT_PERM);
    capture({{"interface", "line"}});
    EXPECT_TRUE(Log::has(" zr_mpi_ai_enable_chn failed with 0xa0158009 0 0"));
    EXPECT_TRUE(Log::has("zr_mpi_ai_get_fd faild"));
    ASSERT_TRUE(waitUnits(1, 1500));
    EXPECT_EQ(sink.units[0].bytes, QByteArray(4096, 0));
    // The notifier was made all the same, so a new start does not ask again.
    graph->stop("mic");
    graph->start("mic");
    EXPECT_EQ(countCalls("hi_mpi_ai_get_fd"), 1);
}

}  // namespace
