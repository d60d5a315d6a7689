// usb-soak [--cycles N]: pulls the USB camera, microphone and speaker of the
// virtual board out and puts them back N times (default 100) while their
// nodes run, waits after each cycle until the camera captures, the
// microphone records and the speaker plays again, and prints the process's
// open descriptors and resident memory after the first cycle and after the
// last. Exit 0 when every cycle ended in capture and playback and neither
// figure grew; 1 otherwise.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QRegularExpression>
#include <QThread>
#include <cstdio>
#include <functional>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "sim/UsbCamera.h"
#include "sim/UsbSound.h"
#include "sim/VirtualBoard.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

// Frames of the camera as the graph delivers them.
class Counter : public VeskObject {
public:
    void onNewPacketV(VeskObject::Packet) override { frames.fetchAndAddRelaxed(1); }
    QAtomicInt frames;
};

QMutex logLock;
QStringList logLines;

int count(const QString& pattern)
{
    QMutexLocker l(&logLock);
    return logLines.filter(QRegularExpression(pattern)).size();
}

bool waitFor(const std::function<bool()>& ready, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!ready()) {
        if (t.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(5);
    }
    return true;
}

int openDescriptors()
{
    return int(QDir("/proc/self/fd").entryList(QDir::NoDotAndDotDot | QDir::System).size());
}

long residentKb()
{
    QFile f("/proc/self/status");
    if (!f.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

QVariantMap micCard()
{
    return {{"usbsound", "mic"},
            {"plug", true},
            {"card", 1},
            {"usbbus", "001/004"},
            {"port", "1-1.2"},
            {"capture", QVariantMap{{"rate", 48000}, {"channels", 2}, {"tone", 1000}}}};
}

QVariantMap speakerCard()
{
    return {
        {"usbsound", "speaker"},
        {"plug", true},
        {"card", 0},
        {"usbbus", "001/005"},
        {"port", "1-1.3"},
        {"playback", QVariantMap{{"rates", QVariantList{48000}}, {"channels", QVariantList{2}}}}};
}

bool step(const QVariantMap& s)
{
    QString error;
    if (vsim::Board::instance().applyStep(s, &error)) return true;
    std::fprintf(stderr, "usb-soak: %s\n", qPrintable(error));
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int cycles = 100;
    const QStringList args = app.arguments();
    const int at = args.indexOf("--cycles");
    if (at > 0 && at + 1 < args.size()) cycles = args[at + 1].toInt();
    if (cycles < 1) {
        std::fprintf(stderr, "usage: usb-soak [--cycles N]\n");
        return 2;
    }
    // A pulled card makes FFmpeg complain at every read until the node
    // notices; the soak counts outcomes, not complaints.
    av_log_set_level(AV_LOG_QUIET);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
        QMutexLocker l(&logLock);
        logLines << text;
        if (qEnvironmentVariableIsSet("USB_SOAK_LOG"))
            std::fprintf(stderr, "%s\n", qPrintable(text));
        // A runaway log must not become the leak the soak looks for.
        if (logLines.size() > 200000) logLines.clear();
    });

    vsim::Board& board = vsim::Board::instance();
    board.activate();
    if (!step(speakerCard()) || !step(micCard())) return 2;

    VeskGraph graph;
    QString error;
    auto make = [&](const char* cls, const char* name, const QVariantMap& data) {
        VeskObject* n = graph.create(cls, name, QString(), &error);
        if (n) graph.setData(name, data);
        return n;
    };
    VeskObject* camera =
        make("VeskInputV4l2", "camera", {{"path", "/dev/video0"}, {"framerate", 30}});
    VeskObject* mic = make("VeskInputAlsa", "mic", {{"bus", "001/004"}, {"channels", -1}});
    VeskObject* speaker = make("VeskOutputAlsa", "speaker", {{"lnk", "1-1.3"}});
    if (!camera || !mic || !speaker) {
        std::fprintf(stderr, "usb-soak: %s\n", qPrintable(error));
        return 2;
    }
    Counter frames;
    VeskHost::link(camera, &frames, VeskHost::LinkV);
    // The microphone plays on the speaker: each cycle ends in both.
    graph.link("mic", "speaker", VeskHost::LinkA);
    graph.startAll();

    const vsim::UsbSound& sound = vsim::UsbSound::instance();
    auto flowing = [&] {
        const int f = frames.frames.loadRelaxed();
        const uint64_t c = sound.card("mic").captured;
        const int64_t p = sound.card("speaker").dryAtNs;
        return waitFor(
            [&] {
                return frames.frames.loadRelaxed() > f + 5 && sound.card("mic").captured > c &&
                       sound.card("speaker").dryAtNs > p;
            },
            15000);
    };

    int failures = 0, fdStart = 0;
    long rssStart = 0;
    for (int i = 0; i < cycles; ++i) {
        if (!flowing()) {
            std::fprintf(stderr, "usb-soak: cycle %d: capture or playback did not resume\n", i);
            ++failures;
            break;
        }
        // The first cycles fill what is made once (the camera's pictures,
        // the libraries' tables); growth is counted from here.
        if (i == qMin(2, cycles - 1)) {
            fdStart = openDescriptors();
            rssStart = residentKb();
            std::printf("after cycle %d: %d descriptors, %ld kB resident\n", i, fdStart, rssStart);
        }
        if (i > 2 && i % 25 == 0)
            std::printf("after cycle %d: %d descriptors, %ld kB resident\n", i, openDescriptors(),
                        residentKb());
        // Out, and back only once the nodes have let go: a card that returns
        // under the same number before it is noticed keeps a dead handle.
        // The speaker lets go at its next write or its next retry, whichever
        // comes first.
        const QString micGone = "^\\[mic\\] .*is gone";
        const QString speakerGone = "^\\[speaker\\] .*(is gone|unable to open pcm device)";
        const int mics = count(micGone), speakers = count(speakerGone);
        step({{"camera", "video0"}, {"plug", false}});
        step({{"usbsound", "mic"}, {"plug", false}});
        step({{"usbsound", "speaker"}, {"plug", false}});
        const bool noticed =
            waitFor([&] { return count(micGone) > mics && count(speakerGone) > speakers; }, 15000);
        if (!noticed) {
            std::fprintf(stderr, "usb-soak: cycle %d: the nodes did not notice the unplug (%s%s)\n",
                         i, count(micGone) > mics ? "" : "microphone ",
                         count(speakerGone) > speakers ? "" : "speaker");
            ++failures;
            break;
        }
        step({{"camera", "video0"}, {"plug", true}});
        step(micCard());
        step(speakerCard());
    }
    if (!failures && !flowing()) ++failures;
    const int fdEnd = openDescriptors();
    const long rssEnd = residentKb();
    std::printf("after cycle %d: %d descriptors, %ld kB resident\n", cycles, fdEnd, rssEnd);

    graph.shutdown();
    board.deactivate();
    // Allocators keep some pages; a leak of a cycle's buffers would show as
    // megabytes over a hundred cycles.
    const bool grew = fdEnd > fdStart || rssEnd > rssStart + 8 * 1024;
    if (grew) std::printf("usb-soak: descriptors or memory grew\n");
    return failures || grew ? 1 : 0;
}
