// The reference host as a user runs it: the signal monitor over the built-in
// virtual board, and its handling of broken board and graph files.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

namespace {

struct HostRun {
    int code = -1;
    QList<QJsonObject> lines;
    QString out, err;
};

HostRun veskhost(const QStringList& args, int timeoutMs = 60000)
{
    QProcess p;
    p.start(VESKHOST, args);
    HostRun r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        r.err = "timed out";
        return r;
    }
    r.code = p.exitCode();
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    for (const QString& line : r.out.split('\n', Qt::SkipEmptyParts)) {
        QJsonDocument doc = QJsonDocument::fromJson(line.toUtf8());
        if (doc.isObject()) r.lines << doc.object();
    }
    return r;
}

QString write(QTemporaryDir& dir, const QString& name, const QByteArray& text)
{
    QFile f(dir.filePath(name));
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(text);
    return f.fileName();
}

TEST(SignalMonitor, DefaultScenarioShowsSourceComingChangingAndGoing)
{
    HostRun r = veskhost({"signals", "--sim", "--json", "--seconds", "14"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    QList<QJsonObject> video;
    for (const QJsonObject& o : r.lines)
        if (o["interface"] == "hdmi1" && o["side"] == "video") video << o;
    ASSERT_EQ(video.size(), 4) << r.out.toStdString();

    auto at = [&](int i) { return video[i]["t"].toDouble(); };
    auto info = [&](int i) { return video[i]["info"].toObject(); };
    EXPECT_LT(at(0), 1.0);
    EXPECT_FALSE(info(0)["avalible"].toBool());

    // Each change shows within about a second of the scenario's step.
    EXPECT_GE(at(1), 2.0);
    EXPECT_LT(at(1), 3.5);
    EXPECT_TRUE(info(1)["avalible"].toBool());
    EXPECT_EQ(info(1)["width"].toInt(), 1920);
    EXPECT_EQ(info(1)["height"].toInt(), 1080);
    EXPECT_EQ(info(1)["framerate"].toInt(), 60);
    EXPECT_FALSE(info(1)["interlace"].toBool());

    EXPECT_GE(at(2), 8.0);
    EXPECT_LT(at(2), 9.5);
    EXPECT_EQ(info(2)["width"].toInt(), 1280);
    EXPECT_EQ(info(2)["height"].toInt(), 720);
    EXPECT_EQ(info(2)["framerate"].toInt(), 50);

    EXPECT_GE(at(3), 12.0);
    EXPECT_LT(at(3), 13.5);
    EXPECT_FALSE(info(3)["avalible"].toBool());
    EXPECT_EQ(info(3)["width"].toInt(), 1280);  // the last size stays
}

TEST(SignalMonitor, BrokenBoardEntriesAreReportedAndTheRestRuns)
{
    QTemporaryDir dir;
    QString boardFile = write(dir, "board.json", R"({
        "interfaceV": { "hdmi1": { "chip": "7611" }, "bad": 42, "nochip": { "mode": "BT1120" } },
        "interfaceA": "not a map"
    })");
    HostRun r = veskhost({"signals", "--board", boardFile, "--sim", "--json", "--seconds", "3"});
    ASSERT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("bad")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("interfaceA")) << r.err.toStdString();
    QSet<QString> seen;
    for (const QJsonObject& o : r.lines) seen << o["interface"].toString();
    EXPECT_TRUE(seen.contains("hdmi1"));
    EXPECT_TRUE(seen.contains("nochip"));
    EXPECT_FALSE(seen.contains("bad"));
}

TEST(SignalMonitor, UnreadableBoardFileFails)
{
    QTemporaryDir dir;
    HostRun r = veskhost({"signals", "--board", write(dir, "b.json", "{ nope"), "--seconds", "1"});
    EXPECT_NE(r.code, 0);
    EXPECT_FALSE(r.err.isEmpty());
    r = veskhost({"signals", "--board", dir.filePath("missing.json"), "--seconds", "1"});
    EXPECT_NE(r.code, 0);
}

TEST(Graph, UnknownClassesAndDanglingLinksAreReportedAndTheRestRuns)
{
    QTemporaryDir dir;
    QString graph = write(dir, "g.json", R"({
        "nodes": [ { "name": "x", "class": "VeskNoSuchThing", "data": {} } ],
        "links": [ { "from": "x", "to": "ghost", "kinds": ["V"] } ]
    })");
    HostRun r = veskhost({"run", graph, "--sim", "--json", "--seconds", "1"});
    EXPECT_EQ(r.code, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("VeskNoSuchThing")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("ghost")) << r.err.toStdString();
}

TEST(Classes, ListsOnlyWhatTheLibraryRegistered)
{
    HostRun r = veskhost({"classes"});
    EXPECT_EQ(r.code, 0) << r.err.toStdString();
    for (const QString& c : r.out.split('\n', Qt::SkipEmptyParts))
        EXPECT_TRUE(c.startsWith("Vesk")) << c.toStdString();
}

}  // namespace
