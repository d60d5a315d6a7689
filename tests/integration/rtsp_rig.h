// What the RTSP tests share: the real server (scripts/rtsp-server.py) as a
// child process, one VeskInputRtsp in a graph with a recording sink in a
// thread of its own, and ffprobe as the judge of what came out.
#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <memory>

#include "source_rig.h"

namespace rtsp {

using srcrig::Event;
using srcrig::ffprobe;
using srcrig::hostNow;
using srcrig::Probe;
using srcrig::Sink;
using srcrig::Unit;

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
class Rig : public srcrig::Rig {
public:
    explicit Rig(const QVariantMap& data, bool start = true);
    void start();
    void stop();
};

// Video units of one picture share a pts; a picture is counted once for
// each run of slices (H.264 types 1-5, H.265 types 0-31).
int nalType(const Unit& u, bool h265);
bool isSlice(const Unit& u, bool h265);
int pictures(const QList<Unit>& video, bool h265);

// The AAC frames as an ADTS stream (AAC-LC of that rate and channel count).
QByteArray adts(const QList<Unit>& audio, int sampleRate, int channels);

}  // namespace rtsp
