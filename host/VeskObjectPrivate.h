// Host-only state of a node, behind VeskObject::d.
#pragma once

#include <QMutex>
#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>

#include "frame/VeskObject.h"
#include "host/VeskBuffers.h"
#include "host/VeskHost.h"

// Counters of the packets waiting for one node. Deliveries in flight share
// ownership, so a delivery discarded after the node is gone still finds them.
struct VeskInbox {
    struct Side {
        std::atomic<int> pending{0};
        std::atomic<quint64> dropped{0};
        std::atomic<quint64> unreported{0};
        std::atomic<qint64> lastReportMs{std::numeric_limits<qint64>::min() / 2};
    };
    Side side[2];  // 0 audio, 1 video
};

class VeskObjectPrivate {
public:
    enum { KindA = 0, KindV = 1, KindEvent = 2, Kinds = 3 };

    QString name;

    // Guards the link lists, lastSent and the monitor. A sender holds it
    // while posting, so once a node is out of a sender's list no posting to
    // it is still under way.
    QMutex linkMutex;
    QList<VeskObject*> down[Kinds];
    QList<VeskObject*> up[Kinds];
    VeskObject::StreamInfo lastSent[2];
    VeskHost::Monitor monitor;

    std::shared_ptr<VeskInbox> inbox = std::make_shared<VeskInbox>();
    vhost::NodePool pool;

    // Blocks that packets in packetsA point into; guarded by lockA.
    struct Pin {
        const char* end = nullptr;
        vhost::BlockRef ref;
        bool used = false;
    };
    std::map<const char*, Pin> pinsA;  // block start -> pin
};
