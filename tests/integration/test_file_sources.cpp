// VeskInputFile on media made by ffmpeg: real-time playout, a seek back
// without a jump in time, pause, the end of a file and its replay, every
// container turned into decodable Annex B, broken files; and the example
// graph through veskhost.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "netfile_rig.h"

namespace {

using rig::Unit;

const QByteArray kStart("\0\0\0\1", 4);

bool rising(const QList<Unit>& units)
{
    for (int i = 1; i < units.size(); ++i)
        if (units[i].pts <= units[i - 1].pts) return false;
    return true;
}

TEST(FilePlayout, RealTimeSeekBackwardsWithoutAJumpAndPause)
{
    rig::Rig r;
    r.add("VeskInputFile", {{"path", rig::media("av8.mp4")}});
    ASSERT_TRUE(r.waitEvent("infoV", 1, 5000));
    ASSERT_TRUE(r.waitEvent("infoA", 1, 5000));
    r.pump(2500);
    // A packet leaves when the host clock reaches the file time of the one
    // before it: within a frame of its own time.
    const QList<Unit> played = r.sink.units(true);
    ASSERT_GE(played.size(), 50);
    EXPECT_LE(played.size(), 70);
    EXPECT_EQ(played.first().frameType, 0);
    for (const Unit& u : played) {
        ASSERT_GT(u.pts - u.arrival, -250000);  // a busy machine may hold the timer back
        ASSERT_LT(u.pts - u.arrival, 150000);
    }
    const qint64 before = r.invoke("getPosition").toLongLong();
    EXPECT_NEAR(double(before), 2400, 400);

    // Back to 0.5 s: the position goes back, the time runs on.
    EXPECT_TRUE(r.invoke("seek", 500).toBool());
    r.pump(1500);
    const QList<Unit> all = r.sink.units(true);
    ASSERT_GT(all.size(), played.size() + 20);
    EXPECT_TRUE(rising(all));
    for (int i = 1; i < all.size(); ++i) ASSERT_LT(all[i].pts - all[i - 1].pts, 1100000);
    EXPECT_LT(r.invoke("getPosition").toLongLong(), before);
    EXPECT_TRUE(rising(r.sink.units(false)));

    EXPECT_TRUE(r.invoke("pause", true).toBool());
    r.pump(200);
    const int held = r.sink.count(true);
    r.pump(1000);
    EXPECT_EQ(r.sink.count(true), held);
    EXPECT_TRUE(r.invoke("pause", false).toBool());
    r.pump(500);
    EXPECT_GT(r.sink.count(true), held);
    EXPECT_TRUE(rising(r.sink.units(true)));
}

TEST(FilePlayout, EndOfFileClearsThePathAndTheSamePathPlaysAgain)
{
    const QString path = rig::media("av2.mkv");
    rig::Rig r;
    r.add("VeskInputFile", {{"path", path}, {"sync", false}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 15000));
    EXPECT_EQ(r.events("EOF").first().value.toInt(), 0);
    EXPECT_EQ(r.data().value("path").toString(), "");
    const int first = r.sink.count(true);
    EXPECT_EQ(first, 50);
    EXPECT_GE(r.sink.count(false), 90);
    // The context stays open after the end: the position still answers.
    EXPECT_NEAR(double(r.invoke("getPosition").toLongLong()), 1960, 60);

    r.setData({{"path", path}});
    ASSERT_TRUE(r.waitEvent("EOF", 2, 15000));
    EXPECT_EQ(r.sink.count(true), 2 * first);
    EXPECT_EQ(r.events("infoV").size(), 2);
    // A new path starts a new time line on the host clock.
    const QList<Unit> again = r.sink.units(true).mid(first);
    EXPECT_LT(qAbs(again.first().pts - again.first().arrival), 300000);
    EXPECT_TRUE(rising(again));
}

TEST(FilePlayout, DurationOfAnyFileWithoutDisturbingPlayback)
{
    rig::Rig r;
    r.add("VeskInputFile", {{"path", rig::media("av8.mp4")}});
    r.pump(300);
    const int before = r.sink.count(true);
    EXPECT_NEAR(double(r.invoke("getDuration", rig::media("av8.mp4")).toLongLong()), 8000, 100);
    EXPECT_NEAR(double(r.invoke("getDuration", rig::media("hevc2.ts")).toLongLong()), 2000, 200);
    EXPECT_NEAR(double(r.invoke("getDuration", rig::media("tone.mp3")).toLongLong()), 3000, 200);
    EXPECT_EQ(r.invoke("getDuration", rig::media("no-such-file.mp4")).toLongLong(), 0);
    r.pump(500);
    EXPECT_GT(r.sink.count(true), before);
    EXPECT_TRUE(rising(r.sink.units(true)));
}

struct Container {
    const char* file;
    const char* codec;
    int type;
};

void PrintTo(const Container& c, std::ostream* os)
{
    *os << c.file;
}

class FileContainers : public ::testing::TestWithParam<Container> {};

TEST_P(FileContainers, VideoComesOutAsAnnexBThatDecodesFrameForFrame)
{
    const Container c = GetParam();
    rig::Rig r;
    r.add("VeskInputFile", {{"path", rig::media(c.file)}, {"sync", false}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 20000));
    ASSERT_EQ(r.events("infoV").size(), 1);
    const QVariantMap info = r.events("infoV").first().value.toMap();
    EXPECT_EQ(info.value("type").toInt(), c.type);
    const QVariantMap params = info.value("params").toMap();
    EXPECT_EQ(params.value("framerate").toInt(), 25);

    const QList<Unit> video = r.sink.units(true);
    ASSERT_EQ(video.size(), 50);
    EXPECT_EQ(video.first().frameType, 0);
    for (const Unit& u : video) ASSERT_TRUE(u.bytes.startsWith(kStart));
    QByteArray stream = r.sink.videoBytes();
    // In MKV the H.265 parameter sets live only in the configuration record
    // that the announcement carries; a decoder gets them from there.
    if (QByteArray(c.file) == "hevc2.mkv")
        stream.prepend(rig::hvccToAnnexB(params.value("extradata").toByteArray()));
    const rig::Probe p = rig::ffprobe(stream, c.codec);
    ASSERT_TRUE(p.ok) << p.errors.toStdString();
    EXPECT_EQ(p.codec, c.codec);
    EXPECT_EQ(p.width, 320);
    EXPECT_EQ(p.height, 240);
    EXPECT_EQ(p.frames, 50) << p.errors.toStdString();
}

INSTANTIATE_TEST_SUITE_P(, FileContainers,
                         ::testing::Values(Container{"high2.mp4", "h264", 4},
                                           Container{"av2.mkv", "h264", 4},
                                           Container{"hevc2.mkv", "hevc", 5},
                                           Container{"hevc2.ts", "hevc", 5}),
                         [](const ::testing::TestParamInfo<Container>& i) {
                             return QString(i.param.file).replace('.', '_').toStdString();
                         });

TEST(FileMp3, CoverArtIsNoPictureAndTheAudioPacesThePlayout)
{
    rig::Rig r;
    const qint64 start = rig::hostNow();
    r.add("VeskInputFile", {{"path", rig::media("tone.mp3")}});
    ASSERT_TRUE(r.waitEvent("infoA", 1, 5000));
    EXPECT_EQ(r.events("infoA").first().value.toMap().value("type").toInt(), 15);
    r.pump(500);
    EXPECT_TRUE(r.invoke("seek", 100).toBool()) << "no video to seek by: nothing happens";
    ASSERT_TRUE(r.waitEvent("EOF", 1, 10000));
    EXPECT_GE(r.events("EOF").first().at - start, 2700000);
    EXPECT_TRUE(r.events("infoV").isEmpty());
    EXPECT_EQ(r.sink.count(true), 0);
    const QList<Unit> audio = r.sink.units(false);
    ASSERT_GT(audio.size(), 100);
    EXPECT_TRUE(rising(audio));
    for (const Unit& u : audio) ASSERT_LT(qAbs(u.pts - u.arrival), 250000);
}

TEST(FileBroken, MissingUnplayableTruncatedAndTrashedFiles)
{
    rig::Rig r;
    r.add("VeskInputFile", {{"sync", false}});
    EXPECT_FALSE(r.invoke("seek", 0).toBool()) << "no file, nothing to seek";
    r.setData({{"path", rig::media("missing.mp4")}});
    r.setData({{"path", rig::media("subs.srt")}});
    r.pump(300);
    EXPECT_TRUE(r.events("infoV").isEmpty() && r.events("infoA").isEmpty());
    EXPECT_TRUE(r.events("EOF").isEmpty());

    // Cut in the middle of its media: what is there plays, then the end.
    r.setData({{"path", rig::media("truncated.mp4")}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 15000));
    const int played = r.sink.count(true);
    EXPECT_GT(played, 20);
    EXPECT_LT(played, 200);

    // Trashed bytes all over: units with broken lengths are dropped, the
    // rest leaves start-coded, and the file still ends.
    r.setData({{"path", rig::media("bad.flv")}});
    ASSERT_TRUE(r.waitEvent("EOF", 2, 15000));
    EXPECT_GT(r.sink.count(true), played);
    for (const Unit& u : r.sink.units(true)) ASSERT_TRUE(u.bytes.startsWith(kStart));
}

TEST(FileGraph, TheExampleGraphPlaysAFileThroughVeskhost)
{
    QFile example(QStringLiteral(VESK_SOURCE_DIR "/examples/graphs/file.json"));
    ASSERT_TRUE(example.open(QIODevice::ReadOnly));
    QJsonObject graph = QJsonDocument::fromJson(example.readAll()).object();
    QJsonArray nodes = graph["nodes"].toArray();
    QJsonObject node = nodes[0].toObject();
    EXPECT_EQ(node["class"].toString(), "VeskInputFile");
    QJsonObject data = node["data"].toObject();
    data["path"] = rig::media("av2.mkv");  // the demo's file, made here
    node["data"] = data;
    nodes[0] = node;
    graph["nodes"] = nodes;
    QTemporaryDir dir;
    QFile copy(dir.filePath("file.json"));
    ASSERT_TRUE(copy.open(QIODevice::WriteOnly));
    copy.write(QJsonDocument(graph).toJson());
    copy.close();

    QProcess p;
    p.start(QStringLiteral(VESKHOST), {"run", copy.fileName(), "--json", "--seconds", "4"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 0);
    QStringList events;
    for (const QByteArray& line : p.readAllStandardOutput().split('\n'))
        events << QJsonDocument::fromJson(line).object().value("event").toString();
    for (const char* e : {"infoV", "infoA", "EOF"})
        EXPECT_TRUE(events.contains(e)) << e << " in " << events.join(' ').toStdString();
}

}  // namespace
