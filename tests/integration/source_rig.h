// What the source tests have in common, whatever the protocol: one source
// node in a graph with a recording sink in a thread of its own, the events
// the graph reports, peers as child processes and ffprobe as the judge of
// what came out.
#pragma once

#include <QJsonObject>
#include <QMutex>
#include <QProcess>
#include <QThread>
#include <functional>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"

namespace srcrig {

qint64 hostNow();  // VeskHi::getPTS, microseconds

// The values of `keys` in `map` as text, joined by blanks: a stream
// description compared, and shown when it differs, at once.
inline std::string pick(const QVariantMap& map, const QStringList& keys)
{
    QStringList values;
    for (const QString& key : keys) values << map.value(key).toString();
    return values.join(' ').toStdString();
}

struct Unit {
    qint64 pts = 0;
    qint64 arrival = 0;  // host clock when the sink got it
    int frameType = 0;
    QByteArray bytes;
    int run = 0;  // video announcements the sink had seen: one per opening
    qint64 ahead() const { return pts - arrival; }
};

struct Event {
    qint64 at = 0;  // host clock when the test saw it
    QString name;
    QVariant value;
};

class Sink : public VeskObject {
public:
    Sink()
    {
        setName("sink");
        shareDepth = 256;  // a file read at full speed comes in bursts
    }
    void onNewPacketA(VeskObject::Packet p) override { record(false, p); }
    void onNewPacketV(VeskObject::Packet p) override { record(true, p); }
    void onNewInfoV(VeskObject::StreamInfo) override { ++runs; }
    QList<Unit> units(bool video, int run = 0) const;  // of one opening, or all
    int count(bool video) const { return units(video).size(); }

private:
    void record(bool video, const VeskObject::Packet& p);
    mutable QMutex mutex;
    QList<Unit> all[2];
    int runs = 0;
};

class Rig {
public:
    Rig();
    ~Rig();
    // Creates the source, linked to the sink, with `data` applied. `start`
    // queues its start in its own thread without waiting: a network source
    // opens inside it, and the test must stay free to start its peer.
    void add(const QString& className, const QVariantMap& data, bool start = true);
    void start() { graph.start("src"); }  // these wait for the node
    void stop() { graph.stop("src"); }
    void setData(const QVariantMap& data) { graph.setData("src", data); }
    QVariant invoke(const QString& m, const QVariant& a = {}) { return graph.invoke("src", m, a); }
    QVariantMap data()
    {
        QVariantMap copy;
        VeskGraph::runIn(source, [&] { copy = source->data; });
        return copy;
    }

    QList<Event> events(const QString& name = {}) const  // every one when empty
    {
        QList<Event> out;
        for (const Event& e : seen)
            if (name.isEmpty() || e.name == name) out << e;
        return out;
    }
    // Runs the test thread's event loop until `done` holds or `ms` passed.
    bool waitUntil(const std::function<bool()>& done, int ms);
    void pump(int ms) { waitUntil(nullptr, ms); }
    bool waitEvent(const QString& name, int n, int ms)
    {
        return waitUntil([&] { return events(name).size() >= n; }, ms);
    }
    QVariantMap ready(int i = 0) const { return events("ready").value(i).value.toMap(); }

    Sink sink;

protected:
    VeskGraph graph;
    VeskObject* source = nullptr;

private:
    QThread sinkThread;
    QList<Event> seen;
};

// A child process, killed when the object goes; what it says on stderr
// goes to the test's.
class Peer : public QProcess {
public:
    Peer(const QString& program, const QStringList& args)
    {
        setStandardOutputFile(QProcess::nullDevice());
        setProcessChannelMode(QProcess::ForwardedErrorChannel);
        start(program, args);
    }
    ~Peer() override { close(); }
};

int freePort(bool udp = false);  // on 127.0.0.1
// Read from /proc, so that a peer serving one client only is not used up by
// looking.
bool waitListening(int port, int ms = 15000);

// `veskhost probe URL --seconds N --json` with the veskhost at `program`:
// its exit code and its report.
QJsonObject veskhostProbe(const QString& program, const QString& url, int seconds, int* code);

// Decodes every frame of `bytes`, given as a file in `format` (an ffmpeg
// demuxer: "h264", "hevc", "aac"...): the stream's "codec_name", "width" and
// "height", the "frames" decoded, and what ffprobe said, as "errors".
QJsonObject ffprobe(const QByteArray& bytes, const QString& format);

}  // namespace srcrig
