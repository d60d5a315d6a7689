// veskhost: the reference host. Loads the library's node classes, builds a
// graph from a file and prints what the nodes tell, or watches the signal
// state of a board's interfaces through the driver registry.

#include "host/VeskHost.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "driver/Driver.h"
#include "driver/mcu/DriverVesk.h"
#include "driver/mcu/McuLine.h"
#include "frame/Vesk.h"
#include "host/VeskGraph.h"
#include "host/classinfo.h"
#include "host/ffmpeglog.h"
#include "host/probe.h"
#include "host/usage.h"
#include "sim/AudioOut.h"
#include "sim/Emu6604.h"
#include "sim/VideoOut.h"
#include "sim/VirtualBoard.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

QElapsedTimer sinceStart;
int quitPipe[2] = {-1, -1};

// Each verb's part of the usage: its synopsis, then what it does. The whole
// usage is every synopsis followed by the notes; `veskhost VERB --help`
// prints one verb's synopsis and text.
struct Verb {
    const char* name;
    const char* synopsis;
    const char* about;
};
const Verb kVerbs[] = {
    {"classes", "  veskhost classes\n",
     "  Lists the node classes the library registers, one a line.\n"},
    {"inspect", "  veskhost inspect [CLASS] [--json]\n",
     "  A node class's data keys with types and defaults, its methods, the events\n"
     "  it sends and its sharing members; without CLASS, every class.\n"},
    {"run",
     "  veskhost run GRAPH.json [--board BOARD.json] [--sim [SCENARIO.json]] [--seconds N]\n"
     "                          [--json] [--debug] [--wav [DEV=]FILE ...]\n"
     "                          [--snapshot DEV:FILE.png[@SECONDS] ...]\n",
     "  Builds the graph's nodes, starts them and prints what they announce and\n"
     "  send: stream descriptions, events, packet figures.\n"},
    {"signals",
     "  veskhost signals --board BOARD.json [--sim [SCENARIO.json]] [--seconds N] [--json]\n"
     "                   [--debug] [--wav [DEV=]FILE ...]\n",
     "  Watches every interface of the board through its chip driver and prints\n"
     "  each change of signal, with what the driver's state machine is doing.\n"},
    {"probe",
     "  veskhost probe URL|/dev/videoN [--seconds N] [--json] [--set KEY=VALUE ...]\n"
     "                 [--sim [SCENARIO.json]]\n",
     "  Opens URL with the node for its scheme (a camera with the camera node),\n"
     "  counts its packets for N seconds (default 10) and prints the \"ready\" map\n"
     "  (a camera: its formats and controls) and per-stream figures. --set puts a\n"
     "  key into the node's data (the value is read as JSON when it parses). --sim\n"
     "  runs it on the virtual board.\n"},
    {"mcu",
     "  veskhost mcu [--port PATH | --sim [SCENARIO.json]] [--send JSON ...] [--seconds N]\n"
     "               [--json]\n",
     "  Opens the front-panel microcontroller's line (a serial port, or the virtual\n"
     "  board's) and prints every frame it sends, every command sent to it and\n"
     "  the line's watchdog.\n"},
};
const char kNotes[] =
    "With --sim and no --board, the scenario's \"board\" is the board; --wav records\n"
    "what its audio output DEV (default 0) plays; --snapshot writes what its display\n"
    "device DEV shows, SECONDS after the start (default: at the end).\n"
    "veskhost VERB --help tells one verb.\n";

QByteArray usageText()
{
    QByteArray text = "usage:\n";
    for (const Verb& v : kVerbs) text += v.synopsis;
    return text + kNotes;
}

const Verb* findVerb(const QString& name)
{
    for (const Verb& v : kVerbs)
        if (name == QLatin1String(v.name)) return &v;
    return nullptr;
}

bool isHelp(const QString& a)
{
    return a == QLatin1String("--help") || a == QLatin1String("-h");
}

void printLine(const QString& line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

void complain(const QString& text)
{
    const QByteArray bytes = "veskhost: " + text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
}

int usage(const QString& why)
{
    complain(why);
    std::fputs(usageText().constData(), stderr);
    return 2;
}

// Help asked for is an answer, not an error: standard output, status 0.
int help(const Verb* verb)
{
    const QByteArray text =
        verb ? QByteArray("usage:\n") + verb->synopsis + verb->about : usageText();
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    return 0;
}

double seconds()
{
    return double(sinceStart.nsecsElapsed()) / 1e9;
}

QString stamp(double t)
{
    return QString::asprintf("[%8.3f]", t);
}

double rounded(double t)
{
    return double(qRound64(t * 1000.0)) / 1000.0;
}

// One JSON object per line, its members in the order given: time first
// reads better than the alphabetical order of QJsonObject.
QString jsonLine(const QList<QPair<QString, QJsonValue>>& members)
{
    QStringList parts;
    for (const auto& m : members) {
        const QByteArray pair =
            QJsonDocument(QJsonObject{{m.first, m.second}}).toJson(QJsonDocument::Compact);
        parts << QString::fromUtf8(pair.mid(1, pair.size() - 2));
    }
    return QLatin1Char('{') + parts.join(QLatin1Char(',')) + QLatin1Char('}');
}

struct Options {
    QString graph;
    QString board;
    QString scenario;
    bool sim = false;
    bool json = false;
    bool debug = false;
    double seconds = -1;
    // Board audio output device -> WAV file of what it plays.
    QMap<int, QString> wavs;
    struct Snapshot {
        int device = 0;
        QString file;
        double at = -1;  // seconds from the start; -1: at the end
    };
    QList<Snapshot> snapshots;
};

bool parseOptions(const QStringList& args, Options* o, QString* why)
{
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        const bool hasNext = i + 1 < args.size();
        if (a == QLatin1String("--board")) {
            if (!hasNext) {
                *why = QStringLiteral("--board needs a file");
                return false;
            }
            o->board = args[++i];
        } else if (a == QLatin1String("--sim")) {
            o->sim = true;
            if (hasNext && !args[i + 1].startsWith(QLatin1Char('-'))) o->scenario = args[++i];
        } else if (a == QLatin1String("--seconds")) {
            bool ok = false;
            o->seconds = hasNext ? args[++i].toDouble(&ok) : 0;
            if (!ok || o->seconds <= 0) {
                *why = QStringLiteral("--seconds needs a positive number");
                return false;
            }
        } else if (a == QLatin1String("--json")) {
            o->json = true;
        } else if (a == QLatin1String("--debug")) {
            o->debug = true;
        } else if (a == QLatin1String("--wav")) {
            // DEV=FILE, or FILE alone for output device 0.
            const QString target = hasNext ? args[++i] : QString();
            const int eq = target.indexOf(QLatin1Char('='));
            bool ok = eq < 0;
            const int dev = eq < 0 ? 0 : target.left(eq).toInt(&ok);
            const QString file = target.mid(eq + 1);
            if (!ok || dev < 0 || file.isEmpty()) {
                *why = QStringLiteral("--wav needs FILE or DEVICE=FILE");
                return false;
            }
            o->wavs[dev] = QFileInfo(file).absoluteFilePath();
        } else if (a == QLatin1String("--snapshot")) {
            // DEV:FILE.png or DEV:FILE.png@SECONDS
            QString target = hasNext ? args[++i] : QString();
            Options::Snapshot shot;
            bool ok = true;
            const int at = target.lastIndexOf(QLatin1Char('@'));
            if (at >= 0) {
                shot.at = target.mid(at + 1).toDouble(&ok);
                ok = ok && shot.at >= 0;
                target.truncate(at);
            }
            const int colon = target.indexOf(QLatin1Char(':'));
            bool devOk = false;
            shot.device = colon > 0 ? target.left(colon).toInt(&devOk) : -1;
            shot.file = target.mid(colon + 1);
            if (!ok || !devOk || shot.device < 0 || colon < 0 || shot.file.isEmpty()) {
                *why =
                    QStringLiteral("--snapshot needs DEVICE:FILE.png or DEVICE:FILE.png@SECONDS");
                return false;
            }
            shot.file = QFileInfo(shot.file).absoluteFilePath();
            o->snapshots << shot;
        } else {
            *why = QStringLiteral("unexpected argument \"%1\"").arg(a);
            return false;
        }
    }
    return true;
}

bool readJson(const QString& path, QJsonDocument* doc, QString* why)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        *why = QStringLiteral("%1: %2").arg(path, f.errorString());
        return false;
    }
    QJsonParseError err;
    *doc = QJsonDocument::fromJson(f.readAll(), &err);
    if (err.error != QJsonParseError::NoError) {
        *why = QStringLiteral("%1: not valid JSON (%2 at offset %3)")
                   .arg(path, err.errorString())
                   .arg(err.offset);
        return false;
    }
    return true;
}

// The scenario named by --sim, or the default board's. Returns an exit
// code, or -1 to go on.
int readScenario(const Options& o, QVariantMap* scenario)
{
    if (o.scenario.isEmpty()) {
        *scenario = vsim::defaultScenario();
        return -1;
    }
    QJsonDocument doc;
    QString why;
    if (!readJson(o.scenario, &doc, &why)) {
        complain(why);
        return 2;
    }
    if (!doc.isObject()) {
        complain(QStringLiteral("%1: the scenario is not a JSON object").arg(o.scenario));
        return 2;
    }
    *scenario = VeskHost::fromJson(doc.object()).toMap();
    return -1;
}

// Sets the board description and brings the virtual board up. Returns an
// exit code, or -1 to go on.
int prepareBoard(const Options& o, bool boardRequired)
{
    QVariantMap scenario;
    if (o.sim) {
        const int code = readScenario(o, &scenario);
        if (code >= 0) return code;
    }

    QJsonValue boardJson;
    QString boardName;
    if (!o.board.isEmpty()) {
        QJsonDocument doc;
        QString why;
        if (!readJson(o.board, &doc, &why)) {
            complain(why);
            return 2;
        }
        boardJson = doc.isObject() ? QJsonValue(doc.object()) : QJsonValue(doc.array());
        boardName = o.board;
    } else if (o.sim && scenario.contains(QStringLiteral("board"))) {
        boardJson = QJsonValue::fromVariant(scenario.value(QStringLiteral("board")));
        boardName = QStringLiteral("the scenario's board");
    } else if (boardRequired) {
        return usage(o.sim ? QStringLiteral("the scenario has no \"board\": give --board")
                           : QStringLiteral("signals needs --board, or --sim"));
    }
    if (!boardName.isEmpty()) {
        QStringList notes;
        QString error;
        const QVariantMap board = VeskHost::boardFromJson(boardJson, &notes, &error);
        if (!error.isEmpty()) {
            complain(boardName + QStringLiteral(": ") + error);
            return 2;
        }
        for (const QString& n : qAsConst(notes)) complain(n);
        VeskHost::setConfig(board);
    }

    if (o.sim) {
        vsim::Board& b = vsim::Board::instance();
        b.activate();
        QString error;
        if (!b.loadScenario(scenario, &error)) {
            complain(QStringLiteral("scenario: ") + error);
            return 2;
        }
        for (auto it = o.wavs.begin(); it != o.wavs.end(); ++it)
            vsim::AudioOut::instance().setWavPath(it.key(), it.value());
        b.startScenario();
    } else if (!o.wavs.isEmpty() || !o.snapshots.isEmpty()) {
        return usage(
            QStringLiteral("--wav and --snapshot record the virtual board's outputs: give --sim"));
    }
    return -1;
}

// The 6604's control segment is the machine's, not the process's: a run on
// the virtual board takes it away when it ends, as the control process would.
void endBoard()
{
    vsim::Board::instance().stop();
    vsim::Emu6604::removeSegment();
    // The board's files live in a directory made for this run; the process
    // ends next, so nothing reads them after this.
    const QString root = vsim::Board::instance().root();
    if (QFileInfo(root).fileName().startsWith(QLatin1String("vesk-board-")))
        QDir(root).removeRecursively();
}

void onQuitSignal(int)
{
    const char c = 1;
    const ssize_t r = ::write(quitPipe[1], &c, 1);
    (void)r;
}

// SIGINT and SIGTERM end the run as --seconds would.
void quitOnSignals(QCoreApplication* app)
{
    if (::pipe(quitPipe) != 0) return;
    auto* n = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, app);
    QObject::connect(n, &QSocketNotifier::activated, app, &QCoreApplication::quit);
    std::signal(SIGINT, onQuitSignal);
    std::signal(SIGTERM, onQuitSignal);
}

int runGraph(const Options& o, QCoreApplication& app)
{
    QJsonDocument doc;
    QString why;
    if (!readJson(o.graph, &doc, &why)) {
        complain(why);
        return 2;
    }
    if (!doc.isObject()) {
        complain(QStringLiteral("%1: the graph is not a JSON object").arg(o.graph));
        return 2;
    }
    const int code = prepareBoard(o, false);
    if (code >= 0) return code;

    VeskGraph graph;
    QObject::connect(
        &graph, &VeskGraph::nodeEvent, &app,
        [&o](const QString& node, const QString& event, const QVariant& value) {
            const double t = seconds();
            if (o.json)
                printLine(jsonLine({{"t", rounded(t)},
                                    {"node", node},
                                    {"event", event},
                                    {"value", VeskHost::toJson(value)}}));
            else
                printLine(QStringLiteral("%1 %2  %3  %4")
                              .arg(stamp(t), node, event, VeskHost::toJsonText(value)));
        });
    QStringList problems;
    graph.build(VeskHost::fromJson(doc.object()).toMap(), &problems);
    for (const QString& p : qAsConst(problems)) complain(p);
    graph.startAll();
    // As the appliance's application does: front-panel keys go to the device
    // node once the microcontroller line is up (a capture node on one of its
    // inputs brings it up when it starts).
    for (const QString& name : graph.nodeNames()) {
        VeskObject* node = graph.node(name);
        if (!node || qstrcmp(node->metaObject()->className(), "VeskDevice") != 0) continue;
        if (DriverVesk::instance)
            DriverVesk::instance->registDev(node);
        else
            complain(
                QStringLiteral("%1: no microcontroller on this board, no keys").arg(node->name()));
    }

    auto takeSnapshot = [&o](const Options::Snapshot& shot) {
        QString error;
        const double t = seconds();
        if (!vsim::VideoOut::instance().snapshot(shot.device, shot.file, &error)) {
            complain(QStringLiteral("snapshot of display %1: %2").arg(shot.device).arg(error));
            return;
        }
        if (o.json)
            printLine(
                jsonLine({{"t", rounded(t)}, {"snapshot", shot.file}, {"display", shot.device}}));
        else
            printLine(QStringLiteral("%1 display %2  snapshot  %3")
                          .arg(stamp(t))
                          .arg(shot.device)
                          .arg(shot.file));
    };
    for (const Options::Snapshot& shot : o.snapshots)
        if (shot.at >= 0)
            QTimer::singleShot(qMax<qint64>(0, qRound64((shot.at - seconds()) * 1000)), &app,
                               [=] { takeSnapshot(shot); });

    if (o.seconds > 0)
        QTimer::singleShot(qRound64(o.seconds * 1000), &app, &QCoreApplication::quit);
    quitOnSignals(&app);
    app.exec();

    for (const Options::Snapshot& shot : o.snapshots)
        if (shot.at < 0 || shot.at > seconds()) takeSnapshot(shot);
    graph.shutdown();
    if (o.sim) endBoard();
    return 0;
}

QString describeInfo(const QVariantMap& info)
{
    if (info.isEmpty()) return QStringLiteral("(no information)");
    QStringList parts;
    for (auto it = info.begin(); it != info.end(); ++it) {
        const QVariant& v = it.value();
        const bool plain =
            v.userType() == QMetaType::QString || v.userType() == QMetaType::QByteArray;
        parts << it.key() + QLatin1Char('=') + (plain ? v.toString() : VeskHost::toJsonText(v));
    }
    return parts.join(QLatin1Char(' '));
}

int watchSignals(const Options& o, QCoreApplication& app)
{
    const int code = prepareBoard(o, true);
    if (code >= 0) return code;
    const QVariantMap config = Vesk::getConfig();
    const QStringList namesV = config.value(QStringLiteral("interfaceV")).toMap().keys();
    const QStringList namesA = config.value(QStringLiteral("interfaceA")).toMap().keys();

    // The drivers belong to the thread that builds them, as they would to
    // the first capture node's thread, and are asked from there.
    QThread worker;
    worker.setObjectName(QStringLiteral("share"));
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    QTimer* timer = nullptr;
    QMap<QString, QVariantMap> printed;
    bool first = true;
    const bool json = o.json;

    auto report = [&app, json](double t, const QString& name, const QString& side,
                               const QString& what, const QVariantMap& map) {
        QMetaObject::invokeMethod(
            &app,
            [=] {
                if (json)
                    printLine(jsonLine({{"t", rounded(t)},
                                        {"interface", name},
                                        {"side", side},
                                        {what, VeskHost::toJson(map)}}));
                else if (what == QLatin1String("info"))
                    printLine(QStringLiteral("%1 %2 (%3)  %4")
                                  .arg(stamp(t), name, side, describeInfo(map)));
                else
                    printLine(QStringLiteral("%1 %2 (%3)    driver: %4")
                                  .arg(stamp(t), name, side, describeInfo(map)));
            },
            Qt::QueuedConnection);
    };
    // A capture node asks for `info` once a second, and so does this
    // monitor; what a driver's state machine is doing is looked at ten
    // times as often, so that its stages show between two polls.
    int tick = 0;
    auto poll = [&] {
        const bool infoDue = tick++ % 10 == 0;
        auto look = [&](const QString& name, const QString& side, bool video) {
            const double t = seconds();
            const QString key = side + QLatin1Char(':') + name;
            if (infoDue) {
                const QVariantMap info = video ? Driver::getInfoV(name) : Driver::getInfoA(name);
                if (first || printed.value(key) != info) report(t, name, side, "info", info);
                printed.insert(key, info);
            }
            // An audio side that shares its video side's driver has nothing
            // of its own to show there.
            if (!video && Driver::driverMapA.value(name) == Driver::driverMapV.value(name)) return;
            const QVariantMap inside =
                video ? Driver::getDiagnosticsV(name) : Driver::getDiagnosticsA(name);
            const QString insideKey = QStringLiteral("driver:") + key;
            if (printed.value(insideKey) != inside) report(t, name, side, "driver", inside);
            printed.insert(insideKey, inside);
        };
        for (const QString& name : namesV) look(name, QStringLiteral("video"), true);
        for (const QString& name : namesA) look(name, QStringLiteral("audio"), false);
        first = false;
    };
    QMetaObject::invokeMethod(
        &context,
        [&] {
            Driver::initV();
            Driver::initA();
            poll();
            timer = new QTimer(&context);
            QObject::connect(timer, &QTimer::timeout, &context, poll);
            timer->start(100);
        },
        Qt::QueuedConnection);

    if (o.seconds > 0)
        QTimer::singleShot(qRound64(o.seconds * 1000), &app, &QCoreApplication::quit);
    quitOnSignals(&app);
    app.exec();

    // Waits for a poll under way, then leaves the thread with no timer.
    QMetaObject::invokeMethod(
        &context,
        [&] {
            delete timer;
            timer = nullptr;
            context.moveToThread(app.thread());
        },
        Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    if (o.sim) endBoard();
    return 0;
}

// A virtual board whose scenario has no microcontroller gets one with a
// little to say: a source on its input, a key, and the status reports.
void addMicrocontroller(QVariantMap* scenario)
{
    for (const QVariant& c : scenario->value(QStringLiteral("chips")).toList())
        if (c.toMap().value(QStringLiteral("type")) == QLatin1String("Vesk")) return;
    QVariantList chips = scenario->value(QStringLiteral("chips")).toList();
    chips << QVariantMap{{"name", "mcu"},
                         {"type", "Vesk"},
                         {"inputs", QVariantMap{{"hdmi2", QVariantMap{{"lock", 0}}}}}};
    (*scenario)["chips"] = chips;
    QVariantList timeline = scenario->value(QStringLiteral("timeline")).toList();
    const QVariantMap hd{{"lock", 1}, {"w", 1920}, {"h", 1080}, {"f", 60}, {"as", 48000}};
    timeline << QVariantMap{{"at", 2}, {"chip", "mcu"}, {"input", "hdmi2"}, {"source", hd}}
             << QVariantMap{{"at", 3}, {"chip", "mcu"}, {"key", "menu"}, {"act", "press"}};
    (*scenario)["timeline"] = timeline;
}

// The microcontroller line as the library sees it: the first driver
// instance owns the port; every frame it decodes, every command it sends and
// each watchdog tick is printed.
int watchLine(const QStringList& args, QCoreApplication& app)
{
    Options o;
    QString port;
    QList<QVariantMap> commands;
    for (int i = 0; i < args.size(); ++i) {
        const QString& a = args[i];
        const bool hasNext = i + 1 < args.size();
        if (a == QLatin1String("--port") && hasNext) {
            port = QFileInfo(args[++i]).absoluteFilePath();
        } else if (a == QLatin1String("--send") && hasNext) {
            const QVariantMap cmd = Json::decode(args[++i]).toMap();
            if (!cmd.contains(QStringLiteral("Cmd")))
                return usage(QStringLiteral("--send needs a JSON object with \"Cmd\""));
            commands << cmd;
        } else if (a == QLatin1String("--sim")) {
            o.sim = true;
            if (hasNext && !args[i + 1].startsWith(QLatin1Char('-'))) o.scenario = args[++i];
        } else if (a == QLatin1String("--seconds") && hasNext) {
            bool ok = false;
            o.seconds = args[++i].toDouble(&ok);
            if (!ok || o.seconds <= 0) return usage(QStringLiteral("--seconds needs a number"));
        } else if (a == QLatin1String("--json")) {
            o.json = true;
        } else {
            return usage(QStringLiteral("mcu: unexpected argument \"%1\"").arg(a));
        }
    }
    if (o.sim && !port.isEmpty()) return usage(QStringLiteral("mcu: --port or --sim, not both"));

    if (o.sim) {
        QVariantMap scenario;
        const int code = readScenario(o, &scenario);
        if (code >= 0) return code;
        addMicrocontroller(&scenario);
        vsim::Board& b = vsim::Board::instance();
        b.activate();
        QString error;
        if (!b.loadScenario(scenario, &error)) complain(QStringLiteral("scenario: ") + error);
        b.startScenario();
    } else if (!port.isEmpty()) {
        // The driver opens the board's line; on this machine that is a link
        // to the port asked for.
        vsim::Board& b = vsim::Board::instance();
        b.activate();
        const QString line = b.hostPath(QStringLiteral("/dev/ttyAMA2"));
        QDir().mkpath(QFileInfo(line).path());
        if (!QFile::link(port, line)) {
            complain(QStringLiteral("cannot link %1 to %2").arg(line, port));
            return 1;
        }
    }

    const bool json = o.json;
    mcu::setObserver([json](const QString& event, const QVariant& value) {
        if (event == QLatin1String("read")) return;
        const double t = seconds();
        QVariant shown = value;
        QString text;
        if (event == QLatin1String("frame")) {
            const QVariantMap f = value.toMap();
            const QVariantMap message = f.value(QStringLiteral("message")).toMap();
            shown = QVariantMap{{"text", f.value(QStringLiteral("raw"))},
                                {"message", message},
                                {"handled", f.value(QStringLiteral("handled"))}};
            text = QStringLiteral("<  %1%2").arg(
                message.isEmpty() ? f.value(QStringLiteral("raw")).toString()
                                  : VeskHost::toJsonText(message),
                f.value(QStringLiteral("handled")).toBool() ? QString()
                                                            : QStringLiteral("   (not handled)"));
        } else if (event == QLatin1String("sent")) {
            text = QStringLiteral(">  ") + value.toString();
        } else if (event == QLatin1String("alive")) {
            text = QStringLiteral("watchdog: line alive");
        } else if (event == QLatin1String("timeout")) {
            text = QStringLiteral("watchdog: \"tty time out\", line reopened");
        } else if (event == QLatin1String("dropped")) {
            text = QStringLiteral("receive buffer: %1 characters without \"#####\" dropped")
                       .arg(value.toInt());
        } else {
            text = event + QLatin1Char(' ') + value.toString();
        }
        if (json)
            printLine(jsonLine(
                {{"t", rounded(t)}, {"event", event}, {"value", VeskHost::toJson(shown)}}));
        else
            printLine(stamp(t) + QLatin1Char(' ') + text);
    });

    auto* line = new DriverVesk;
    line->init();  // returns once the microcontroller has said something
    for (const QVariantMap& cmd : qAsConst(commands)) line->sendCmd(cmd);

    if (o.seconds > 0)
        QTimer::singleShot(qRound64(o.seconds * 1000), &app, &QCoreApplication::quit);
    quitOnSignals(&app);
    app.exec();
    mcu::setObserver(nullptr);
    if (o.sim || !port.isEmpty()) endBoard();
    return 0;
}

}  // namespace

int veskUsageError(const char* verb, const QString& why)
{
    const Verb* v = verb ? findVerb(QLatin1String(verb)) : nullptr;
    complain(v ? QLatin1String(verb) + QStringLiteral(": ") + why : why);
    const QByteArray text = v ? QByteArray("usage:\n") + v->synopsis : usageText();
    std::fwrite(text.constData(), 1, size_t(text.size()), stderr);
    return 2;
}

int main(int argc, char** argv)
{
    sinceStart.start();
    QCoreApplication app(argc, argv);
    veskhost::installFfmpegLog(
        [](const QByteArray& line) { std::fputs(line.constData(), stderr); });
    const QStringList args = app.arguments().mid(1);
    if (args.isEmpty()) return usage(QStringLiteral("no command given"));
    const QString command = args.first();
    if (isHelp(command) || command == QLatin1String("help")) {
        if (args.size() < 2) return help(nullptr);
        const Verb* verb = findVerb(args[1]);
        return verb ? help(verb) : usage(QStringLiteral("unknown command \"%1\"").arg(args[1]));
    }
    // A verb's own help wins over whatever else stands beside it.
    if (const Verb* verb = findVerb(command))
        for (const QString& a : args.mid(1))
            if (isHelp(a)) return help(verb);

    if (command == QLatin1String("classes")) {
        if (args.size() > 1) return usage(QStringLiteral("classes takes no arguments"));
        for (const QString& c : VeskGraph::classes()) printLine(c);
        return 0;
    }

    if (command == QLatin1String("inspect")) return veskInspect(args.mid(1));
    if (command == QLatin1String("probe")) return veskProbe(args.mid(1));
    if (command == QLatin1String("mcu")) return watchLine(args.mid(1), app);

    Options o;
    QString why;
    if (command == QLatin1String("run")) {
        if (args.size() < 2 || args[1].startsWith(QLatin1Char('-')))
            return usage(QStringLiteral("run needs a graph file"));
        o.graph = args[1];
        if (!parseOptions(args.mid(2), &o, &why)) return usage(why);
        Vesk::debug = o.debug;
        return runGraph(o, app);
    }
    if (command == QLatin1String("signals")) {
        if (!parseOptions(args.mid(1), &o, &why)) return usage(why);
        Vesk::debug = o.debug;
        return watchSignals(o, app);
    }
    return usage(QStringLiteral("unknown command \"%1\"").arg(command));
}
