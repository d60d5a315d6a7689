// Shared by the network and file source tests: a graph with one source and
// a recording sink, the media of make_media.sh, peers run as child
// processes, and ffprobe as the judge of what the sources deliver.
#pragma once

#include <QMutex>
#include <QProcess>
#include <QThread>
#include <functional>
#include <memory>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"

namespace rig {

qint64 hostNow();  // VeskHi::getPTS, microseconds

struct Unit {
    qint64 pts = 0;
    qint64 arrival = 0;  // host clock when the sink got it
    int frameType = 0;
    QByteArray head;  // first bytes of the payload
};

struct Event {
    qint64 at = 0;  // host clock
    QString name;
    QVariant value;
};

class Sink : public VeskObject {
public:
    Sink();
    void onNewPacketA(VeskObject::Packet p) override { record(false, p); }
    void onNewPacketV(VeskObject::Packet p) override { record(true, p); }
    QList<Unit> units(bool video) const;
    int count(bool video) const { return units(video).size(); }
    QByteArray videoBytes() const;
    void clear();

private:
    void record(bool video, const VeskObject::Packet& p);
    mutable QMutex mutex;
    QList<Unit> all[2];
    QByteArray bytes;
};

// One source, created by class name, in its own thread; the sink in another.
class Rig {
public:
    Rig();
    ~Rig();
    // Applies `data`, then starts the node without waiting for onStart: a
    // network source opens inside it, and the test must stay free to start
    // the peer it waits for and to see events as they come.
    void add(const QString& className, const QVariantMap& data, bool start = true);
    void setData(const QVariantMap& data);
    QVariant invoke(const QString& method, const QVariant& arg = QVariant());
    QVariantMap data();  // a copy, read in the node's thread

    QList<Event> events(const QString& name) const;
    bool waitUntil(const std::function<bool()>& done, int ms);
    bool waitEvent(const QString& name, int count, int ms);
    void pump(int ms)
    {
        waitUntil([] { return false; }, ms);
    }

    Sink sink;
    bool keepValues = true;  // off: a long run does not grow the test itself

private:
    VeskGraph graph;
    QThread sinkThread;
    VeskObject* source = nullptr;
    QList<Event> seen;
};

// A child process, killed at the end of the test at the latest.
class Peer {
public:
    Peer(const QString& program, const QStringList& args);
    ~Peer() { kill(); }
    void kill();
    QByteArray output(int waitMs = 50)
    {
        process.waitForReadyRead(waitMs);
        return process.readAll();
    }

private:
    QProcess process;
};

QString media(const QString& name);
int freeTcpPort();
int freeUdpPort();
// Whether something listens on 127.0.0.1:port, read from /proc so that a
// peer serving one client only is not used up by looking.
bool waitListening(int port, int ms);
// ffmpeg encoding a live 320x240 25 fps picture (a key frame each second)
// and a 48 kHz stereo tone in real time, to `output`.
std::unique_ptr<Peer> liveEncoder(const QStringList& output);
// python's HTTP server on 127.0.0.1 over `dir`.
std::unique_ptr<Peer> httpServer(const QString& dir, int* port);

struct Probe {
    bool ok = false;
    QString errors, codec;
    int width = 0, height = 0, frames = 0;
};
// ffprobe decoding every frame of an elementary stream ("h264", "hevc").
Probe ffprobe(const QByteArray& bytes, const QString& suffix);
// The parameter sets of an HEVC configuration record, start-coded.
QByteArray hvccToAnnexB(const QByteArray& hvcc);

int openFds();
qint64 heapInUse();  // from the sanitizer's allocator when there is one

}  // namespace rig
