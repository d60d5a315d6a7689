// What the source tests have in common, whatever the protocol: one source
// node in a graph with a recording sink in a thread of its own, the events
// the graph reports, and ffprobe as the judge of what came out.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QProcess>
#include <QString>
#include <QThread>
#include <QVariant>
#include <functional>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"

namespace srcrig {

// Host clock (VeskHi::getPTS), microseconds.
qint64 hostNow();

struct Unit {
    bool video = false;
    qint64 pts = 0;
    qint64 arrival = 0;  // host clock when the sink got it
    int frameType = 0;
    QByteArray bytes;
};

struct Event {
    qint64 at = 0;  // host clock when the test saw it
    QString name;
    QVariant value;
};

class Sink : public VeskObject {
public:
    Sink();
    void onNewPacketA(VeskObject::Packet p) override { record(false, p); }
    void onNewPacketV(VeskObject::Packet p) override { record(true, p); }

    QList<Unit> units(bool video) const;
    int count(bool video) const;
    // The video units back to back, as a decoder reads the stream.
    QByteArray videoBytes() const;
    void clear();

private:
    void record(bool video, const VeskObject::Packet& p);
    mutable QMutex mutex;
    QList<Unit> all[2];
};

// The graph, the sink and the events; what kind of source goes in, and
// under which node name, is up to the protocol's rig.
class Rig {
public:
    Rig();
    ~Rig();
    void setData(const QVariantMap& data);

    // Every event when `name` is empty.
    QList<Event> events(const QString& name = QString()) const;
    // Runs the test thread's event loop until `done` holds or `ms` passed.
    bool waitUntil(const std::function<bool()>& done, int ms);
    bool waitEvent(const QString& name, int count, int ms);
    void pump(int ms);
    QVariantMap ready(int index = 0) const;

    Sink sink;
    bool keepValues = true;  // off: a long run does not grow the test itself

protected:
    // Creates the source as `node`, linked to the sink, with `data` applied.
    // When the graph refuses, `source` stays null and its reason is returned
    // for the caller to fail the test as hard as it needs.
    QString create(const QString& className, const QString& node, const QVariantMap& data);

    VeskGraph graph;
    QString nodeName;
    VeskObject* source = nullptr;

private:
    QThread sinkThread;
    QList<Event> seen;
};

// Reads a child's standard output until a whole line came, the child ended
// or `ms` passed; what was read, for the caller to judge.
QByteArray firstLine(QProcess& process, int ms);

struct Probe {
    bool ok = false;
    QString errors;  // what ffprobe complained about while decoding
    QString codec;
    int width = 0;
    int height = 0;
    int sampleRate = 0;
    int channels = 0;
    int frames = 0;
};
// Decodes every frame of `bytes`, given as a file in `format` (an ffmpeg
// demuxer: "h264", "hevc", "aac", "alaw"...).
Probe ffprobe(const QByteArray& bytes, const QString& format);

}  // namespace srcrig
