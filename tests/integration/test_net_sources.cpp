// VeskInputNet against real peers on 127.0.0.1: ffmpeg sending live MPEG-TS
// over UDP and serving FLV over HTTP, python's HTTP server over the test
// media, local files, refusing and silent servers; and `veskhost probe`.
#include <gtest/gtest.h>
#include <malloc.h>

#include <QTcpServer>

#include "host/VeskHost.h"
#include "netfile_rig.h"

namespace {

using rig::Unit;

// ffmpeg encoding a live 320x240 25 fps picture (a key frame each second)
// and a 48 kHz stereo tone in real time.
std::unique_ptr<rig::Peer> liveEncoder(const QStringList& output)
{
    const QString args = QStringLiteral(
        "-nostdin -v error -re -f lavfi -i testsrc=size=320x240:rate=25 -re -f lavfi -i "
        "sine=frequency=440:sample_rate=48000 -c:v libx264 -preset ultrafast -tune zerolatency "
        "-g 25 -pix_fmt yuv420p -c:a aac -ac 2 -b:a 96k");
    return std::make_unique<rig::Peer>("ffmpeg", args.split(' ') + output);
}

class NetLive : public ::testing::TestWithParam<const char*> {};

TEST_P(NetLive, AnnouncedDecodableOnTheClockGivenUpWithTheSenderAndReopenedOnItsReturn)
{
    const bool udp = GetParam() == QString("udp");
    const int port = rig::freePort(udp);
    const QString url =
        QString(udp ? "udp://127.0.0.1:%1" : "http://127.0.0.1:%1/live.flv").arg(port);
    const QStringList to = udp ? QStringList{"-f", "mpegts", url + "?pkt_size=1316"}
                               : QStringList{"-f", "flv", "-listen", "1", url};
    auto sender = liveEncoder(to);
    ASSERT_TRUE(udp || rig::waitListening(port));
    rig::Rig r;
    r.add("VeskInputNet", {{"path", url}, {"timeout", 2}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 20000));
    const QVariantMap v = r.ready().value("infoV").toMap(), a = r.ready().value("infoA").toMap();
    EXPECT_EQ(rig::pick(v, {"codec", "width", "framerate"}), "h264 320 25");
    EXPECT_EQ(rig::pick(a, {"codec", "samplerate", "channels"}), "aac 48000 2");
    EXPECT_FALSE(a.value("extradata").toByteArray().isEmpty());
    EXPECT_EQ(r.data().value("state"), "opened");

    r.invoke("getSpeed");  // starts a measuring period
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= (udp ? 250 : 150); }, 20000));
    EXPECT_NEAR(r.invoke("getSpeed").toInt(), 1e6, 0.99e6);  // some 300 kbit/s
    const QList<Unit> video = r.sink.units(true);
    rig::expectClean(video, "h264", video.size());
    // What FFmpeg buffered while probing comes out at once behind the first
    // key frame, which is put on the clock; drift control pulls the lead
    // this builds in by 5 ms a packet at most, so with the source's 40 ms
    // steps no output step may leave 35..45 ms. Over UDP, where FFmpeg
    // probes less, the lead is gone ten seconds in.
    EXPECT_LT(qAbs(video.first().ahead()), 100000);
    int peak = 0;
    for (int i = 1; i < video.size(); ++i) {
        ASSERT_NEAR(video[i].pts - video[i - 1].pts, 40000, 5000) << i;
        peak = video[i].ahead() > video[peak].ahead() ? i : peak;
    }
    ASSERT_LT(peak, video.size() - 60);
    EXPECT_LT(video.last().ahead(), video[peak].ahead() - 150000);
    EXPECT_TRUE(!udp || qAbs(video.last().ahead()) < 100000) << video.last().ahead();
    // Audio has no offset of its own: it shares the lead of the video (and
    // its pulling in, so a burst of audio may start a little back in time).
    EXPECT_NEAR(r.sink.units(false).last().ahead(), video.last().ahead(), 300000);

    // The sender goes: an HTTP read ends at once, a silent UDP port is given
    // up after "timeout" (2 s), at the third silent tick.
    sender.reset();
    const qint64 gone = rig::hostNow();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 10000));
    EXPECT_NEAR(double(r.events("timeout")[0].at - gone) / 1e6, udp ? 3.5 : 0.5, udp ? 1.5 : 0.5);
    EXPECT_EQ(r.events("timeout")[0].value, url);

    // Back again: a new time line from the next key frame on.
    sender = liveEncoder(to);
    ASSERT_TRUE(r.waitEvent("ready", 2, 20000));
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.units(true, 2).size() >= 25; }, 15000));
    const QList<Unit> again = r.sink.units(true, 2);
    EXPECT_TRUE(again[0].frameType == 0 && qAbs(again[0].ahead()) < 100000) << again[0].ahead();
    EXPECT_TRUE(rig::rising(again));
}

INSTANTIATE_TEST_SUITE_P(, NetLive, ::testing::Values("udp", "http"),
                         [](const auto& i) { return std::string(i.param); });

struct Served {
    const char* file;
    bool skipError;
    int frames;  // that leave in the first reading; 0: not pinned
    bool clean;  // decodes without a complaint
};

class NetServed : public ::testing::TestWithParam<Served> {
protected:
    static void SetUpTestSuite()
    {
        server =
            new rig::Peer("/usr/bin/python3", {"-m", "http.server", QString::number(port), "--bind",
                                               "127.0.0.1", "--directory", rig::media("")});
        rig::waitListening(port);
    }
    static void TearDownTestSuite() { delete server; }
    static inline const int port = rig::freePort();
    static inline rig::Peer* server = nullptr;
};

// Media read to their end over HTTP, which is a "timeout" and a reopening.
// Nothing a stream does on the way may end the reading early; a picture
// that is lost, or damaged with "skipError", holds the video back up to the
// next key frame.
TEST_P(NetServed, ReadToTheEndAndReopenedWhateverTheStreamCarries)
{
    const Served c = GetParam();
    rig::Rig r;
    r.add("VeskInputNet", {{"path", QStringLiteral("http://127.0.0.1:%1/%2").arg(port).arg(c.file)},
                           {"skipError", c.skipError}});
    ASSERT_TRUE(r.waitEvent("ready", 2, 20000));
    QStringList order;
    for (const rig::Event& e : r.events())
        if (!e.name.startsWith("info")) order << e.name;
    EXPECT_EQ(order.mid(0, 3), QStringList({"ready", "timeout", "ready"}));

    const QList<Unit> video = r.sink.units(true, 1);
    EXPECT_EQ(video.size(), c.frames ? c.frames : qMax(21, video.size()));
    for (int i = 1; c.frames && i < video.size(); ++i)
        EXPECT_TRUE(video[i].pts - video[i - 1].pts < 100000 || video[i].frameType == 0) << i;
    if (c.clean) rig::expectClean(video, "h264", video.size());
    // No drift control for HLS: the playlist's own steps, though it was all
    // read far faster than it plays.
    for (int i = 1; QString(c.file).contains("m3u8") && i < video.size(); ++i)
        ASSERT_EQ(video[i].pts - video[i - 1].pts, 40000);
    EXPECT_LT(video.last().arrival - video.first().arrival, 4500000);
}

// hls: TS segments, an AUD ahead of every frame. lp.flv: lengths, many of
// them 00 00 01 xx. sps.mkv: key frames that open with the SPS. garbage.ogg:
// Theora; the Ogg demuxer finds no page for 64 kB (AVERROR_INVALIDDATA)
// inside frame 26, so frames 0-25 and 50-99 leave. ccgap.ts: a TS packet of
// frame 30 is missing; the parser puts the corrupt flag on the frame it
// completes with it, frame 29, so 29-49 go with "skipError".
INSTANTIATE_TEST_SUITE_P(
    , NetServed,
    ::testing::Values(Served{"hls/index.m3u8", true, 150, true}, Served{"lp.flv", true, 75, true},
                      Served{"sps.mkv", true, 50, true}, Served{"garbage.ogg", true, 76, false},
                      Served{"ccgap.ts", true, 54, true}, Served{"ccgap.ts", false, 75, false},
                      Served{"bad.flv", true, 0, false}),
    [](const auto& i) {
        return QString(i.param.file).section('/', -1).replace('.', '_').toStdString() +
               (i.param.skipError ? "" : "_delivered");
    });

TEST(NetFileUrl, SyncPacesPacketsByTheHostClockAfterTheLeadIn)
{
    rig::Rig r;
    r.add("VeskInputNet", {{"path", rig::media("av8.mp4")}, {"sync", true}});
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 1; }, 10000));
    r.pump(3000);
    // 50 packets go before the first key frame is taken (at 2 s of the 8 s
    // file); from then on a frame each 40 ms of wall time.
    const QList<Unit> video = r.sink.units(true);
    EXPECT_NEAR(video.size(), 75, 25);
    EXPECT_EQ(video.first().frameType, 0);
    for (const Unit& u : video)
        ASSERT_NEAR(u.arrival - video[0].arrival, u.pts - video[0].pts, 250000) << u.pts;

    // A new time stamp mode while open reopens the stream; "local" stamps
    // each packet with the moment it was read.
    r.setData({{"timestampMode", "local"}});
    ASSERT_TRUE(r.waitEvent("ready", 2, 10000));
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.units(true, 2).size() >= 20; }, 10000));
    for (const Unit& u : r.sink.units(true, 2)) ASSERT_LT(qAbs(u.ahead()), 50000);
}

TEST(NetFailures, RefusedUrlIsRetriedEveryThreeSecondsAndASilentServerIsGivenUp)
{
    QTcpServer silent;  // accepts, and never says a word
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    rig::Rig refused, mute;
    const qint64 start = rig::hostNow();
    const QString url = QStringLiteral("http://127.0.0.1:%1/x");
    refused.add("VeskInputNet", {{"path", url.arg(rig::freePort())}});
    mute.add("VeskInputNet", {{"path", url.arg(silent.serverPort())}, {"timeout", 2}});
    ASSERT_TRUE(refused.waitEvent("error", 4, 15000));
    ASSERT_TRUE(mute.waitEvent("error", 1, 10000));

    // onStart fails, reconnect tries again at once, then every 3000 ms.
    const QList<rig::Event> e = refused.events("error");
    EXPECT_LT(e[1].at - e[0].at, 1000000);
    for (int i = 2; i < 4; ++i) EXPECT_NEAR(double(e[i].at - e[i - 1].at), 3.6e6, 0.9e6) << i;
    EXPECT_EQ(refused.data().value("state"), "closed");
    // "timeout" 2: the third silent tick, 2 to 3 s in.
    EXPECT_NEAR(double(mute.events("error")[0].at - start) / 1e6, 3.4, 1.6);
    EXPECT_TRUE(refused.events("ready").isEmpty() && mute.events("ready").isEmpty());
}

TEST(NetReconnect, HundredsOfReopeningsLeaveNoDescriptorsOrMemoryBehind)
{
    // A file URL ends within a fraction of a second, and each end is a
    // "timeout" and a reconnection: a whole open, probe and close each time.
    // Sockets and pipes show as dangling links: System lists them too. The
    // heap is that of malloc: under a sanitizer, descriptors alone count.
    const auto fds = [] {
        return QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System).size();
    };
    const auto heap = [] { return qint64(mallinfo2().uordblks + mallinfo2().hblkhd); };
    rig::Rig r;
    r.add("VeskInputNet", {{"path", rig::media("clip.mp4")}});
    VeskHost::detach(&r.sink);  // the test itself must not grow
    ASSERT_TRUE(r.waitEvent("ready", 30, 30000));
    const int open = fds();
    const qint64 used = heap();
    ASSERT_TRUE(r.waitEvent("ready", 230, 90000));
    EXPECT_LE(fds() - open, 2);
    // A format context with its I/O buffer is tens of kilobytes: 200 of them
    // would be megabytes.
    EXPECT_LT(heap() - used, 3 << 20);
}

// veskhost probe picks this node for a URL that is not rtsp://.
TEST_F(NetServed, ProbeReportsTheReadyMapAndWhatFlowed)
{
    int code = -1;
    const QString url = QStringLiteral("http://127.0.0.1:%1/lp.flv").arg(port);
    const QJsonObject o = rig::veskhostProbe(VESKHOST, url, 1, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(o["class"], "VeskInputNet");
    EXPECT_EQ(o["ready"]["infoV"]["codec"], "h264");
    EXPECT_GE(o["video"]["keyPackets"].toInt(), 3);
    EXPECT_GE(o["audio"]["packets"].toInt(), 100);
    EXPECT_EQ(o["audio"]["keyPackets"], 0);
    EXPECT_EQ(o["events"][0], "ready");
}

}  // namespace
