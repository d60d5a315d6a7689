// The sink of the programs that play the host for VeskInputRtsp nodes
// (rtsp-sink, rtsp-many): it only counts what arrives, so that what the run
// costs is the node's work and the host's delivery.
#pragma once

#include <QCoreApplication>
#include <QString>
#include <QThread>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"

class CountingSink : public VeskObject {
public:
    explicit CountingSink(const QString& name)
    {
        setName(name);
        // Room for a whole socket read's worth of units in one queue.
        shareDepth = 64;
    }
    void onNewPacketV(VeskObject::Packet p) override
    {
        videoPackets.fetch_add(1, std::memory_order_relaxed);
        videoBytes.fetch_add(p.len, std::memory_order_relaxed);
        if (p.frameType == 0) keyPackets.fetch_add(1, std::memory_order_relaxed);
        if (p.len < 4 || std::memcmp(p.data, "\0\0\0\1", 4) != 0)
            badStart.fetch_add(1, std::memory_order_relaxed);
        if (dump) std::fwrite(p.data, 1, size_t(p.len), dump);
    }
    void onNewPacketA(VeskObject::Packet) override
    {
        audioPackets.fetch_add(1, std::memory_order_relaxed);
    }

    // Once its node has stopped: counts what was still queued for it,
    // unlinks it and brings it home to the calling thread. The packets the
    // host dropped on its links.
    quint64 takeBack()
    {
        VeskGraph::runIn(this, [] {});
        const quint64 dropped = VeskHost::droppedPackets(this, VeskHost::LinkA) +
                                VeskHost::droppedPackets(this, VeskHost::LinkV);
        VeskHost::detach(this);
        QThread* home = QThread::currentThread();
        VeskGraph::runIn(this, [&] { moveToThread(home); });
        return dropped;
    }

    // Read from other threads while the node runs.
    std::atomic<qint64> videoPackets{0}, videoBytes{0}, keyPackets{0}, badStart{0}, audioPackets{0};
    FILE* dump = nullptr;  // the video units as they came, when set
};

// Why the run ended: the first reason given ends the event loop.
struct RunEnd {
    QString why;
    void operator()(const QString& reason)
    {
        if (!why.isEmpty()) return;
        why = reason;
        QCoreApplication::quit();
    }
};

// Debug lines only with -v: the nodes log every step of their sessions.
inline bool verboseLog = false;

inline void quietDebug(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg && !verboseLog) return;
    std::fprintf(stderr, "%s\n", qPrintable(text));
}
