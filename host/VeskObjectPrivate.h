// Host-only state of a node, behind VeskObject::d.
#pragma once

#include <QMutex>
#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "frame/VeskObject.h"
#include "host/VeskBuffers.h"
#include "host/VeskHost.h"

// Everything on its way to one node, in the order it was sent: packets,
// stream announcements, detachments and events. One queued call into the
// node's thread empties it, however much came in meanwhile, so a receiver
// wakes once for a burst of packets instead of once a packet. The drain
// that is under way shares ownership, so it outlives the node's own hold.
struct VeskInbox {
    struct Side {
        std::atomic<int> pending{0};
        std::atomic<quint64> dropped{0};
        std::atomic<quint64> unreported{0};
        std::atomic<qint64> lastReportMs{std::numeric_limits<qint64>::min() / 2};
    };
    Side side[2];  // 0 audio, 1 video

    struct Item {
        int side = -1;  // 0 audio packet, 1 video packet, -1 call
        VeskObject::Packet packet;
        vhost::BlockRef ref;
        std::function<void()> call;
    };
    std::mutex mutex;
    std::vector<Item> items;  // guarded by mutex
    bool scheduled = false;   // a drain is queued or due; guarded by mutex
    // The drain is due but not yet queued: the sending thread queues it once
    // its handler has returned, for everything sent meanwhile. Guarded by
    // mutex, as is owner, which the node clears as it goes.
    bool deferred = false;
    VeskObject* owner = nullptr;
    // The batch being delivered, kept between drains for its capacity; only
    // the node's thread touches it.
    std::vector<Item> draining;
    bool inDrain = false;
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
