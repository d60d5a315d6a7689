// Board audio output on the virtual board: a stream fed through a graph into
// VeskOutputAo, played by the output unit's device model at its own clock and
// checked in the WAV file the device writes.
#include <QTemporaryDir>
#include <cmath>
#include <cstring>

#include "CaptureHarness.h"
#include "frame/VeskRegister.h"
#include "output/VeskOutputAo.h"
#include "sim/AudioOut.h"

using capture::inNode;
using capture::Log;

// The upstream of the tests: announces and sends what the test hands it.
class AoTestFeeder : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit AoTestFeeder(QObject* parent = nullptr) : VeskObject(parent) {}
};
VESK_REGISTER(AoTestFeeder)

namespace {

struct Wav {
    int rate = 0, channels = 0;
    std::vector<int16_t> samples;
};

Wav readWav(const QString& path)
{
    const QByteArray b = capture::readHostFile(path);
    Wav w;
    if (b.size() < 44 || !b.startsWith("RIFF") || b.mid(8, 8) != "WAVEfmt ") return w;
    auto le = [&](int at, int n) {
        uint32_t v = 0;
        for (int i = n - 1; i >= 0; --i) v = v << 8 | uint8_t(b[at + i]);
        return v;
    };
    w.rate = int(le(24, 4));
    w.channels = int(le(22, 2));
    const int bytes = qMin(int(le(40, 4)), b.size() - 44);
    for (int i = 0; i + 1 < bytes; i += 2) w.samples.push_back(int16_t(le(44 + i, 2)));
    return w;
}

int16_t tone(int n)
{
    return int16_t(std::lround(8000 * std::sin(2 * M_PI * 1000 * n / 48000.0)));
}

QByteArray samples(int count, const std::function<int16_t(int)>& at)
{
    QByteArray out(count * 2, 0);
    for (int i = 0; i < count; ++i) {
        const int16_t s = at(i);
        std::memcpy(out.data() + 2 * i, &s, 2);
    }
    return out;
}

class AudioOutTest : public capture::GraphTest {
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        out().setWavPath(0, dir.filePath("ao0.wav"));
    }
    void TearDown() override
    {
        out().setHold(1, false);
        GraphTest::TearDown();
        out().setWavPath(0, QString());
    }
    static vsim::AudioOut& out() { return vsim::AudioOut::instance(); }

    VeskOutputAo* sink(const QVariantMap& data)
    {
        src = make<AoTestFeeder>("src", {});
        ao = make<VeskOutputAo>("ao", data);
        graph->link("src", "ao", VeskHost::LinkA);
        graph->start("ao");
        return ao;
    }
    void announce(int type, QVariantMap params)
    {
        VeskGraph::runIn(src, [&] { src->sendInfoA({type, params, 0}); });
        settle();
    }
    void feed(const QByteArray& payload, bool wait = true)
    {
        VeskGraph::runIn(src, [&] {
            char* at = src->bufferData(const_cast<char*>(payload.constData()), payload.size(), 0);
            src->sendPacketA({at, int32_t(payload.size()), ++pts, -1, 3, 0});
        });
        if (wait) settle();
    }
    // What was delivered to the sink before has been handled when this returns.
    void settle()
    {
        VeskGraph::runIn(ao, [] {});
    }
    int queued()
    {
        return inNode(ao, [this] { return int(ao->packetsA.size()); });
    }
    uint64_t accepted(int dev = 0) { return out().device(dev).framesAccepted; }

    QTemporaryDir dir;
    VeskObject* src = nullptr;
    VeskOutputAo* ao = nullptr;
    int64_t pts = 0;
};

TEST_F(AudioOutTest, ToneKeepsItsLatencyAndPlaysWithoutGap)
{
    sink({{"did", 0}, {"cid", 0}, {"delay", 100}});
    EXPECT_FALSE(inNode(ao, [this] { return ao->started; }));
    announce(VeskObject::TypeRaw, {{"samplerate", 48000}, {"num", 1024}});
    ASSERT_TRUE(inNode(ao, [this] { return ao->started; }));
    // 100 ms of 21.33 ms frames.
    EXPECT_EQ(inNode(ao, [this] { return ao->delayPackets; }), 5);
    EXPECT_EQ(countCalls("hi_mpi_ao_enable_resample"), 0);
    const ot_aio_attr a = out().device(0).attr;
    EXPECT_EQ(
        QVector<uint32_t>({a.sample_rate, uint32_t(a.work_mode), uint32_t(a.snd_mode), a.frame_num,
                           a.point_num_per_frame, a.chn_cnt, a.clk_share, uint32_t(a.i2s_type)}),
        QVector<uint32_t>({48000, 1, 0, 10, 1024, 2, 0, 2}));

    auto packet = [](int k) { return samples(1024, [k](int i) { return tone(k * 1024 + i); }); };
    for (int k = 0; k < 5; ++k) feed(packet(k));
    EXPECT_EQ(accepted(), 0u) << "nothing plays before the sixth packet";
    const int total = 40;
    for (int k = 5; k < total; ++k) {
        // Fed as the device drains, a few frames ahead of it.
        ASSERT_TRUE(out().waitBusyAtMost(0, 0, 6, 3000));
        feed(packet(k));
    }
    EXPECT_EQ(accepted(), uint64_t(total - 5));
    EXPECT_EQ(queued(), 5);
    ASSERT_TRUE(out().waitBusyAtMost(0, 0, 0, 3000));

    // A lower latency drops what was kept back, unplayed.
    set(ao, {{"delay", 0}});
    EXPECT_EQ(queued(), 0);
    graph->stop("ao");
    EXPECT_FALSE(out().device(0).enabled);
    EXPECT_EQ(accepted(), uint64_t(total - 5));

    const Wav w = readWav(dir.filePath("ao0.wav"));
    EXPECT_EQ(w.rate, 48000);
    EXPECT_EQ(w.channels, 1);
    const int played = (total - 5) * 1024;
    ASSERT_GE(int(w.samples.size()), played);
    int wrong = 0;
    for (int i = 0; i < played; ++i) wrong += w.samples[size_t(i)] != tone(i);
    EXPECT_EQ(wrong, 0);
}

TEST_F(AudioOutTest, StereoResampledFloatAndRefusedSetups)
{
    sink({{"did", 0}, {"cid", 0}, {"channels", 2}});
    announce(VeskObject::TypeRaw, {{"samplerate", 44100}});
    EXPECT_EQ(out().device(0).resampleFrom[0], 44100u);
    const QByteArray lr = samples(2048, [](int i) { return int16_t(i % 2 ? -1000 : 1000); });
    for (int k = 0; k < 3; ++k) feed(lr);
    feed(QByteArray(16384, 1));
    EXPECT_TRUE(Log::has("packet of 16384 bytes does not fit the frame blocks"));
    EXPECT_EQ(accepted(), 3u);
    ASSERT_TRUE(out().waitBusyAtMost(0, 0, 0, 3000));
    graph->stop("ao");
    Wav w = readWav(dir.filePath("ao0.wav"));
    ASSERT_EQ(w.channels, 2);
    const int frames = 3 * 1024 * 48000 / 44100 - 2;
    ASSERT_GE(int(w.samples.size()), 2 * frames);
    int wrong = 0;
    for (int i = 0; i < frames; ++i)
        wrong += w.samples[size_t(2 * i)] != 1000 || w.samples[size_t(2 * i + 1)] != -1000;
    EXPECT_EQ(wrong, 0);

    // Floats: len / 2 values converted, a frame of len / 4 bytes.
    set(ao, {{"channels", 1}});
    announce(VeskObject::TypeFloat, {{"samplerate", 48000}});
    QByteArray floats(4096, 0);
    for (int i = 0; i < 1024; ++i) {
        const float v = 0.5f;
        std::memcpy(floats.data() + 4 * i, &v, 4);
    }
    feed(floats);
    ASSERT_TRUE(out().waitBusyAtMost(0, 0, 0, 3000));
    graph->stop("ao");
    w = readWav(dir.filePath("ao0.wav"));
    ASSERT_GE(w.samples.size(), 513u);
    EXPECT_EQ(w.samples[0], 16383);
    EXPECT_EQ(w.samples[511], 16383);
    EXPECT_EQ(w.samples[512], 0);

    // Set-ups the device record has no value for, and a sink without device.
    const QList<QPair<QVariantMap, QString>> refused{
        {{{"mode", "pcm"}}, "\"mode\" is \"pcm\", not \"i2ss\" or \"i2sm\""},
        {{{"mode", "i2sm"}, {"channels", 3}}, "\"channels\" is 3, not 1 or 2: output not set up"},
        {{{"channels", 1}, {"did", -1}}, QString()}};
    for (const auto& r : refused) {
        set(ao, r.first);
        platform().clearCalls();
        graph->start("ao");
        EXPECT_FALSE(inNode(ao, [this] { return ao->started; })) << r.second.toStdString();
        EXPECT_EQ(countCalls("hi_mpi_ao_set_pub_attr"), 0);
        if (!r.second.isEmpty()) {
            EXPECT_TRUE(Log::has(r.second)) << r.second.toStdString();
        }
    }
    feed(floats);
    EXPECT_EQ(queued(), 0);

    // A stream without a rate: converting from none is the platform's to
    // refuse, and the device plays at its own rate.
    set(ao, {{"did", 0}, {"cid", 0}});
    platform().clearCalls();
    announce(VeskObject::TypeRaw, {});
    EXPECT_TRUE(inNode(ao, [this] { return ao->started; }));
    EXPECT_EQ(countCalls("hi_mpi_ao_enable_resample"), 1);
    EXPECT_EQ(out().device(0).resampleFrom[0], 0u);
}

TEST_F(AudioOutTest, SlowDeviceGetsTwoHundredBusyFramesThenDrops)
{
    // The board names the output; keys the node does not know stay out.
    VeskHost::setConfig(
        {{"interfaceA",
          QVariantMap{{"lineOut", QVariantMap{{"did", 1}, {"cid", 0}, {"bogus", 1}}}}}});
    sink({{"interface", "lineOut"}, {"num", 512}, {"buf", 50}, {"sync", true}});
    EXPECT_FALSE(inNode(ao, [this] { return ao->data.contains("bogus"); }));
    announce(VeskObject::TypeRaw, {{"samplerate", 48000}});
    const QByteArray packet(1024, 2);
    // The device's clock held at first: from the third frame on it is busy.
    out().setHold(1, true);
    for (int i = 0; i < 40; ++i) feed(packet, false);
    ASSERT_TRUE(out().waitAccepted(1, 40, 3000));
    out().setHold(1, false);
    // From here the sender waits for room in the full buffer.
    for (int i = 40; i < 202; ++i) {
        ASSERT_TRUE(out().waitAccepted(1, uint64_t(qMax(0, i - 20)), 5000));
        feed(packet, false);
    }
    ASSERT_TRUE(out().waitAccepted(1, 202, 5000));
    for (int i = 0; i < 30; ++i) feed(packet, false);
    settle();
    EXPECT_EQ(accepted(1), 202u) << "packets after the 200th busy one are dropped";
    ASSERT_TRUE(out().waitBusyAtMost(1, 0, 1, 3000));
    feed(packet);
    EXPECT_EQ(accepted(1), 203u) << "an idle device takes packets again";
    EXPECT_EQ(countCalls("hi_mpi_ao_clr_chn_buf"), 0);

    // Without "sync" a send into a full buffer fails at once, and the device
    // throws away what it held.
    graph->stop("ao");
    set(ao, {{"sync", false}, {"buf", 2}});
    graph->start("ao");
    out().setHold(1, true);
    for (int i = 0; i < 3; ++i) feed(packet);
    EXPECT_TRUE(Log::has("HI_MPI_AO_SendFrame failed with 0xa016800f 1"));
    EXPECT_EQ(out().device(1).clears, 1u);
    EXPECT_EQ(out().device(1).busy[0], 0);
}

}  // namespace

#include "test_audio_out.moc"
