// USB sound cards on the virtual board, through the real ALSA library and
// FFmpeg's ALSA input: how a card is found, what is captured and played, and
// how both nodes follow a card that is unplugged and comes back under
// another number.
#include <cmath>
#include <cstring>
#include <tuple>

extern "C" {
#include <libavutil/log.h>
}

#include "CaptureHarness.h"
#include "frame/VeskRegister.h"
#include "input/VeskInputAlsa.h"
#include "output/VeskOutputAlsa.h"
#include "sim/UsbSound.h"

using capture::inNode;
using capture::Log;
using vsim::Board;
using vsim::UsbSound;

// The upstream of the playback tests.
class AlsaTestFeeder : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit AlsaTestFeeder(QObject* parent = nullptr) : VeskObject(parent) {}
};
VESK_REGISTER(AlsaTestFeeder)

namespace {

class Sink : public VeskObject {
public:
    Sink() { shareDepth = 1000; }
    void onNewPacketA(VeskObject::Packet p) override
    {
        units << QByteArray(p.data, p.len);
        pts << p.pts;
    }
    QList<QByteArray> units;
    QList<qint64> pts;
};

int64_t monoNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int16_t tone(double hz, int n)
{
    return int16_t(std::lround(0.25 * 32767 * std::sin(2 * M_PI * hz * n / 48000)));
}

// Stereo packet `k` of 1024 frames, a ramp no two packets share.
QByteArray stereoPacket(int k)
{
    QByteArray out(1024 * 4, 0);
    for (int i = 0; i < 2048; ++i) {
        const int16_t s = int16_t(k * 2048 + i - 20000);
        std::memcpy(out.data() + 2 * i, &s, 2);
    }
    return out;
}

QByteArray widen(const QByteArray& s16)
{
    QByteArray out;
    for (int i = 0; i + 1 < s16.size(); i += 2) out += QByteArray(1, 0) + s16.mid(i, 2);
    return out;
}

class AlsaTest : public capture::GraphTest {
protected:
    void SetUp() override
    {
        // A card pulled out fails every read until the node notices, and
        // FFmpeg would say so for each of them.
        av_log_set_level(AV_LOG_QUIET);
        GraphTest::SetUp();
    }
    void TearDown() override
    {
        VeskHost::detach(&sink);
        GraphTest::TearDown();
    }

    static void step(const QVariantMap& s)
    {
        QString e;
        ASSERT_TRUE(Board::instance().applyStep(s, &e)) << e.toStdString();
    }
    static void plug(const QString& name, int card, QVariantMap more)
    {
        more["usbsound"] = name;
        more["plug"] = true;
        more["card"] = card;
        step(more);
    }
    static void unplug(const QString& name) { step({{"usbsound", name}, {"plug", false}}); }
    static UsbSound::Card card(const QString& name) { return UsbSound::instance().card(name); }
    // What the card played since the last look.
    QByteArray played(const QString& name)
    {
        const QByteArray all = capture::readHostFile(card(name).playedFile);
        const QByteArray fresh = all.mid(seen.value(name));
        seen[name] = all.size();
        return fresh;
    }

    VeskInputAlsa* capture(const QVariantMap& data)
    {
        auto* n = make<VeskInputAlsa>("mic", data);
        VeskHost::link(n, &sink, VeskHost::LinkA);
        graph->start("mic");
        return n;
    }
    VeskOutputAlsa* playback(const QVariantMap& data)
    {
        src = make<AlsaTestFeeder>("src", {});
        auto* n = make<VeskOutputAlsa>("spk", data);
        graph->link("src", "spk", VeskHost::LinkA);
        graph->start("spk");
        return n;
    }
    // Announcement and packets leave together, so that they reach the card
    // well inside the silence it was primed with.
    void feed(bool announce, const QList<QByteArray>& packets, int channels = 2)
    {
        VeskGraph::runIn(src, [&] {
            if (announce)
                src->sendInfoA(
                    {VeskObject::TypeRaw, {{"samplerate", 48000}, {"channels", channels}}, 0});
            for (const QByteArray& p : packets) {
                char* at = src->bufferData(const_cast<char*>(p.constData()), p.size(), 0);
                src->sendPacketA({at, int32_t(p.size()), ++pts, -1, 3, 0});
            }
        });
    }
    template <typename Node>
    bool opened(Node* n)
    {
        return inNode(n, [n] { return n->opened; });
    }

    Sink sink;
    VeskObject* src = nullptr;
    qint64 pts = 0;
    QMap<QString, int> seen;
};

TEST_F(AlsaTest, ResolverTakesBusThenIdThenPortAndStopsAtTheFirstMissingCard)
{
    plug("a", 0,
         {{"usbbus", "001/002"},
          {"usbid", "1111:0001"},
          {"port", "1-1"},
          {"playback", QVariantMap{}}});
    plug("b", 1,
         {{"usbbus", "001/003"},
          {"usbid", "2222:0002"},
          {"port", "1-2"},
          {"playback", QVariantMap{}}});
    plug("c", 2,
         {{"usbbus", "001/004"},
          {"usbid", "3333:0003"},
          {"port", "1-3"},
          {"playback", QVariantMap{}}});
    plug("d", 3,
         {{"usbbus", "001/003"},
          {"usbid", "4444:0004"},
          {"port", "1-4"},
          {"playback", QVariantMap{}}});
    auto* n = make<VeskInputAlsa>("mic", {});

    // Keys given, then the card found (or -1 for none) and the path left.
    struct Case {
        QVariantMap keys;
        int card;
        QString path;
    };
    const QList<Case> cases = {
        {{{"bus", "001/003"}}, 1, "hw:1"},
        {{{"bus", "001/003"}, {"id", "3333:0003"}}, 2, "hw:2"},
        {{{"bus", "001/003"}, {"id", "9999:9999"}}, 1, "hw:1"},
        {{{"id", "ffff:0000 4444:0004 2222:0002"}}, 1, "hw:1"},
        {{{"lnk", "1-2|1-4"}}, 3, "hw:3"},
        {{{"bus", "001/004"}, {"lnk", "1-2"}}, 1, "hw:1"},
        {{{"path", "hw:2,0"}}, 2, "hw:2,0"},
        {{{"path", "plughw:2,0"}}, 0, "plughw:2,0"},
        {{{"path", "-1"}, {"bus", "009/009"}}, -1, "-1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(QVariant(c.keys).toString().toStdString() +
                     QString::number(c.card).toStdString());
        const auto [found, at, path] = inNode(n, [&] {
            n->data.remove("bus");
            n->data.remove("id");
            n->data.remove("lnk");
            n->data["path"] = "-1";
            for (auto it = c.keys.begin(); it != c.keys.end(); ++it) n->data[it.key()] = it.value();
            n->card = -1;
            const bool ok = n->findAlsaDev();
            return std::make_tuple(ok, n->card, n->data["path"].toString());
        });
        EXPECT_EQ(found, c.card != -1);
        EXPECT_EQ(at, c.card);
        EXPECT_EQ(path, c.path);
    }

    // A gap at 1 hides cards 2 and 3 from every walk; so does a class entry
    // at 0 that is too short to name a port.
    unplug("b");
    auto lookup = [&](const QVariantMap& keys) {
        return inNode(n, [&] {
            n->data.remove("bus");
            n->data.remove("lnk");
            n->data["path"] = "-1";
            for (auto it = keys.begin(); it != keys.end(); ++it) n->data[it.key()] = it.value();
            n->card = -1;
            return n->findAlsaDev() ? n->card : -1;
        });
    };
    EXPECT_EQ(lookup({{"bus", "001/004"}}), -1);
    EXPECT_EQ(lookup({{"lnk", "1-4"}}), -1);
    plug("b", 1, {{"usbbus", "001/003"}, {"port", "1-2"}, {"playback", QVariantMap{}}});
    EXPECT_EQ(lookup({{"lnk", "1-4"}}), 3);
    plug("a", 0, {{"usbbus", "001/002"}, {"link", "../x/card0"}, {"playback", QVariantMap{}}});
    EXPECT_EQ(lookup({{"lnk", "1-4"}}), -1);
    EXPECT_EQ(lookup({{"bus", "001/004"}}), 2);

    // A board entry names the device and brings keys the node did not have.
    VeskHost::setConfig(
        {{"interfaceA", QVariantMap{{"usb", QVariantMap{{"alsa", "hw:7,0"}, {"lnk", "1-3"}}}}}});
    set(n, {{"interface", "usb"}});
    EXPECT_EQ(inNode(n, [n] { return n->data.value("lnk").toString(); }), "1-3");
    EXPECT_EQ(inNode(n, [n] { return n->data.value("path").toString(); }), "hw:7,0");
    VeskHost::setConfig({});
}

TEST_F(AlsaTest, CaptureReadsTheCardsFormatHoldsSixteenPacketsAndFollowsAReplug)
{
    plug("base", 0, {{"playback", QVariantMap{}}});
    plug("mic", 1,
         {{"usbbus", "001/005"},
          {"capture", QVariantMap{{"rate", 48000}, {"channels", 2}, {"tone", 440}}}});
    auto* n = capture({{"bus", "001/005"}, {"channels", -1}, {"samplerate", 8000}, {"delay2", 2}});

    ASSERT_TRUE(waitFor([&] { return !sink.units.isEmpty(); }, 5000));
    // The line holds 16 reads back; the oldest leaves first.
    EXPECT_EQ(inNode(n, [n] { return int(n->packetsA.size()); }), 16);
    EXPECT_EQ(inNode(n, [n] { return n->data["channels"].toInt(); }), 2);
    EXPECT_EQ(inNode(n, [n] { return n->data["samplerate"].toInt(); }), 48000);
    const QByteArray first = sink.units.first();
    ASSERT_GE(first.size(), 64);
    for (int i = 0; i < first.size() / 4; ++i) {
        int16_t l, r;
        std::memcpy(&l, first.constData() + 4 * i, 2);
        std::memcpy(&r, first.constData() + 4 * i + 2, 2);
        ASSERT_EQ(l, tone(440, i)) << "frame " << i;
        ASSERT_EQ(r, tone(440, i)) << "frame " << i;
    }
    const auto infos = eventsOf("mic", "infoA");
    ASSERT_FALSE(infos.isEmpty());
    EXPECT_EQ(infos.last().value.toMap().value("params").toMap(),
              (QVariantMap{{"samplerate", 48000}, {"channels", 2}}));

    // Unplugged, the card is closed by the retry; back as card 2 (behind
    // another card at 1) it is found by its bus and the stream goes on.
    unplug("mic");
    ASSERT_TRUE(waitFor([&] { return !opened(n); }, 5000));
    EXPECT_TRUE(Log::has("[mic] card 1 is gone: capture closed"));
    plug("other", 1, {{"playback", QVariantMap{}}});
    plug("mic", 2,
         {{"usbbus", "001/005"},
          {"capture", QVariantMap{{"rate", 48000}, {"channels", 2}, {"tone", 440}}}});
    const int before = sink.units.size();
    ASSERT_TRUE(waitFor([&] { return sink.units.size() > before + 20; }, 6000));
    EXPECT_TRUE(Log::has("[mic] ALSA open done hw:2"));
    EXPECT_EQ(card("mic").captureOpens, 2);
    EXPECT_EQ(eventsOf("mic", "infoA").size(), infos.size() + 1);
    for (int i = 1; i < sink.pts.size(); ++i) ASSERT_GE(sink.pts[i], sink.pts[i - 1]);
}

TEST_F(AlsaTest, FormatReadingTakesTheTextAsItIsWithoutACaptureSide)
{
    // Only a playback side: its channels and first rate are read, and the
    // capture open fails.
    const QVariantMap side{{"channels", 2}, {"rates", QVariantList{44100, 48000}}};
    plug("spk", 0, {{"playback", side}});
    auto* n = capture({{"channels", -1}});
    ASSERT_TRUE(waitFor([&] { return Log::has("[mic] can not open device: hw:0,0"); }, 3000));
    EXPECT_EQ(inNode(n, [n] { return n->data["channels"].toInt(); }), 2);
    EXPECT_EQ(inNode(n, [n] { return n->data["samplerate"].toInt(); }), 44100);
    EXPECT_FALSE(opened(n));
    EXPECT_EQ(card("spk").captureOpens, 0);
}

TEST_F(AlsaTest, TwentyFourBitCardPlaysWidenedSamplesWithPeriodFromNumAndKeptPackets)
{
    plug("spk", 0,
         {{"usbid", "0d8c:0102"}, {"playback", QVariantMap{{"formats", QVariantList{"S24_3LE"}}}}});
    auto* n = playback({{"id", "0d8c:0102"}, {"num", 1024}, {"delay", 3}});
    QList<QByteArray> packets;
    for (int k = 0; k < 10; ++k) packets << stereoPacket(k);
    feed(true, packets);
    VeskGraph::runIn(n, [] {});

    ASSERT_TRUE(opened(n));
    EXPECT_TRUE(inNode(n, [n] { return n->packed24; }));
    const UsbSound::Card c = card("spk");
    EXPECT_EQ(c.playFormat, "S24_3LE");
    EXPECT_EQ(c.periodFrames, 10240);
    EXPECT_EQ(c.playChannels, 2);
    EXPECT_EQ(c.playRate, 48000);
    // Three blocks of silence, then seven packets; three stay queued.
    EXPECT_EQ(inNode(n, [n] { return int(n->packetsA.size()); }), 3);
    QByteArray expected(3 * 1024 * 2 * 3, 0);
    for (int k = 0; k < 7; ++k) expected += widen(packets[k]);
    EXPECT_TRUE(played("spk") == expected);

    // Emptying the line drops what it held; a packet too long to widen is
    // dropped with a word, one that just fits plays.
    set(n, {{"delay", 0}});
    EXPECT_EQ(inNode(n, [n] { return int(n->packetsA.size()); }), 0);
    // (Sent twice: should the card have run dry meanwhile, the first write
    // only reopens it.)
    const QByteArray fits = stereoPacket(20).left(8192);
    feed(false, {QByteArray(8196, 1), fits, fits});
    VeskGraph::runIn(n, [] {});
    EXPECT_TRUE(Log::has("[spk] packet of 8196 bytes is too long for 24-bit output: dropped"));
    const QByteArray tail = played("spk");
    EXPECT_TRUE(tail.endsWith(widen(fits)));
    EXPECT_FALSE(tail.contains(widen(QByteArray(64, 1))));
}

TEST_F(AlsaTest, PlaybackFindsItsCardAgainUnderAnotherNumber)
{
    plug("mic", 0, {{"port", "1-1.1"}, {"capture", QVariantMap{}}});
    plug("spk", 1, {{"usbid", "0d8c:0014"}, {"port", "1-1.3"}, {"playback", QVariantMap{}}});
    auto* n = playback({{"lnk", "1-1.2|1-1.3"}});
    feed(true, {stereoPacket(0), stereoPacket(1)});
    VeskGraph::runIn(n, [] {});
    ASSERT_TRUE(opened(n));
    // Without "num": half a second of buffer in periods of a quarter.
    EXPECT_EQ(card("spk").bufferFrames, 24000);
    EXPECT_EQ(card("spk").periodFrames, 6000);
    EXPECT_TRUE(played("spk").endsWith(stereoPacket(0) + stereoPacket(1)));

    unplug("spk");
    ASSERT_TRUE(waitFor([&] { return !opened(n); }, 5000));
    plug("other", 1, {{"port", "1-1.4"}, {"capture", QVariantMap{}}});
    plug("spk", 2, {{"usbid", "0d8c:0014"}, {"port", "1-1.3"}, {"playback", QVariantMap{}}});
    ASSERT_TRUE(waitFor([&] { return opened(n); }, 5000));
    EXPECT_EQ(inNode(n, [n] { return n->data["path"].toString(); }), "hw:2");
    EXPECT_EQ(card("spk").playbackOpens, 2);
    // Left without packets the card runs dry: the next write fails, the
    // device is opened again and that packet is lost; the following play.
    ASSERT_TRUE(waitFor([&] { return monoNs() > card("spk").dryAtNs; }, 2000));
    feed(false, {stereoPacket(5), stereoPacket(6), stereoPacket(7)});
    VeskGraph::runIn(n, [] {});
    EXPECT_TRUE(Log::has("[spk] write failed: Broken pipe"));
    EXPECT_EQ(card("spk").playbackOpens, 3);
    const QByteArray tail = played("spk");
    EXPECT_FALSE(tail.contains(stereoPacket(5)));
    EXPECT_TRUE(tail.endsWith(stereoPacket(6) + stereoPacket(7)));

    // Announced mono on the open stereo device: twice the frames, held to
    // what the packet holds.
    feed(true, {stereoPacket(8)}, 1);
    VeskGraph::runIn(n, [] {});
    EXPECT_TRUE(played("spk").endsWith(stereoPacket(8)));
}

}  // namespace

#include "test_alsa.moc"
