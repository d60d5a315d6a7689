// The reference host as a user runs it: the signal monitor over the built-in
// virtual board, and its handling of broken board and graph files.
#include <gtest/gtest.h>

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QElapsedTimer>

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/BuiltProgram.h"

namespace {

// Exit status, stderr, and stdout as JSON objects, one a line.
int veskhost(const QStringList& args, QString* err, QList<QJsonObject>* lines)
{
    QProcess p;
    vesktest::startBuilt(p, VESKHOST, args);
    if (!p.waitForFinished(60000)) p.kill();
    *err = p.readAllStandardError();
    for (const QByteArray& line : p.readAllStandardOutput().split('\n'))
        *lines << QJsonDocument::fromJson(line).object();
    return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
}

TEST(SignalMonitor, DefaultScenarioShowsSourceComingChangingAndGoing)
{
    QString err;
    QList<QJsonObject> lines, seen;
    // The last step, "hdmi3" pulled out at 13 s, needs the chip's own time to
    // notice plus up to a poll period to show, wherever the polls fall.
    ASSERT_EQ(veskhost({"signals", "--sim", "--json", "--seconds", "15"}, &err, &lines), 0);
    // What the monitor printed, for a failure to be read without a rerun.
    QString printed;
    for (const QJsonObject& o : lines)
        if (o.contains("info")) printed += QJsonDocument(o).toJson(QJsonDocument::Compact) + '\n';
    SCOPED_TRACE(printed.toStdString());
    for (const QJsonObject& o : lines)
        if (o["interface"] == "hdmi1" && o["side"] == "video") seen << o;
    ASSERT_EQ(seen.size(), 4) << err.toStdString();
    // Each change shows within about a second and a half of the scenario's
    // step: none, 1080p60 at 2 s, 720p50 at 8 s, gone at 12 s with the last
    // size kept.
    const int steps[][5] = {
        {0, 0, 0, 0, 0}, {2, 1, 1920, 1080, 60}, {8, 1, 1280, 720, 50}, {12, 0, 1280, 720, 50}};
    for (int i = 0; i < 4; ++i) {
        const QJsonObject info = seen[i]["info"].toObject();
        EXPECT_NEAR(seen[i]["t"].toDouble(), steps[i][0] + 0.75, 0.75) << i;
        EXPECT_EQ(info["avalible"].toBool(), steps[i][1]) << i;
        EXPECT_TRUE(!i || info["width"].toInt() == steps[i][2]) << i;
        EXPECT_TRUE(!i || info["height"].toInt() == steps[i][3]) << i;
        EXPECT_TRUE(i % 3 == 0 || info["framerate"].toInt() == steps[i][4]) << i;
        EXPECT_FALSE(info["interlace"].toBool());
    }

    // The input behind its own state machine: locked, unmoved by a brief sync
    // drop, a new audio rate, a new format, pulled out; its audio side
    // follows the rate.
    QList<QJsonObject> hdmi3;
    QStringList stages;
    for (const QJsonObject& o : lines) {
        if (o["interface"] != "hdmi3" || o["side"] != "video") continue;
        if (o.contains("info")) hdmi3 << o["info"].toObject();
        const QString stage = o["driver"].toObject()["video"].toString();
        if (!stage.isEmpty() && (stages.isEmpty() || stages.last() != stage)) stages << stage;
    }
    const int hdmi3Steps[][5] = {{0, 0, 0, 0, 0},
                                 {1, 1920, 1080, 60, 48000},
                                 {1, 1920, 1080, 60, 44100},
                                 {1, 1280, 720, 50, 44100},
                                 {0, 1280, 720, 50, 0}};
    ASSERT_EQ(hdmi3.size(), 5) << err.toStdString();
    for (int i = 0; i < 5; ++i) {
        const int* e = hdmi3Steps[i];
        EXPECT_EQ(hdmi3[i]["avalible"].toBool(), e[0] != 0) << i;
        EXPECT_TRUE(
            !i || (hdmi3[i]["width"].toInt() == e[1] && hdmi3[i]["height"].toInt() == e[2] &&
                   hdmi3[i]["framerate"].toInt() == e[3] && hdmi3[i]["samplerate"].toInt() == e[4]))
            << i;
    }
    EXPECT_TRUE(stages.contains("VSTATE_VideoOn") && stages.last() == "VSTATE_SWReset")
        << stages.join(' ').toStdString();

    // The MS7200 behind the same chip word: 1080p60, then 720p50 with a new
    // audio rate, then nothing.
    QList<QJsonObject> hdmi4;
    for (const QJsonObject& o : lines)
        if (o["interface"] == "hdmi4" && o["side"] == "audio" && o.contains("info"))
            hdmi4 << o["info"].toObject();
    // A new format makes the MS7200 rebuild its video path, three 100 ms
    // passes without lock, which a once-a-second poll may or may not land in.
    for (int i = hdmi4.size() - 2; i > 0; --i)
        if (!hdmi4[i]["avalible"].toBool() && hdmi4[i - 1]["avalible"].toBool() &&
            hdmi4[i + 1]["avalible"].toBool())
            hdmi4.removeAt(i);
    ASSERT_EQ(hdmi4.size(), 4) << err.toStdString();
    EXPECT_EQ(hdmi4[1]["width"].toInt() * hdmi4[1]["avalible"].toBool(), 1920);
    EXPECT_EQ(hdmi4[2]["width"].toInt() * hdmi4[2]["avalible"].toBool(), 1280);
    EXPECT_EQ(hdmi4[2]["samplerate"].toInt(), 44100);
    EXPECT_FALSE(hdmi4[3]["avalible"].toBool());
}

// The main job: the line input's tone goes through the board output into a
// WAV file, continuous, and comes back after the input's silent second.
TEST(Demo, DisplayGraphRunsAndItsLineInputIsPlayedWithoutAGap)
{
    QTemporaryDir dir;
    const QString wav = dir.filePath("out.wav");
    QString err;
    QList<QJsonObject> lines;
    const QString shot = dir.filePath("tv.png");
    ASSERT_EQ(veskhost({"run", VESK_SOURCE_DIR "/examples/graphs/display.json", "--sim", "--json",
                        "--seconds", "13.5", "--wav", "1=" + wav, "--snapshot", "2:" + shot},
                       &err, &lines),
              0)
        << err.toStdString();
    // What the screens show is judged in the display tests; here the picture
    // of the television is taken at the end of the run, at its size.
    EXPECT_EQ(QImage(shot).size(), QSize(720, 576));
    QFile f(wav);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray bytes = f.readAll().mid(44);  // 16-bit stereo at 48 kHz
    const auto* s = reinterpret_cast<const int16_t*>(bytes.constData());
    const int frames = bytes.size() / 4, rate = 48000;
    // Playback starts once the graph runs, so the file's seconds lag the
    // scenario's by as long as start-up took.
    ASSERT_GT(frames, 12 * rate);
    // Over samples [from, to) of a side: the tone's frequency by zero
    // crossings, and the longest run of zeros (a dropout is a run of them).
    auto span = [&](int from, int to, int side, int* longestZeros) {
        int crossings = 0, run = 0;
        *longestZeros = 0;
        for (int i = from + 1; i < to; ++i) {
            const int16_t v = s[2 * i + side], prev = s[2 * (i - 1) + side];
            crossings += (v < 0) != (prev < 0);
            run = v == 0 ? run + 1 : 0;
            *longestZeros = qMax(*longestZeros, run);
        }
        return crossings / 2 * rate / (to - from);
    };
    // Well before the input's silent second, and after it.
    for (int t : {1, 4, 7, frames / rate - 1}) {
        int zerosL = 0, zerosR = 0;
        EXPECT_NEAR(span(t * rate, (t + 1) * rate, 0, &zerosL), 440, 2) << t;
        EXPECT_NEAR(span(t * rate, (t + 1) * rate, 1, &zerosR), 660, 2) << t;
        // A lost packet is 1024 zeros; a late wake-up of this loaded
        // machine may cost the real-time device a few milliseconds.
        EXPECT_LT(qMax(zerosL, zerosR), 512) << t;
    }
    int zeros = 0;
    span(8 * rate, frames, 0, &zeros);
    EXPECT_GT(zeros, rate / 2) << "the input's silent second is filled with silence";
}

// Embedded HDMI audio follows its receiver: announced at 48 kHz, announced
// again at 44.1 kHz after the source changes rate at 7 s, and played.
TEST(Demo, HdmiAudioFollowsTheReceiversSampleRate)
{
    QTemporaryDir dir;
    const QString wav = dir.filePath("hdmi.wav");
    QString err;
    QList<QJsonObject> lines;
    ASSERT_EQ(veskhost({"run", VESK_SOURCE_DIR "/examples/graphs/hdmi-audio.json", "--sim",
                        "--json", "--seconds", "10.5", "--wav", "0=" + wav},
                       &err, &lines),
              0)
        << err.toStdString();
    QList<QPair<double, int>> rates;
    for (const QJsonObject& o : lines)
        if (o["node"] == "hdmi3audio" && o["event"] == "infoA")
            rates << qMakePair(o["t"].toDouble(),
                               o["value"].toObject()["params"].toObject()["samplerate"].toInt());
    ASSERT_EQ(rates.size(), 2) << err.toStdString();
    EXPECT_EQ(rates[0].second, 48000);
    EXPECT_EQ(rates[1].second, 44100);
    // The chip's audio handler to notice, one poll of the video side to see
    // it, one of the audio side to follow.
    EXPECT_NEAR(rates[1].first, 7 + 1.5, 1.5);
    QFile f(wav);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    const QByteArray bytes = f.readAll().mid(44);
    const auto* s = reinterpret_cast<const int16_t*>(bytes.constData());
    const int rate = 48000, from = 4 * rate;
    ASSERT_GT(bytes.size() / 4, from + rate);
    int crossings = 0;
    for (int i = from + 1; i < from + rate; ++i) crossings += (s[2 * i] < 0) != (s[2 * i - 2] < 0);
    // Played at a wrong rate, 44.1 against 48 kHz, the tone would be 81
    // cycles off; a busy machine may cost the simulated output's real-time
    // clock a few milliseconds of the second.
    EXPECT_NEAR(crossings / 2, 1000, 20) << "the receiver's tone, while at its first rate";
}

struct BadInput {
    const char* name;
    const char* text;   // written to in.json; null: no file at all
    bool graph;         // a graph to run, or a board description to monitor
    bool runs;          // the rest still runs, with exit status 0
    QStringList said;   // what stderr must name
    QStringList shown;  // interfaces the monitor shows
};

class HostInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(HostInput, BrokenEntriesAreReportedAndTheRestRunsABrokenFileFails)
{
    const BadInput c = GetParam();
    QTemporaryDir dir;
    QFile f(dir.filePath("in.json"));
    ASSERT_TRUE(!c.text || (f.open(QIODevice::WriteOnly) && f.write(c.text) > 0 && f.flush()));
    const QStringList args = c.graph ? QStringList{"run", f.fileName()}
                                     : QStringList{"signals", "--board", f.fileName()};
    QString err;
    QList<QJsonObject> lines;
    EXPECT_EQ(veskhost(args + QStringList{"--sim", "--json", "--seconds", "2"}, &err, &lines) == 0,
              c.runs);
    EXPECT_FALSE(err.isEmpty());
    for (const QString& s : c.said) EXPECT_TRUE(err.contains(s)) << err.toStdString();
    QStringList shown;
    for (const QJsonObject& o : lines)
        if (o.contains("interface") && !shown.contains(o["interface"].toString()))
            shown << o["interface"].toString();
    shown.sort();
    EXPECT_EQ(shown, c.shown);
}

const char* const kBoard =
    R"({"interfaceV": {"hdmi1": {"chip": "7611"}, "bad": 42, "nochip": {"mode": "BT1120"}},)"
    R"( "interfaceA": "not a map"})";
const char* const kGraph = R"({"nodes": [{"name": "x", "class": "VeskNoSuchThing", "data": {}}],)"
                           R"( "links": [{"from": "x", "to": "ghost", "kinds": ["V"]}]})";

INSTANTIATE_TEST_SUITE_P(
    , HostInput,
    ::testing::Values(
        BadInput{"Board", kBoard, false, true, {"bad", "interfaceA"}, {"hdmi1", "nochip"}},
        BadInput{"UnreadableBoard", "{ nope", false, false, {}, {}},
        BadInput{"MissingBoard", nullptr, false, false, {}, {}},
        BadInput{"Graph", kGraph, true, true, {"VeskNoSuchThing", "ghost"}, {}}),
    [](const auto& i) { return std::string(i.param.name); });

// USB devices pulled out and put back under the host: the camera says so and
// comes back, the microphone is found again under its new card number, and
// the probe shows the camera as the node sees it.
TEST(UsbDevices, ComeBackAfterUnplugAndTheCameraProbeShowsFormatsAndControls)
{
    QString err;
    QList<QJsonObject> lines;
    ASSERT_EQ(
        veskhost({"run", VESK_SOURCE_DIR "/examples/graphs/usb.json", "--sim",
                  VESK_SOURCE_DIR "/examples/scenarios/usb.json", "--json", "--seconds", "15"},
                 &err, &lines),
        0)
        << err.toStdString();
    QStringList camera;
    int micAnnouncements = 0;
    for (const QJsonObject& o : lines) {
        if (o["node"] == "camera" && o["event"] == "CameraOpen")
            camera << (o["value"].toBool() ? "open" : "gone");
        micAnnouncements += o["node"] == "mic" && o["event"] == "infoA";
    }
    EXPECT_EQ(camera, QStringList({"open", "gone", "open"}));
    EXPECT_EQ(micAnnouncements, 2);
    EXPECT_TRUE(err.contains("[mic] ALSA open done hw:2")) << err.toStdString();

    lines.clear();
    // Long enough for the camera to open and stream in a sanitizer build on a
    // busy machine; the probe's figures are not judged here.
    ASSERT_EQ(veskhost({"probe", "/dev/video0", "--sim", "--json", "--seconds", "5"}, &err, &lines),
              0)
        << err.toStdString();
    const QJsonObject ready = lines.first()["ready"].toObject();
    EXPECT_EQ(ready["formats"].toArray().size(), 3);
    EXPECT_EQ(ready["ptz"].toArray().size(), 3);
    EXPECT_TRUE(ready["insta360"].toObject().contains("tracking"));
    EXPECT_EQ(ready["stream"].toObject()["width"].toInt(), 1280);
}

}  // namespace

// The event names a node class passes to sendEvent/newEvent in its source.
QStringList eventsInSource(const QString& className)
{
    QString text;
    for (const char* dir : {"input", "output", "device"}) {
        QFile f(QStringLiteral(VESK_SOURCE_DIR "/%1/%2.cpp").arg(dir, className));
        if (f.open(QIODevice::ReadOnly)) text = f.readAll();
    }
    QStringList names;
    static const QRegularExpression call(QStringLiteral("\\b(sendEvent|newEvent)\\s*\\("));
    for (auto it = call.globalMatch(text); it.hasNext();) {
        // The literals of the first argument, up to its comma.
        int depth = 0;
        for (int i = it.next().capturedEnd(); i < text.size() && depth >= 0; ++i) {
            const QChar c = text[i];
            if (c == '(') ++depth;
            if (c == ')') --depth;
            if (c == ',' && depth == 0) break;
            if (c != '"') continue;
            const int end = text.indexOf('"', i + 1);
            if (!names.contains(text.mid(i + 1, end - i - 1)))
                names << text.mid(i + 1, end - i - 1);
            i = end;
        }
    }
    names.sort();
    return names;
}

TEST(Inspect, TellsDataDefaultsMethodsAndEventsTrueToTheSource)
{
    QProcess p;
    vesktest::startBuilt(p, VESKHOST, {"inspect", "VeskInputRtsp"});
    ASSERT_TRUE(p.waitForFinished(60000));
    const QString text = p.readAllStandardOutput();
    const char* const rows[][3] = {{"agent", "QString", "\"VeskSDK\""},
                                   {"protocol", "QString", "\"tcp\""},
                                   {"path", "QString", "\"\""},
                                   {"timeout", "int", "10"},
                                   {"timestampMode", "QString", "\"auto\""}};
    for (const auto& r : rows)
        EXPECT_TRUE(text.contains(QRegularExpression(
            QStringLiteral("\n +%1 +%2 +%3\n").arg(r[0], r[1], QRegularExpression::escape(r[2])))))
            << r[0] << "\n"
            << text.toStdString();
    EXPECT_TRUE(text.contains("events:\n    ready error timeout\n")) << text.toStdString();
    EXPECT_TRUE(text.contains("shareDepth  3\n"));

    QString err;
    QList<QJsonObject> lines;
    ASSERT_EQ(veskhost({"inspect", "--json"}, &err, &lines), 0) << err.toStdString();
    const QJsonObject all = lines.value(0);
    ASSERT_EQ(all.size(), 13) << err.toStdString();
    const QJsonObject rtsp = all["VeskInputRtsp"].toObject();
    for (const auto& r : rows) {
        const QJsonObject key = rtsp["data"][r[0]].toObject();
        EXPECT_EQ(key["type"].toString(), r[1]) << r[0];
        EXPECT_EQ(QJsonDocument(QJsonArray{key["default"]}).toJson(QJsonDocument::Compact),
                  QByteArray("[") + r[2] + "]")
            << r[0];
    }
    const QJsonObject seek{
        {"name", "seek"},
        {"kind", "invokable"},
        {"returns", "QVariant"},
        {"arguments", QJsonArray{QJsonObject{{"type", "QVariant"}, {"name", "milliseconds"}}}}};
    EXPECT_TRUE(all["VeskInputFile"]["methods"].toArray().contains(seek));
    // Every class declares its events, and exactly those its source sends.
    for (auto it = all.begin(); it != all.end(); ++it) {
        const QJsonValue declared = it.value()["events"];
        ASSERT_TRUE(declared.isArray()) << it.key().toStdString();
        QStringList names;
        for (const QJsonValue& e : declared.toArray()) names << e.toString();
        names.sort();
        EXPECT_EQ(names, eventsInSource(it.key())) << it.key().toStdString();
    }
}

// What a person types: help is an answer on standard output, a word the host
// does not know an error on standard error. The microcontroller's line on a
// real port keeps the firmware version where the library keeps it, quietly.
TEST(Commands, HelpAnswersBadWordsFailAndTheLineOnAPortKeepsTheVersion)
{
    QProcess p;
    auto run = [&p](const QStringList& args, QByteArray* out, QByteArray* err) {
        vesktest::startBuilt(p, VESKHOST, args);
        if (!p.waitForFinished(60000)) p.kill();
        *out = p.readAllStandardOutput();
        *err = p.readAllStandardError();
        return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    };
    QByteArray out, err;
    for (const char* h : {"--help", "-h", "help"}) {
        EXPECT_EQ(run({h}, &out, &err), 0) << h;
        EXPECT_TRUE(out.startsWith("usage:\n") && out.contains("veskhost mcu")) << out.data();
        EXPECT_TRUE(err.isEmpty()) << err.data();
    }
    EXPECT_EQ(run({"probe", "--json", "--help"}, &out, &err), 0);
    EXPECT_TRUE(out.contains("veskhost probe URL") && !out.contains("veskhost run")) << out.data();
    for (const QStringList& bad : {QStringList{"frob"}, QStringList{"inspect", "--frob"},
                                   QStringList{"signals", "--frob"}, QStringList{"help", "frob"}}) {
        EXPECT_EQ(run(bad, &out, &err), 2) << bad.join(' ').toStdString();
        EXPECT_TRUE(out.isEmpty() && err.contains("usage:")) << err.data();
    }

    int master = -1, slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    termios tio;
    ASSERT_EQ(::tcgetattr(slave, &tio), 0);
    ::cfmakeraw(&tio);
    ::tcsetattr(slave, TCSANOW, &tio);
    vesktest::startBuilt(p, VESKHOST, {"mcu", "--port", QString(::ptsname(master)), "--seconds", "2"});
    // The microcontroller speaks until it is asked for its version.
    QByteArray heard;
    QElapsedTimer t;
    for (t.start(); !heard.contains("GetVer") && t.elapsed() < 30000;) {
        const char status[] = "{\"Cmd\":\"temp\",\"value\":40}#####";
        ASSERT_GT(::write(master, status, sizeof status - 1), 0);
        pollfd pfd{master, POLLIN, 0};
        char buf[256];
        if (::poll(&pfd, 1, 300) == 1 && (pfd.revents & POLLIN)) {
            const ssize_t n = ::read(master, buf, sizeof buf);
            if (n > 0) heard.append(buf, int(n));
        }
    }
    const char version[] = "{\"Cmd\":\"Version\",\"value\":\"fw 9.1\"}#####";
    ASSERT_GT(::write(master, version, sizeof version - 1), 0);
    ASSERT_TRUE(p.waitForFinished(60000));
    EXPECT_EQ(p.exitCode(), 0);
    EXPECT_TRUE(p.readAllStandardOutput().contains("fw 9.1"));
    err = p.readAllStandardError();
    EXPECT_TRUE(err.isEmpty()) << err.data();
    ::close(slave);
    ::close(master);
}
