// What the RTSP tests share: the real server (scripts/rtsp-server.py) as a
// child process, one VeskInputRtsp in a graph with a recording sink in a
// thread of its own, and ffprobe as the judge of what came out.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariant>
#include <functional>
#include <memory>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"

namespace rtsp {

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
    void onNewPacketA(VeskObject::Packet p) override;
    void onNewPacketV(VeskObject::Packet p) override;

    QList<Unit> units(bool video) const;
    int count(bool video) const;
    void clear();

private:
    void record(bool video, const VeskObject::Packet& p);
    mutable QMutex mutex;
    QList<Unit> all;
};

// scripts/rtsp-server.py on 127.0.0.1, stopped when the object goes.
class Server {
public:
    // args as the script takes them; --port 0 unless given. Waits until it
    // listens (the first GStreamer run on a machine builds its registry).
    explicit Server(const QStringList& args);
    ~Server();
    bool ok() const { return port > 0; }
    QString url(const QString& path, const QString& credentials = QString()) const;
    // Gone at once, like a crashed server: no TEARDOWN, no goodbye.
    void kill();
    // The same arguments, on the same port.
    bool restart();
    QString output();

    int port = 0;

private:
    bool launch(const QStringList& args);
    QStringList args;
    std::unique_ptr<QProcess> process;
    QString log;
};

// One RTSP node in a graph, wired to a sink in another thread.
class Rig {
public:
    explicit Rig(const QVariantMap& data, bool start = true);
    ~Rig();
    void start();
    void stop();
    void setData(const QVariantMap& data);

    QList<Event> events(const QString& name = QString()) const;
    // Runs the test thread's event loop until `done` holds or `ms` passed.
    bool waitUntil(const std::function<bool()>& done, int ms);
    bool waitEvent(const QString& name, int count, int ms);
    void pump(int ms);
    QVariantMap ready(int index = 0) const;

    Sink sink;

private:
    VeskGraph graph;
    QThread sinkThread;
    VeskObject* node = nullptr;
    QList<Event> seen;
};

// Video units of one picture share a pts; a picture is counted once for
// each run of slices (H.264 types 1-5, H.265 types 0-31).
int nalType(const Unit& u, bool h265);
bool isSlice(const Unit& u, bool h265);
int pictures(const QList<Unit>& video, bool h265);

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

// The AAC frames as an ADTS stream (AAC-LC of that rate and channel count).
QByteArray adts(const QList<Unit>& audio, int sampleRate, int channels);

}  // namespace rtsp
