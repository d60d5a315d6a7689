// Shared by the network and file source tests: a graph with one source and
// a recording sink, the media of make_media.sh, peers run as child
// processes, and ffprobe as the judge of what the sources deliver.
#pragma once

#include <QProcess>
#include <QStringList>
#include <memory>

#include "source_rig.h"

namespace rig {

using srcrig::Event;
using srcrig::ffprobe;
using srcrig::hostNow;
using srcrig::Probe;
using srcrig::Sink;
using srcrig::Unit;

// One source, created by class name; the sink in a thread of its own.
class Rig : public srcrig::Rig {
public:
    Rig();
    ~Rig();
    // Applies `data`, then starts the node without waiting for onStart: a
    // network source opens inside it, and the test must stay free to start
    // the peer it waits for and to see events as they come.
    void add(const QString& className, const QVariantMap& data, bool start = true);
    QVariant invoke(const QString& method, const QVariant& arg = QVariant());
    QVariantMap data();  // a copy, read in the node's thread
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

// The parameter sets of an HEVC configuration record, start-coded.
QByteArray hvccToAnnexB(const QByteArray& hvcc);

int openFds();
qint64 heapInUse();  // from the sanitizer's allocator when there is one

}  // namespace rig
