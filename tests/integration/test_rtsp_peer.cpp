// VeskInputRtsp against a real RTSP server (gst-rtsp-server, started by the
// tests through scripts/rtsp-server.py on 127.0.0.1). What is checked is what
// a user of the appliance would see: the "ready" map, pictures and audio
// frames that decode, times on the host clock, what a server's restart does
// to the node, and the UDP and aggregation outcomes this client settles
// for. The server's payloaders get aggregate-mode=none unless a test is about
// aggregation: the client delivers only the first unit of a STAP-A.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryFile>
#include <algorithm>
#include <cmath>

#include "host/probe.h"
#include "rtsp_rig.h"

namespace {

using rtsp::Unit;

const QByteArray kStartCode("\0\0\0\1", 4);
const QStringList kWhole = {"--aggregate-mode", "none"};

void expectAvcAacReady(const QVariantMap& ready)
{
    const QVariantMap v = ready.value("infoV").toMap();
    const QVariantMap a = ready.value("infoA").toMap();
    EXPECT_EQ(v.value("codec").toString(), "h264");
    EXPECT_EQ(v.value("width").toInt(), 320);
    EXPECT_EQ(v.value("height").toInt(), 240);
    EXPECT_EQ(v.value("framerate").toInt(), 25);
    EXPECT_EQ(a.value("codec").toString(), "aac");
    EXPECT_EQ(a.value("samplerate").toLongLong(), 48000);
    // Given in the SDP, so it stays text.
    EXPECT_EQ(a.value("channels").userType(), int(QMetaType::QString));
    EXPECT_EQ(a.value("channels").toString(), "2");
}

// Pictures of one access unit share a pts; units of one picture come in a
// row. So on the host clock the video pts never goes back, audio always
// goes on, and both lie close to when they arrived.
void expectOnHostClock(const QList<Unit>& video, const QList<Unit>& audio)
{
    for (int i = 1; i < video.size(); ++i)
        ASSERT_GE(video[i].pts, video[i - 1].pts) << "video unit " << i;
    for (int i = 1; i < audio.size(); ++i)
        ASSERT_GT(audio[i].pts, audio[i - 1].pts) << "audio frame " << i;
    qint64 worst = 0;
    for (const QList<Unit>* side : {&video, &audio})
        for (const Unit& u : *side) worst = qMax(worst, qAbs(u.pts - u.arrival));
    // The band is 50 ms, and stream time (its origin anywhere in 13 hours)
    // would be far off. The rest is a busy machine, where an encoder that
    // falls behind delivers late and the mapping slews by 5 ms a packet.
    EXPECT_LT(worst, 1500000) << "a pts " << worst / 1000 << " ms off the host clock";
}

// A new session begins with a key frame and its parameter sets in band.
void expectStartsWithKeyFrame(const QList<Unit>& video)
{
    int i = 0;
    while (i < video.size() && !rtsp::isSlice(video[i], false)) ++i;
    ASSERT_LT(i, video.size());
    EXPECT_EQ(rtsp::nalType(video[i], false), 5) << "the first picture is not an IDR";
    bool sps = false, pps = false;
    for (int k = 0; k < i; ++k) {
        sps |= rtsp::nalType(video[k], false) == 7;
        pps |= rtsp::nalType(video[k], false) == 8;
        EXPECT_EQ(video[k].frameType, 0);
    }
    EXPECT_TRUE(sps && pps) << "the IDR came without its parameter sets";
}

// Every picture that came decodes, at the size the SDP announced.
void expectDecodes(const QList<Unit>& video, bool h265, int minPictures)
{
    ASSERT_FALSE(video.isEmpty());
    QByteArray annexB;
    for (const Unit& u : video) {
        ASSERT_TRUE(u.bytes.startsWith(kStartCode)) << "a unit without its start code";
        annexB += u.bytes;
    }
    const int sent = rtsp::pictures(video, h265);
    EXPECT_GE(sent, minPictures);
    const rtsp::Probe p = rtsp::ffprobe(annexB, h265 ? "hevc" : "h264");
    ASSERT_TRUE(p.ok) << p.errors.toStdString();
    EXPECT_EQ(p.codec, h265 ? "hevc" : "h264");
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_EQ(p.frames, sent) << p.errors.toStdString();
    EXPECT_TRUE(p.errors.isEmpty()) << p.errors.toStdString();
}

// AAC frames behind the 16 bytes of RTP and AU headers: whole frames, one
// per packet, or the decoder would stumble.
void expectAacDecodes(const QList<Unit>& audio, int minFrames)
{
    ASSERT_GE(audio.size(), minFrames);
    for (const Unit& u : audio) ASSERT_EQ(u.frameType, 3);
    const rtsp::Probe p = rtsp::ffprobe(rtsp::adts(audio, 48000, 2), "aac");
    ASSERT_TRUE(p.ok) << p.errors.toStdString();
    EXPECT_EQ(p.codec, "aac");
    EXPECT_EQ(p.sampleRate, 48000);
    EXPECT_EQ(p.channels, 2);
    EXPECT_EQ(p.frames, audio.size());
    EXPECT_TRUE(p.errors.isEmpty()) << p.errors.toStdString();
}

QList<Unit> arrivedBetween(const QList<Unit>& units, qint64 from, qint64 to)
{
    QList<Unit> out;
    for (const Unit& u : units)
        if (u.arrival >= from && u.arrival < to) out << u;
    return out;
}

int linearAlaw(uint8_t a)
{
    a ^= 0x55;
    int t = (a & 0x0f) << 4;
    const int segment = (a & 0x70) >> 4;
    t += segment == 0 ? 8 : 0x108;
    if (segment > 1) t <<= segment - 1;
    return a & 0x80 ? t : -t;
}

int linearUlaw(uint8_t u)
{
    u = ~u;
    int t = ((u & 0x0f) << 3) + 0x84;
    t <<= (u & 0x70) >> 4;
    return u & 0x80 ? 0x84 - t : t - 0x84;
}

// G.711 behind a plain 12-byte RTP header: the server sends 20 ms, 160
// samples, per packet, and they are its 440 Hz tone.
void expectG711(const QList<Unit>& audio, bool alaw)
{
    ASSERT_GE(audio.size(), 10);
    QVector<qint64> steps;
    for (int i = 0; i < audio.size(); ++i) {
        ASSERT_EQ(audio[i].bytes.size(), 160) << "frame " << i;
        if (i) steps << audio[i].pts - audio[i - 1].pts;
    }
    std::sort(steps.begin(), steps.end());
    EXPECT_EQ(steps[steps.size() / 2], 20000);

    QVector<int> pcm;
    for (const Unit& u : audio)
        for (char c : u.bytes) pcm << (alaw ? linearAlaw(uint8_t(c)) : linearUlaw(uint8_t(c)));
    int rises = 0;
    for (int i = 1; i < pcm.size(); ++i) rises += pcm[i - 1] < 0 && pcm[i] >= 0;
    const double hz = rises / (pcm.size() / 8000.0);
    EXPECT_NEAR(hz, 440, 15);
}

// ---- TCP -------------------------------------------------------------------------

TEST(RtspTcp, H264AndAacDecodeOnTheHostClockAndTheNodeKeepsTryingAfterTheServerRestarts)
{
    rtsp::Server server(QStringList{"--stream", "/live=h264+aac"} + kWhole);
    ASSERT_TRUE(server.ok());
    rtsp::Rig r({{"path", server.url("/live")}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
    expectAvcAacReady(r.ready());
    ASSERT_TRUE(
        r.waitUntil([&] { return rtsp::pictures(r.sink.units(true), false) >= 50; }, 10000));

    const QList<Unit> video = r.sink.units(true);
    expectStartsWithKeyFrame(video);
    expectDecodes(video, false, 50);
    expectAacDecodes(r.sink.units(false), 40);
    expectOnHostClock(video, r.sink.units(false));

    // The server dies: the session ends at once and every retry is refused,
    // 3 s apart.
    server.kill();
    const qint64 killed = rtsp::hostNow();
    ASSERT_TRUE(r.waitEvent("timeout", 1, 3000));
    EXPECT_LT(r.events("timeout").first().at - killed, 1000000);
    EXPECT_EQ(r.events("timeout").first().value.toString(), server.url("/live"));
    ASSERT_TRUE(r.waitEvent("error", 2, 10000));
    const QList<rtsp::Event> errors = r.events("error");
    EXPECT_NEAR(double(errors[1].at - errors[0].at) / 1e6, 3.0, 0.7);
    EXPECT_EQ(errors[0].value.toString(), server.url("/live"));

    // It comes back on the same port, having lost its sessions. The node
    // carries its old session id into every new attempt, which this server
    // refuses before any step succeeds: the node keeps trying quietly, and
    // never plays again.
    ASSERT_TRUE(server.restart()) << server.output().toStdString();
    r.pump(9000);
    EXPECT_EQ(r.events("ready").size(), 1);
}

// ---- UDP -------------------------------------------------------------------------

TEST(RtspUdp, H264AndAacFlowAndTheSessionIsRebuiltEveryTimeoutPlusThreeSeconds)
{
    rtsp::Server server(QStringList{"--stream", "/live=h264+aac"} + kWhole);
    ASSERT_TRUE(server.ok());
    rtsp::Rig r({{"path", server.url("/live")}, {"protocol", "udp"}, {"timeout", 2}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
    expectAvcAacReady(r.ready());

    // Datagrams don't count as a sign of life: the first tick of the alive
    // timer ends the session although media flowed all along.
    ASSERT_TRUE(r.waitEvent("timeout", 1, 5000));
    const QList<Unit> video = r.sink.units(true);
    const QList<Unit> audio = r.sink.units(false);
    expectDecodes(video, false, 25);
    expectAacDecodes(audio, 20);
    expectOnHostClock(video, audio);

    ASSERT_TRUE(r.waitEvent("timeout", 3, 20000));
    const QList<rtsp::Event> timeouts = r.events("timeout");
    const QList<rtsp::Event> readies = r.events("ready");
    ASSERT_GE(readies.size(), 3);
    for (int i = 1; i < 3; ++i) {
        const double gap = double(timeouts[i].at - timeouts[i - 1].at) / 1e6;
        EXPECT_GE(gap, 4.5) << "timeout " << i;
        EXPECT_LE(gap, 7.0) << "timeout " << i;
        // Each session played before it was torn down.
        EXPECT_GT(readies[i].at, timeouts[i - 1].at);
        EXPECT_GT(arrivedBetween(r.sink.units(true), readies[i].at, timeouts[i].at).size(), 10)
            << "session " << i;
    }
}

// ---- H.265 ---------------------------------------------------------------------

TEST(RtspH265, SizeComesFromTheSdpAndPicturesDecodeFromTheFirstIdr)
{
    rtsp::Server server(QStringList{"--stream", "/hevc=h265"} + kWhole);
    ASSERT_TRUE(server.ok());
    rtsp::Rig r({{"path", server.url("/hevc")}});
    ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
    const QVariantMap v = r.ready().value("infoV").toMap();
    EXPECT_EQ(v.value("codec").toString(), "h265");
    EXPECT_EQ(v.value("width").toInt(), 320);
    EXPECT_EQ(v.value("height").toInt(), 240);
    EXPECT_FALSE(r.ready().value("infoA").toMap().contains("codec")) << "there is no audio";
    ASSERT_TRUE(r.waitUntil([&] { return rtsp::pictures(r.sink.units(true), true) >= 40; }, 10000));

    // Later key frames are CRA without parameter sets: a decoder starts at
    // the first IDR and the parameter sets in front of it.
    const QList<Unit> all = r.sink.units(true);
    int idr = 0;
    while (idr < all.size() && rtsp::nalType(all[idr], true) != 19 &&
           rtsp::nalType(all[idr], true) != 20)
        ++idr;
    ASSERT_LT(idr, all.size()) << "no IDR picture came";
    int from = idr;
    while (from > 0 && rtsp::nalType(all[from - 1], true) >= 32) --from;
    EXPECT_EQ(rtsp::nalType(all[from], true), 32) << "the IDR comes without its VPS";
    expectDecodes(all.mid(from), true, 30);
    expectOnHostClock(all, {});
}

// ---- G.711 ---------------------------------------------------------------------

TEST(RtspG711, PcmaBesideVideoAndPcmuAloneCarryWholeSamples)
{
    rtsp::Server server(QStringList{"--stream", "/alaw=h264+pcma", "--stream", "/ulaw=none+pcmu"} +
                        kWhole);
    ASSERT_TRUE(server.ok());
    {
        rtsp::Rig r({{"path", server.url("/alaw")}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
        const QVariantMap a = r.ready().value("infoA").toMap();
        EXPECT_EQ(a.value("codec").toString(), "pcma");
        EXPECT_EQ(a.value("samplerate").toLongLong(), 8000);
        // Not given in the SDP, so the default: a number.
        EXPECT_EQ(a.value("channels").userType(), int(QMetaType::Int));
        EXPECT_EQ(a.value("channels").toInt(), 1);
        EXPECT_EQ(r.ready().value("infoV").toMap().value("codec").toString(), "h264");
        ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(false) >= 16; }, 10000));
        expectG711(r.sink.units(false), true);
        expectOnHostClock(r.sink.units(true), r.sink.units(false));
    }
    {
        rtsp::Rig r({{"path", server.url("/ulaw")}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
        EXPECT_EQ(r.ready().value("infoA").toMap().value("codec").toString(), "pcmu");
        EXPECT_FALSE(r.ready().value("infoV").toMap().contains("codec")) << "there is no video";
        ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(false) >= 16; }, 10000));
        EXPECT_EQ(r.sink.count(true), 0);
        expectG711(r.sink.units(false), false);
    }
}

// ---- Digest --------------------------------------------------------------------

TEST(RtspDigest, TheRightPasswordPlaysAndAWrongOneNeverGetsReady)
{
    rtsp::Server server(
        QStringList{"--stream", "/live=h264", "--user", "admin", "--password", "s3cret"} + kWhole);
    ASSERT_TRUE(server.ok());
    {
        rtsp::Rig r({{"path", server.url("/live", "admin:s3cret")}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
        EXPECT_EQ(r.ready().value("infoV").toMap().value("codec").toString(), "h264");
        ASSERT_TRUE(
            r.waitUntil([&] { return rtsp::pictures(r.sink.units(true), false) >= 25; }, 10000));
        expectDecodes(r.sink.units(true), false, 25);
    }
    {
        // Each 401 is answered with the same wrong digest at once; the alive
        // timer ends that session, and the next one fares no better.
        rtsp::Rig r({{"path", server.url("/live", "admin:wrong")}, {"timeout", 2}});
        ASSERT_TRUE(r.waitEvent("timeout", 1, 6000));
        r.pump(500);
        EXPECT_TRUE(r.events("ready").isEmpty());
        EXPECT_EQ(r.sink.count(true), 0);
    }
}

// ---- aggregation ---------------------------------------------------------------

// In zero-latency mode the payloaders pack the units in front of a picture
// into one aggregation packet: [AUD, SPS, PPS, SEI] or [AUD, slice]. The
// settled walk of a STAP-A delivers its first unit whole and then start
// codes alone, so the parameter sets never arrive and nothing decodes; an
// H.265 AP passes as one unit, aggregation header and all.
TEST(RtspAggregation, OnlyTheFirstUnitOfAStapAArrivesAndAnApPassesAsOneUnit)
{
    rtsp::Server server(
        {"--stream", "/avc=h264", "--stream", "/hevc=h265", "--aggregate-mode", "zero-latency"});
    ASSERT_TRUE(server.ok());
    {
        rtsp::Rig r({{"path", server.url("/avc")}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000)) << server.output().toStdString();
        ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 60; }, 10000));
        const QList<Unit> video = r.sink.units(true);
        int delimiters = 0, parameterSets = 0, bare = 0;
        QByteArray annexB;
        for (const Unit& u : video) {
            annexB += u.bytes;
            bare += u.bytes == kStartCode;
            const int t = rtsp::nalType(u, false);
            parameterSets += t == 7 || t == 8;
            if (t == 9) {
                ++delimiters;
                EXPECT_EQ(u.bytes.size(), 6) << "a first unit that did not arrive whole";
            }
        }
        EXPECT_GE(delimiters, 10);
        EXPECT_GE(bare, delimiters);
        EXPECT_EQ(parameterSets, 0) << "a unit behind the first of a STAP-A arrived";
        const rtsp::Probe p = rtsp::ffprobe(annexB, "h264");
        EXPECT_EQ(p.frames, 0) << "pictures decoded without parameter sets";
    }
    {
        rtsp::Rig r({{"path", server.url("/hevc")}});
        ASSERT_TRUE(r.waitEvent("ready", 1, 15000));
        ASSERT_TRUE(r.waitUntil([&] { return r.sink.count(true) >= 20; }, 10000));
        int ap = 0;
        for (const Unit& u : r.sink.units(true)) ap += rtsp::nalType(u, true) == 48;
        EXPECT_GE(ap, 1);
    }
}

// ---- veskhost probe ------------------------------------------------------------

struct ProbeRun {
    int code = -1;
    QJsonObject json;
};

ProbeRun probe(const QStringList& args)
{
    QTemporaryFile out;
    EXPECT_TRUE(out.open());
    std::fflush(stdout);
    const int saved = ::dup(1);
    ::dup2(out.handle(), 1);
    ProbeRun run;
    run.code = veskProbe(args);
    std::fflush(stdout);
    ::dup2(saved, 1);
    ::close(saved);
    out.seek(0);
    const QList<QByteArray> lines = out.readAll().trimmed().split('\n');
    run.json = QJsonDocument::fromJson(lines.last()).object();
    return run;
}

TEST(RtspProbe, ReportsTheReadyMapAndWhatFlowedAndFailsWithoutAServer)
{
    rtsp::Server server(QStringList{"--stream", "/live=h264+aac"} + kWhole);
    ASSERT_TRUE(server.ok());
    const ProbeRun good = probe({server.url("/live"), "--seconds", "3", "--json"});
    EXPECT_EQ(good.code, 0);
    EXPECT_EQ(good.json.value("class").toString(), "VeskInputRtsp");
    const QJsonObject ready = good.json.value("ready").toObject();
    EXPECT_EQ(ready.value("infoV").toObject().value("codec").toString(), "h264");
    EXPECT_EQ(ready.value("infoA").toObject().value("codec").toString(), "aac");
    const QJsonObject video = good.json.value("video").toObject();
    const QJsonObject audio = good.json.value("audio").toObject();
    EXPECT_GT(video.value("packets").toInt(), 50);
    EXPECT_GT(video.value("keyPackets").toInt(), 0);
    EXPECT_GT(video.value("bytes").toInt(), video.value("packets").toInt());
    EXPECT_GT(audio.value("packets").toInt(), 50);
    // Pictures, not NAL units: each picture comes as an AUD and a slice.
    EXPECT_NEAR(video.value("framerate").toDouble(), 25, 5);
    const QVariantList events = good.json.value("events").toArray().toVariantList();
    EXPECT_TRUE(events.contains("ready"));
    EXPECT_FALSE(events.contains("error") || events.contains("timeout"));

    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const quint16 port = closed.serverPort();
    closed.close();
    const ProbeRun bad =
        probe({QStringLiteral("rtsp://127.0.0.1:%1/live").arg(port), "--seconds", "1", "--json"});
    EXPECT_NE(bad.code, 0);
    EXPECT_TRUE(bad.json.value("ready").isNull());
    const QVariantList failed = bad.json.value("events").toArray().toVariantList();
    EXPECT_TRUE(failed.contains("error"));
    EXPECT_FALSE(failed.contains("ready"));
}

}  // namespace
