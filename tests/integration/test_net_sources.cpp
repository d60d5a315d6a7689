// VeskInputNet against real peers on 127.0.0.1: ffmpeg sending live MPEG-TS
// over UDP and serving FLV over HTTP, HLS from a plain HTTP server, local
// files, refusing and silent servers; and `veskhost probe` on them.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>

#include "netfile_rig.h"

namespace {

using rig::Unit;

const QByteArray kStart("\0\0\0\1", 4);

void expectRising(const QList<Unit>& units, const char* what)
{
    for (int i = 1; i < units.size(); ++i)
        ASSERT_GT(units[i].pts, units[i - 1].pts) << what << " at " << i;
}

qint64 ahead(const Unit& u)
{
    return u.pts - u.arrival;
}

void expectOnClock(const QList<Unit>& units, qint64 slackUs, const char* what)
{
    for (const Unit& u : units) ASSERT_LT(qAbs(ahead(u)), slackUs) << what;
}

// What FFmpeg buffered while probing comes out at once behind the first key
// frame, so a live stream starts ahead of the clock by that much; drift
// control pulls it in by 5 ms a video packet at most. With the source's 40 ms
// steps, no output step may be below 35 ms or above 45 ms.
void expectSlewWithinLimits(const QList<Unit>& video)
{
    for (int i = 1; i < video.size(); ++i) {
        ASSERT_GE(video[i].pts - video[i - 1].pts, 35000) << i;
        ASSERT_LE(video[i].pts - video[i - 1].pts, 45000) << i;
    }
}

void expectReady(const QVariant& ready)
{
    const QVariantMap v = ready.toMap().value("infoV").toMap();
    const QVariantMap a = ready.toMap().value("infoA").toMap();
    EXPECT_EQ(v.value("codec").toString(), "h264");
    EXPECT_EQ(v.value("width").toInt(), 320);
    EXPECT_EQ(v.value("height").toInt(), 240);
    EXPECT_EQ(v.value("framerate").toInt(), 25);
    EXPECT_EQ(a.value("codec").toString(), "aac");
    EXPECT_EQ(a.value("samplerate").toInt(), 48000);
    EXPECT_EQ(a.value("channels").toInt(), 2);
    EXPECT_FALSE(a.value("extradata").toByteArray().isEmpty());
}

// The video decodes picture for picture, starting at a key frame.
void expectDecodes(const rig::Sink& sink)
{
    const QList<Unit> video = sink.units(true);
    ASSERT_FALSE(video.isEmpty());
    EXPECT_EQ(video.first().frameType, 0);
    for (const Unit& u : video) ASSERT_TRUE(u.bytes.startsWith(kStart));
    const rig::Probe p = rig::ffprobe(sink.videoBytes(), "h264");
    ASSERT_TRUE(p.ok) << p.errors.toStdString();
    EXPECT_EQ(p.codec, "h264");
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_GE(p.frames, video.size() - 1) << p.errors.toStdString();  // the last may be held
}

TEST(NetUdp, LiveTsIsAnnouncedDecodableOnTheClockAndReopenedWhenTheSenderReturns)
{
    const QString url = QStringLiteral("udp://127.0.0.1:%1").arg(rig::freeUdpPort());
    const QStringList sendTo = {"-f", "mpegts", url + "?pkt_size=1316"};
    rig::Rig r;
    r.add("VeskInputNet", {{"path", url}});
    auto sender = rig::liveEncoder(sendTo);
    ASSERT_TRUE(r.waitEvent("ready", 1, 20000));
    expectReady(r.events("ready").first().value);
    EXPECT_EQ(r.data().value("state").toString(), "opened");

    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 250; }, 20000));
    expectDecodes(r.sink);
    const QList<Unit> video = r.sink.units(true);
    expectRising(video, "video");
    expectSlewWithinLimits(video);
    // Ten seconds in, the start's lead is gone. Audio shares the video's
    // offset; TS interleaving delays it a little.
    expectOnClock(video.mid(video.size() - 50), 100000, "video");
    const QList<Unit> audio = r.sink.units(false).mid(r.sink.count(false) - 100);
    expectRising(audio, "audio");
    expectOnClock(audio, 300000, "audio");

    // The sender dies: given up after "timeout" (10 s), that is at the 11th
    // or 12th silent tick.
    sender->kill();
    const qint64 killedAt = rig::hostNow();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 20000));
    const double after = double(r.events("timeout").first().at - killedAt) / 1e6;
    EXPECT_GE(after, 10.5);
    EXPECT_LE(after, 13.5);
    EXPECT_EQ(r.events("timeout").first().value.toString(), url);

    // It returns to the node waiting on the port: a new time line from the
    // next key frame on.
    r.sink.clear();
    sender = rig::liveEncoder(sendTo);
    ASSERT_TRUE(r.waitEvent("ready", 2, 20000));
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 25; }, 15000));
    const QList<Unit> again = r.sink.units(true);
    EXPECT_EQ(again.first().frameType, 0);
    EXPECT_LT(qAbs(ahead(again.first())), 100000);
    expectRising(again, "video after the reconnection");
}

TEST(NetHttp, LengthPrefixedFlvBecomesAnnexBWithParameterSetsOnKeyFrames)
{
    const int port = rig::freeTcpPort();
    const QString url = QStringLiteral("http://127.0.0.1:%1/live.flv").arg(port);
    auto server = rig::liveEncoder({"-f", "flv", "-listen", "1", url});
    ASSERT_TRUE(rig::waitListening(port, 15000));
    rig::Rig r;
    r.add("VeskInputNet", {{"path", url}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
    expectReady(r.events("ready").first().value);

    r.invoke("getSpeed");  // starts a measuring period
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 130; }, 20000));
    const int speed = r.invoke("getSpeed").toInt();  // some 300 kbit/s
    EXPECT_GT(speed, 10000);
    EXPECT_LT(speed, 2000000);

    int keys = 0;
    for (const Unit& u : r.sink.units(true)) {
        if (u.frameType != 0) continue;
        ++keys;
        EXPECT_EQ(u.bytes.left(5), kStart + char(0x67)) << "the SPS leads every key frame";
    }
    EXPECT_GE(keys, 2);
    expectDecodes(r.sink);

    const QList<Unit> video = r.sink.units(true);
    expectRising(video, "video");
    expectSlewWithinLimits(video);
    // The first key frame is put on the clock; the lead that the buffered
    // packets behind it build up shrinks from there.
    EXPECT_LT(qAbs(ahead(video.first())), 100000);
    int peak = 0;
    for (int i = 0; i < video.size(); ++i)
        if (ahead(video[i]) > ahead(video[peak])) peak = i;
    ASSERT_LT(peak, video.size() - 60);
    EXPECT_LT(ahead(video.last()), ahead(video[peak]) - 150000);
}

TEST(NetHls, PlaylistTimeIsKeptAndTheEndOfThePlaylistReopensIt)
{
    int port = 0;
    auto server = rig::httpServer(rig::media("hls"), &port);
    ASSERT_GT(port, 0);
    rig::Rig r;
    r.add("VeskInputNet", {{"path", QStringLiteral("http://127.0.0.1:%1/index.m3u8").arg(port)}});
    ASSERT_TRUE(r.waitEvent("timeout", 1, 20000)) << "the end of a VOD playlist ends the read";
    const QList<Unit> video = r.sink.units(true);
    ASSERT_GE(video.size(), 140);
    // No drift control for HLS: the playlist's own 40 ms steps, though it
    // was all read far faster than it plays.
    for (int i = 1; i < video.size(); ++i) ASSERT_EQ(video[i].pts - video[i - 1].pts, 40000) << i;
    EXPECT_LT(video.last().arrival - video.first().arrival, 4500000);
    expectDecodes(r.sink);
    EXPECT_TRUE(r.waitEvent("ready", 2, 10000));
}

TEST(NetFileUrl, SyncPacesPacketsByTheHostClockAfterTheLeadIn)
{
    rig::Rig r;
    r.add("VeskInputNet", {{"path", rig::media("av8.mp4")}, {"sync", true}});
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 1; }, 10000));
    r.pump(3000);
    // 50 packets go before the first key frame is taken (at 2 s of the 8 s
    // file); from then on a frame each 40 ms of wall time.
    const QList<Unit> video = r.sink.units(true);
    ASSERT_GE(video.size(), 50);
    EXPECT_LE(video.size(), 100);
    EXPECT_EQ(video.first().frameType, 0);
    for (const Unit& u : video) {
        const qint64 wall = u.arrival - video.first().arrival;
        ASSERT_LT(qAbs(wall - (u.pts - video.first().pts)), 250000) << "at " << wall / 1000;
    }

    // A new time stamp mode while open reopens the stream; "local" stamps
    // each packet with the moment it was read.
    const int readies = r.events("ready").size();
    r.setData({{"timestampMode", "local"}});
    ASSERT_TRUE(r.waitEvent("ready", readies + 1, 10000));
    r.sink.clear();
    ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 20; }, 10000));
    expectOnClock(r.sink.units(true), 50000, "local");
}

TEST(NetFailures, RefusedUrlIsRetriedEveryThreeSecondsAndASilentServerIsGivenUp)
{
    QTcpServer silent;  // accepts, and never says a word
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    rig::Rig refused, mute;
    const qint64 start = rig::hostNow();
    refused.add("VeskInputNet",
                {{"path", QStringLiteral("http://127.0.0.1:%1/x").arg(rig::freeTcpPort())}});
    mute.add("VeskInputNet",
             {{"path", QStringLiteral("http://127.0.0.1:%1/x").arg(silent.serverPort())},
              {"timeout", 2}});
    ASSERT_TRUE(refused.waitEvent("error", 4, 15000));
    ASSERT_TRUE(mute.waitEvent("error", 1, 10000));

    // onStart fails, reconnect tries again at once, then every 3000 ms.
    const QList<rig::Event> e = refused.events("error");
    EXPECT_LT(e[1].at - e[0].at, 1000000);
    for (int i = 2; i < 4; ++i) {
        EXPECT_GT(e[i].at - e[i - 1].at, 2700000) << i;
        EXPECT_LT(e[i].at - e[i - 1].at, 4500000) << i;
    }
    EXPECT_EQ(refused.data().value("state").toString(), "closed");
    // "timeout" 2: the third silent tick, 2 to 3 s in.
    const double given = double(mute.events("error").first().at - start) / 1e6;
    EXPECT_GE(given, 1.8);
    EXPECT_LE(given, 5.0);
    EXPECT_TRUE(refused.events("ready").isEmpty() && mute.events("ready").isEmpty());
}

TEST(NetReconnect, HundredsOfReopeningsLeaveNoDescriptorsOrMemoryBehind)
{
    // A file URL ends within a fraction of a second, and each end is a
    // "timeout" and a reconnection: a whole open, probe and close each time.
    rig::Rig r;
    r.keepValues = false;
    r.add("VeskInputNet", {{"path", rig::media("clip.mp4")}});
    ASSERT_TRUE(r.waitEvent("ready", 30, 30000));
    const int fds = rig::openFds();
    const qint64 heap = rig::heapInUse();
    ASSERT_TRUE(r.waitEvent("ready", 230, 90000));
    EXPECT_LE(rig::openFds() - fds, 2);
    // A format context with its I/O buffer is tens of kilobytes: 200 of them
    // would be megabytes.
    EXPECT_LT(rig::heapInUse() - heap, 3 << 20);
}

TEST(NetCorrupt, TrashedFlvNeverBreaksTheNodeAndEveryUnitLeavesStartCoded)
{
    int port = 0;
    auto server = rig::httpServer(rig::media(""), &port);
    ASSERT_GT(port, 0);
    rig::Rig r;
    r.add("VeskInputNet", {{"path", QStringLiteral("http://127.0.0.1:%1/bad.flv").arg(port)}});
    ASSERT_TRUE(r.waitEvent("timeout", 2, 20000)) << "read to its end, twice";
    ASSERT_GT(r.sink.count(true), 20);
    for (const Unit& u : r.sink.units(true)) EXPECT_TRUE(u.bytes.startsWith(kStart));
}

QJsonObject probe(const QStringList& args, int* code)
{
    QProcess p;
    p.start(QStringLiteral(VESKHOST), QStringList{"probe"} + args);
    if (!p.waitForFinished(60000)) p.kill();
    *code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    return QJsonDocument::fromJson(p.readAllStandardOutput().trimmed().split('\n').last()).object();
}

TEST(NetProbe, ReportsTheReadyMapAndWhatEachStreamDeliveredOrFails)
{
    const int port = rig::freeTcpPort();
    const QString url = QStringLiteral("http://127.0.0.1:%1/live.flv").arg(port);
    auto server = rig::liveEncoder({"-f", "flv", "-listen", "1", url});
    ASSERT_TRUE(rig::waitListening(port, 15000));
    int code = -1;
    const QJsonObject o = probe({url, "--seconds", "4", "--json"}, &code);
    ASSERT_EQ(code, 0);
    EXPECT_EQ(o["class"].toString(), "VeskInputNet");
    EXPECT_EQ(o["ready"]["infoV"]["codec"].toString(), "h264");
    EXPECT_EQ(o["ready"]["infoA"]["codec"].toString(), "aac");
    EXPECT_GE(o["video"]["packets"].toInt(), 40);
    EXPECT_GE(o["video"]["keyPackets"].toInt(), 1);
    EXPECT_GT(o["video"]["bytes"].toInt(), 10000);
    EXPECT_GE(o["audio"]["packets"].toInt(), 40);
    EXPECT_EQ(o["audio"]["keyPackets"].toInt(), 0);
    EXPECT_NEAR(o["video"]["framerate"].toDouble(), 25, 3);
    EXPECT_EQ(o["events"].toArray().first().toString(), "ready");

    const QJsonObject bad = probe({QStringLiteral("http://127.0.0.1:%1/x").arg(rig::freeTcpPort()),
                                   "--seconds", "1", "--json"},
                                  &code);
    EXPECT_EQ(code, 1);
    EXPECT_TRUE(bad["ready"].isNull());
    EXPECT_EQ(bad["video"]["packets"].toInt(), 0);
    EXPECT_EQ(bad["events"].toArray().first().toString(), "error");
}

}  // namespace
