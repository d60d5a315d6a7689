#include "frame/VeskObject.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QGenericArgument>
#include <QMetaMethod>
#include <QMutexLocker>
#include <QThread>
#include <mutex>

#include "host/VeskDispatcher.h"
#include "host/VeskHost.h"
#include "host/VeskObjectPrivate.h"

// Delivery between nodes.
//
// Every delivery is queued into the receiver's thread, also when sender and
// receiver share one: a node's handler never runs inside another node's
// stack. Deliveries to one node keep the order they were sent in, and a
// burst of them costs the receiver's thread one wake-up (see VeskInbox).
// Packets travel by value and point into the sender's pool; each delivery
// holds the Packet's block until the receiver's handler returned.
//
// shareDepth bounds the backlog of a receiver: at most shareDepth * 16
// packets may wait for delivery to one node in one direction (audio and
// video counted apart), so shareDepth 2 allows 32. A packet beyond that is
// dropped for that receiver alone, counted, and reported at most once a
// second. A receiver that cannot keep up thus loses packets instead of
// making the process grow without bound, and never slows its sender or the
// other receivers down.

namespace {

int sideOf(VeskHost::LinkKind kind)
{
    return kind == VeskHost::LinkA ? 0 : 1;
}

qint64 nowMs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return clock.elapsed();
}

void reportDrop(VeskObject* to, int side, int limit)
{
    VeskInbox::Side& s = to->d->inbox->side[side];
    s.dropped.fetch_add(1);
    s.unreported.fetch_add(1);
    const qint64 now = nowMs();
    qint64 last = s.lastReportMs.load();
    if (now - last < 1000 || !s.lastReportMs.compare_exchange_strong(last, now)) return;
    const quint64 n = s.unreported.exchange(0);
    qWarning().noquote() << QStringLiteral("[%1] %2 queue full (%3 waiting): dropped %4, %5 in all")
                                .arg(to->name(),
                                     side == 0 ? QStringLiteral("audio") : QStringLiteral("video"))
                                .arg(limit)
                                .arg(n)
                                .arg(s.dropped.load());
}

// Delivers what waits in the inbox, in order, in the node's thread.
void drain(VeskObject* to, const std::shared_ptr<VeskInbox>& box)
{
    // A handler that spins the event loop may get here again: the nested
    // drain takes a batch of its own.
    std::vector<VeskInbox::Item> local;
    const bool nested = box->inDrain;
    std::vector<VeskInbox::Item>& batch = nested ? local : box->draining;
    {
        std::lock_guard<std::mutex> lock(box->mutex);
        batch.swap(box->items);
        box->scheduled = false;
    }
    box->inDrain = true;
    for (VeskInbox::Item& item : batch) {
        if (item.side == 0)
            to->onNewPacketA(item.packet);
        else if (item.side == 1)
            to->onNewPacketV(item.packet);
        else
            item.call();
        if (item.side >= 0) {
            // The block goes back as soon as the handler is done with it.
            item.ref = vhost::BlockRef();
            box->side[item.side].pending.fetch_sub(1);
        }
    }
    batch.clear();
    box->inDrain = nested;
}

void queueDrain(VeskObject* to, const std::shared_ptr<VeskInbox>& box)
{
    std::shared_ptr<VeskInbox> hold = box;
    QMetaObject::invokeMethod(
        to, [to, hold] { drain(to, hold); }, Qt::QueuedConnection);
}

// Inboxes whose drain this thread's handler has left for when it returns.
thread_local std::vector<std::shared_ptr<VeskInbox>> dueDrains;

void queueDueDrains()
{
    std::vector<std::shared_ptr<VeskInbox>> boxes;
    boxes.swap(dueDrains);
    for (const std::shared_ptr<VeskInbox>& box : boxes) {
        // Under the lock: the node cannot go while its drain is queued.
        std::lock_guard<std::mutex> lock(box->mutex);
        // A call since, or the node's end, has settled it meanwhile.
        if (!box->deferred || !box->owner) continue;
        box->deferred = false;
        queueDrain(box->owner, box);
    }
}

// Queues one item for `to`, and the drain that delivers it unless one is
// queued already. Caller holds the sender's linkMutex.
//
// A packet sent from a socket's or a timer's handler in a node thread has
// its drain queued only when that handler returns: a source that sends a
// burst from one handler wakes each receiver's thread once for all of it,
// where a drain queued at once often found the receiver asleep again after
// a few packets and woke it anew (four wake-ups for a burst of 32). Calls
// (announcements, events, detachments) are not held back; one queues the
// drain at once, for the packets before it too.
void enqueue(VeskObject* to, VeskInbox::Item&& item)
{
    const std::shared_ptr<VeskInbox>& box = to->d->inbox;
    const bool packet = item.side >= 0;
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(box->mutex);
        box->items.push_back(std::move(item));
        if (!box->scheduled) {
            box->scheduled = true;
            if (packet && VeskDispatcher::whenHandlerReturns(&queueDueDrains)) {
                box->deferred = true;
                dueDrains.push_back(box);
            } else {
                wake = true;
            }
        } else if (!packet && box->deferred) {
            box->deferred = false;
            wake = true;
        }
    }
    if (wake) queueDrain(to, box);
}

// Caller holds from's linkMutex.
void postPacket(VeskObject* to, int side, const VeskObject::Packet& packet,
                const vhost::BlockRef& ref)
{
    const int limit = VeskHost::queueLimit(to);
    VeskInbox::Side& s = to->d->inbox->side[side];
    if (s.pending.fetch_add(1) >= limit) {
        s.pending.fetch_sub(1);
        reportDrop(to, side, limit);
        return;
    }
    VeskInbox::Item item;
    item.side = side;
    item.packet = packet;
    item.ref = ref;
    enqueue(to, std::move(item));
}

void postCall(VeskObject* to, std::function<void()> call)
{
    VeskInbox::Item item;
    item.call = std::move(call);
    enqueue(to, std::move(item));
}

void sendPacket(VeskObject* from, int kind, const VeskObject::Packet& packet)
{
    VeskObjectPrivate* d = from->d;
    QMutexLocker lock(&d->linkMutex);
    if (d->down[kind].isEmpty()) return;
    // Usually a buffer the sender has just filled: found in its own pool
    // without the process-wide lookup.
    vhost::BlockRef ref = d->pool.find(packet.data);
    if (!ref) ref = vhost::BlockRef::find(packet.data);
    for (VeskObject* to : d->down[kind]) postPacket(to, kind, packet, ref);
}

// Caller holds from's linkMutex.
void postInfo(VeskObject* to, int kind, const VeskObject::StreamInfo& info)
{
    postCall(to, [to, kind, info] {
        if (kind == VeskObjectPrivate::KindA) {
            to->keptInfoA = info;
            to->onNewInfoA(info);
        } else {
            to->keptInfoV = info;
            to->onNewInfoV(info);
        }
    });
}

void sendInfo(VeskObject* from, int kind, const VeskObject::StreamInfo& info)
{
    VeskObjectPrivate* d = from->d;
    QMutexLocker lock(&d->linkMutex);
    d->lastSent[kind] = info;
    for (VeskObject* to : d->down[kind]) postInfo(to, kind, info);
    if (d->monitor)
        d->monitor(
            kind == VeskObjectPrivate::KindA ? QStringLiteral("infoA") : QStringLiteral("infoV"),
            VeskHost::streamInfoToVariant(info));
}

void deliverEvent(VeskObject* from, const QString& name, const QVariant& value)
{
    VeskObjectPrivate* d = from->d;
    QMutexLocker lock(&d->linkMutex);
    for (VeskObject* to : d->down[VeskObjectPrivate::KindEvent])
        postCall(to, [to, name, value] { to->onNewEvent(name, value); });
}

int kindIndex(int bit)
{
    return bit == VeskHost::LinkA   ? VeskObjectPrivate::KindA
           : bit == VeskHost::LinkV ? VeskObjectPrivate::KindV
                                    : VeskObjectPrivate::KindEvent;
}

// ---- invoke ----------------------------------------------------------------

// Holds one argument in the parameter's own type for QMetaMethod::invoke.
struct Arg {
    QVariant value;
    QByteArray typeName;
    bool isVariant = false;

    QGenericArgument generic() const
    {
        return QGenericArgument(typeName.constData(),
                                isVariant ? static_cast<const void*>(&value) : value.constData());
    }
};

bool prepare(const QVariant& in, const QMetaMethod& m, int index, Arg* out)
{
    const int type = m.parameterType(index);
    out->typeName = m.parameterTypes().at(index);
    if (type == QMetaType::QVariant) {
        out->isVariant = true;
        out->value = in;
        return true;
    }
    if (type == QMetaType::UnknownType) return false;
    QVariant v = in;
    if (v.userType() == type || v.convert(type)) {
        out->value = v;
        return true;
    }
    out->value = QVariant(type, nullptr);
    return !in.isValid();
}

// Picks the overload that fits the argument best; among equals the most
// derived class wins, since its methods come last.
int pickMethod(const QMetaObject* mo, const QByteArray& name, const QVariant& arg)
{
    const bool isList = arg.userType() == QMetaType::QVariantList;
    const int listSize = isList ? arg.toList().size() : 0;
    int best = -1, bestScore = -1;
    for (int i = mo->methodCount() - 1; i >= 0; --i) {
        const QMetaMethod m = mo->method(i);
        if (m.methodType() != QMetaMethod::Slot && m.methodType() != QMetaMethod::Method) continue;
        if (m.name() != name) continue;
        const int n = m.parameterCount();
        int score = 0;
        if (n > 1 && isList)
            score = n == listSize ? 4 : 2;
        else if (n == 1)
            score = arg.isValid() ? 3 : 1;
        else if (n == 0)
            score = arg.isValid() ? 1 : 3;
        if (score > bestScore) {
            best = i;
            bestScore = score;
        }
    }
    return best;
}

QVariant invokeHere(VeskObject* self, const QString& method, const QVariant& arg)
{
    const QMetaObject* mo = self->metaObject();
    const int index = pickMethod(mo, method.toLatin1(), arg);
    if (index < 0) {
        qWarning().noquote() << QStringLiteral("[%1] invoke: no method \"%2\" in %3")
                                    .arg(self->name(), method, QLatin1String(mo->className()));
        return QVariant();
    }
    // From here on a method of that name exists; one whose parameters do
    // not fit the argument fails without a word, as a node's callers expect
    // of a call by name.
    const QMetaMethod m = mo->method(index);
    const int n = m.parameterCount();
    if (n > 10) return QVariant();

    QVariantList values;
    if (n > 1 && arg.userType() == QMetaType::QVariantList)
        values = arg.toList();
    else if (n >= 1)
        values << arg;

    Arg args[10];
    for (int i = 0; i < n; ++i) {
        QVariant in = values.value(i);
        bool ok = prepare(in, m, i, &args[i]);
        // A single value wrapped in a list is meant as that value.
        if (!ok && n == 1 && in.userType() == QMetaType::QVariantList && in.toList().size() == 1)
            ok = prepare(in.toList().first(), m, i, &args[i]);
        if (!ok) return QVariant();
    }

    QVariant result;
    QGenericReturnArgument ret;
    const int rt = m.returnType();
    if (rt == QMetaType::QVariant) {
        ret = QGenericReturnArgument("QVariant", &result);
    } else if (rt != QMetaType::Void && rt != QMetaType::UnknownType) {
        result = QVariant(rt, nullptr);
        ret = QGenericReturnArgument(m.typeName(), result.data());
    }
    const bool ok =
        m.invoke(self, Qt::DirectConnection, ret, args[0].generic(), args[1].generic(),
                 args[2].generic(), args[3].generic(), args[4].generic(), args[5].generic(),
                 args[6].generic(), args[7].generic(), args[8].generic(), args[9].generic());
    return ok ? result : QVariant();
}

}  // namespace

// ---- VeskObject --------------------------------------------------------------

VeskObject::VeskObject(QObject* parent) : QObject(parent), d(new VeskObjectPrivate)
{
    VeskHost::registerMetaTypes();
    d->inbox->owner = this;
}

VeskObject::~VeskObject()
{
    VeskHost::detach(this);
    {
        // A drain still due in a sender's thread is not queued for us now.
        std::lock_guard<std::mutex> lock(d->inbox->mutex);
        d->inbox->owner = nullptr;
    }
    {
        QWriteLocker lock(&lockA);
        d->pinsA.clear();
    }
    d->pool.clear();
    delete d;
    d = nullptr;
}

void VeskObject::setData(QMap<QString, QVariant> newData)
{
    // data[key] inserts a key it does not know, as an invalid value: a new
    // key whose value is invalid too is then no change, but stands in data.
    for (auto it = newData.begin(); it != newData.end();) {
        QVariant& current = data[it.key()];
        if (current == it.value()) {
            it = newData.erase(it);
            continue;
        }
        current = it.value();
        ++it;
    }
    // Nodes rebuild unconditionally in onSetData, and a stable signal is
    // reported again every second: only a real change may get through.
    if (!newData.isEmpty()) onSetData(newData);
}

void VeskObject::start()
{
    onStart();
}

void VeskObject::stop()
{
    onStop();
}

QVariant VeskObject::invoke(QString method, QVariant arg)
{
    QThread* own = thread();
    if (own == QThread::currentThread() || !own || !own->isRunning())
        return invokeHere(this, method, arg);
    QVariant result;
    QMetaObject::invokeMethod(
        this, [&] { result = invokeHere(this, method, arg); }, Qt::BlockingQueuedConnection);
    return result;
}

QString VeskObject::name() const
{
    if (d && !d->name.isEmpty()) return d->name;
    return QString::fromLatin1(metaObject()->className());
}

void VeskObject::setName(const QString& name)
{
    d->name = name;
    setObjectName(name);
}

void VeskObject::sendEvent(QString event, QVariant value)
{
    emit raised(event, value);
    deliverEvent(this, event, value);
}

void VeskObject::newEvent(QString event, QVariant value)
{
    sendEvent(event, value);
}

void VeskObject::sendInfoA(StreamInfo info)
{
    sendInfo(this, VeskObjectPrivate::KindA, info);
}

void VeskObject::sendInfoV(StreamInfo info)
{
    sendInfo(this, VeskObjectPrivate::KindV, info);
}

void VeskObject::sendPacketA(Packet packet)
{
    sendPacket(this, VeskObjectPrivate::KindA, packet);
}

void VeskObject::sendPacketV(Packet packet)
{
    sendPacket(this, VeskObjectPrivate::KindV, packet);
}

char* VeskObject::bufferData(char* src, int len, int headroom)
{
    return d->pool.take(src, len, headroom, name());
}

int VeskObject::bufferPacketA(Packet packet)
{
    if (!packet.data || packet.len < 0) return 0;
    while (!lockA.tryLockForWrite(10)) {
    }
    packetsA.append(packet);

    // Nodes trim packetsA on their own, so the pins are swept here: a block
    // stays pinned exactly while some queued packet still points into it.
    auto& pins = d->pinsA;
    for (auto& pin : pins) pin.second.used = false;
    for (const Packet& p : qAsConst(packetsA)) {
        const char* a = p.data;
        auto it = pins.upper_bound(a);
        if (it != pins.begin() && a < std::prev(it)->second.end) {
            std::prev(it)->second.used = true;
            continue;
        }
        vhost::BlockRef ref = vhost::BlockRef::find(a);
        if (!ref) continue;
        VeskObjectPrivate::Pin& pin = pins[ref.begin()];
        pin.end = ref.end();
        pin.ref = std::move(ref);
        pin.used = true;
    }
    for (auto it = pins.begin(); it != pins.end();)
        it = it->second.used ? std::next(it) : pins.erase(it);
    lockA.unlock();
    return 1;
}

// Base slots: a node overrides what it needs.
void VeskObject::onNewPacketA(VeskObject::Packet) {}
void VeskObject::onNewPacketV(VeskObject::Packet) {}
void VeskObject::onUnVeskA(VeskObject::StreamInfo) {}
void VeskObject::onUnVeskV(VeskObject::StreamInfo) {}
void VeskObject::onNewEvent(QString, QVariant) {}
void VeskObject::onNewInfoA(VeskObject::StreamInfo) {}
void VeskObject::onNewInfoV(VeskObject::StreamInfo) {}
void VeskObject::onSetData(QMap<QString, QVariant>) {}
void VeskObject::onStart() {}
void VeskObject::onStop() {}

// ---- wiring -------------------------------------------------------------------

namespace VeskHost {

void registerMetaTypes()
{
    static std::once_flag once;
    std::call_once(once, [] {
        qRegisterMetaType<VeskObject::Packet>("VeskObject::Packet");
        qRegisterMetaType<VeskObject::StreamInfo>("VeskObject::StreamInfo");
    });
}

// At load as well, for library code that queues these types by name before
// any node exists.
static const bool metaTypesAtLoad = (registerMetaTypes(), true);

void link(VeskObject* from, VeskObject* to, int kinds)
{
    if (!from || !to) return;
    for (int bit : {LinkA, LinkV, LinkEvent}) {
        if (!(kinds & bit)) continue;
        const int k = kindIndex(bit);
        {
            QMutexLocker lock(&from->d->linkMutex);
            if (from->d->down[k].contains(to)) continue;
            from->d->down[k].append(to);
            if (k != VeskObjectPrivate::KindEvent && from->d->lastSent[k].type != 0)
                postInfo(to, k, from->d->lastSent[k]);
        }
        QMutexLocker lock(&to->d->linkMutex);
        to->d->up[k].append(from);
    }
}

void unlink(VeskObject* from, VeskObject* to, int kinds)
{
    if (!from || !to) return;
    for (int bit : {LinkA, LinkV, LinkEvent}) {
        if (!(kinds & bit)) continue;
        const int k = kindIndex(bit);
        VeskObject::StreamInfo last;
        {
            QMutexLocker lock(&from->d->linkMutex);
            if (!from->d->down[k].removeOne(to)) continue;
            if (k != VeskObjectPrivate::KindEvent) last = from->d->lastSent[k];
        }
        {
            QMutexLocker lock(&to->d->linkMutex);
            to->d->up[k].removeOne(from);
        }
        if (k == VeskObjectPrivate::KindEvent) continue;
        postCall(to, [to, k, last] {
            if (k == VeskObjectPrivate::KindA) {
                to->onUnVeskA(last);
                to->keptInfoA = VeskObject::StreamInfo();
            } else {
                to->onUnVeskV(last);
                to->keptInfoV = VeskObject::StreamInfo();
            }
        });
    }
}

void detach(VeskObject* node)
{
    if (!node || !node->d) return;
    QList<VeskObject*> up[VeskObjectPrivate::Kinds], down[VeskObjectPrivate::Kinds];
    {
        QMutexLocker lock(&node->d->linkMutex);
        for (int k = 0; k < VeskObjectPrivate::Kinds; ++k) {
            up[k].swap(node->d->up[k]);
            down[k].swap(node->d->down[k]);
        }
    }
    // One lock at a time: two nodes detaching from each other cannot deadlock.
    for (int k = 0; k < VeskObjectPrivate::Kinds; ++k) {
        for (VeskObject* u : qAsConst(up[k])) {
            QMutexLocker lock(&u->d->linkMutex);
            u->d->down[k].removeAll(node);
        }
        for (VeskObject* t : qAsConst(down[k])) {
            QMutexLocker lock(&t->d->linkMutex);
            t->d->up[k].removeAll(node);
        }
    }
}

QList<VeskObject*> downstream(VeskObject* node, LinkKind kind)
{
    QMutexLocker lock(&node->d->linkMutex);
    return node->d->down[kindIndex(kind)];
}

void setMonitor(VeskObject* node, Monitor monitor)
{
    QMutexLocker lock(&node->d->linkMutex);
    node->d->monitor = std::move(monitor);
}

int queueLimit(const VeskObject* node)
{
    return qMax(1, node->shareDepth) * 16;
}

quint64 droppedPackets(const VeskObject* node, LinkKind kind)
{
    return node->d->inbox->side[sideOf(kind)].dropped.load();
}

int pendingPackets(const VeskObject* node, LinkKind kind)
{
    return node->d->inbox->side[sideOf(kind)].pending.load();
}

QVariantMap streamInfoToVariant(const VeskObject::StreamInfo& info)
{
    return QVariantMap{{QStringLiteral("type"), info.type},
                       {QStringLiteral("params"), info.params},
                       {QStringLiteral("opaque"), info.opaque}};
}

}  // namespace VeskHost
