// VeskInputFile on media made by ffmpeg: real-time playout, a seek back
// without a jump in time, pause, durations, the end of a file and its
// replay, every container turned into decodable Annex B, broken files; and
// the example graph through veskhost.
#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "netfile_rig.h"
#include "tests/support/BuiltProgram.h"

namespace {

using rig::Unit;

TEST(FilePlayout, RealTimeDurationsSeekBackwardsWithoutAJumpAndPause)
{
    rig::Rig r;
    r.add("VeskInputFile", {{"path", rig::media("av8.mp4")}});
    ASSERT_TRUE(r.waitEvent("infoA", 1, 5000));
    r.pump(2500);
    // A packet leaves when the host clock reaches the file time of the one
    // before it: within a frame of its own time.
    // (a busy machine may hold the timer back).
    const QList<Unit> played = r.sink.units(true);
    EXPECT_NEAR(played.size(), 60, 10);
    EXPECT_EQ(played[0].frameType, 0);
    for (const Unit& u : played) ASSERT_NEAR(u.ahead(), -50000, 200000);
    const qint64 before = r.invoke("getPosition").toLongLong();
    EXPECT_NEAR(before, 2400, 400);

    // Any file's duration, while this one plays on.
    for (auto [file, ms] :
         {std::pair{"av8.mp4", 8000}, {"hevc2.ts", 2000}, {"tone.mp3", 3000}, {"none.mp4", 0}})
        EXPECT_NEAR(r.invoke("getDuration", rig::media(file)).toLongLong(), ms, 200) << file;

    // Back to 0.5 s: the position goes back, the time runs on.
    EXPECT_TRUE(r.invoke("seek", 500).toBool());
    r.pump(1500);
    const QList<Unit> all = r.sink.units(true);
    ASSERT_GT(all.size(), played.size() + 20);
    EXPECT_TRUE(rig::rising(all) && rig::rising(r.sink.units(false)));
    for (int i = 1; i < all.size(); ++i) ASSERT_LT(all[i].pts - all[i - 1].pts, 1100000);
    EXPECT_LT(r.invoke("getPosition").toLongLong(), before);

    EXPECT_TRUE(r.invoke("pause", true).toBool());
    r.pump(200);
    const int held = r.sink.count(true);
    r.pump(1000);
    EXPECT_EQ(r.sink.count(true), held);
    EXPECT_TRUE(r.invoke("pause", false).toBool());
    EXPECT_TRUE(r.waitUntil([&] { return r.sink.count(true) > held; }, 1000));
    EXPECT_TRUE(rig::rising(r.sink.units(true)));
}

struct Container {
    const char* file;
    const char* codec;
    int type;
};

class FileContainers : public ::testing::TestWithParam<Container> {};

TEST_P(FileContainers, PlayToTheEndAsCleanAnnexBAndPlayAgainOnTheSamePath)
{
    const Container c = GetParam();
    rig::Rig r;
    r.add("VeskInputFile", {{"path", rig::media(c.file)}, {"sync", false}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 20000));
    EXPECT_EQ(r.events("EOF")[0].value, 0);
    const QVariantMap info = r.events("infoV")[0].value.toMap();
    EXPECT_EQ(info.value("type"), c.type);
    EXPECT_EQ(rig::pick(info["params"].toMap(), {"width", "height", "framerate"}), "320 240 25");
    ASSERT_EQ(r.sink.count(true), 50);
    rig::expectClean(r.sink.units(true), c.codec, 50);

    // The end empties "path", so the same path is news and plays again, on
    // a new time line from the host clock on.
    r.setData({{"path", rig::media(c.file)}});
    ASSERT_TRUE(r.waitEvent("EOF", 2, 20000));
    const QList<Unit> again = r.sink.units(true, 2);
    ASSERT_EQ(again.size(), 50);
    EXPECT_LT(qAbs(again[0].ahead()), 300000);
}

INSTANTIATE_TEST_SUITE_P(
    , FileContainers,
    ::testing::Values(Container{"high2.mp4", "h264", 4}, Container{"av2.mkv", "h264", 4},
                      Container{"sps.mkv", "h264", 4}, Container{"hevc2.mkv", "hevc", 5}),
    [](const auto& i) { return QString(i.param.file).replace('.', '_').toStdString(); });

TEST(FileMp3, CoverArtIsNoPictureAndTheAudioPacesThePlayout)
{
    rig::Rig r;
    const qint64 start = rig::hostNow();
    r.add("VeskInputFile", {{"path", rig::media("tone.mp3")}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 10000));
    EXPECT_GE(r.events("EOF")[0].at - start, 2700000);
    EXPECT_EQ(r.events("infoA")[0].value.toMap().value("type"), 15);
    EXPECT_TRUE(r.events("infoV").isEmpty() && r.sink.count(true) == 0);
    const QList<Unit> audio = r.sink.units(false);
    EXPECT_TRUE(audio.size() > 100 && rig::rising(audio));
    for (const Unit& u : audio) ASSERT_LT(qAbs(u.ahead()), 250000);
}

TEST(FileBroken, MissingUnplayableTruncatedAndTrashedFiles)
{
    rig::Rig r;
    r.add("VeskInputFile", {{"sync", false}});
    EXPECT_FALSE(r.invoke("seek", 0).toBool()) << "no file, nothing to seek";
    r.setData({{"path", rig::media("missing.mp4")}});
    r.setData({{"path", rig::media("subs.srt")}});
    r.pump(50);
    EXPECT_TRUE(r.events().isEmpty());

    // Cut in the middle of its media: what is there plays, then the end.
    r.setData({{"path", rig::media("truncated.mp4")}});
    ASSERT_TRUE(r.waitEvent("EOF", 1, 15000));
    const int played = r.sink.count(true);
    EXPECT_NEAR(played, 110, 90);

    // Trashed bytes all over: units with broken lengths are dropped, the
    // rest plays, and the file still ends.
    r.setData({{"path", rig::media("bad.flv")}});
    ASSERT_TRUE(r.waitEvent("EOF", 2, 15000));
    EXPECT_GT(r.sink.count(true), played);

    // The TS demuxer hands out most H.265 pictures behind a three-byte start
    // code: walked as lengths, they break and go. Two of 50 open 0,0,0,1.
    r.setData({{"path", rig::media("hevc2.ts")}});
    ASSERT_TRUE(r.waitEvent("EOF", 3, 15000));
    ASSERT_EQ(r.sink.units(true, 3).size(), 2);
    EXPECT_EQ(r.sink.units(true, 3)[0].frameType, 0);
}

TEST(FileGraph, TheExampleGraphPlaysAFileThroughVeskhost)
{
    QFile example(VESK_SOURCE_DIR "/examples/graphs/file.json");
    QTemporaryDir dir;
    QFile copy(dir.filePath("file.json"));
    ASSERT_TRUE(example.open(QIODevice::ReadOnly) && copy.open(QIODevice::WriteOnly));
    // The demo's file, made here.
    copy.write(example.readAll().replace("/tmp/vesk-demo.mp4", rig::media("av2.mkv").toUtf8()));
    copy.flush();
    QProcess p;
    vesktest::startBuilt(p, VESKHOST, {"run", copy.fileName(), "--json", "--seconds", "3"});
    ASSERT_TRUE(p.waitForFinished(30000));
    EXPECT_EQ(p.exitCode(), 0);
    const QByteArray out = p.readAllStandardOutput();
    for (const char* e : {"infoV", "infoA", "EOF"})
        EXPECT_TRUE(out.contains(QByteArray("\"event\":\"") + e + '"'))
            << e << " in " << out.data();
}

}  // namespace
