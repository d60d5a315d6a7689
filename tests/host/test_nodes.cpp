// The node side of the host: the setData contract, invoke, threads, and the
// delivery of events, stream descriptions and packets between nodes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QMutex>
#include <QMutexLocker>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <cstring>
#include <thread>

#include "HostTestUtil.h"
#include "frame/VeskObject.h"
#include "frame/VeskRegister.h"
#include "host/VeskBuffers.h"
#include "host/VeskDispatcher.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"

using Packet = VeskObject::Packet;
using StreamInfo = VeskObject::StreamInfo;

class Probe : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit Probe(QObject* parent = nullptr) : VeskObject(parent)
    {
        data["width"] = 1920;
        data["mode"] = "auto";
    }

    Q_INVOKABLE int add(int a, int b) { return a + b; }
    Q_INVOKABLE int count(QVariantList list) { return list.size(); }
    Q_INVOKABLE QVariant whereAmI() { return QThread::currentThread()->objectName(); }
    Q_INVOKABLE void touch() { touched = true; }

    QList<QVariantMap> changes;
    QString startedIn;
    bool touched = false;

public slots:
    void onSetData(QMap<QString, QVariant> newData) override { changes << newData; }
    void onStart() override { startedIn = QThread::currentThread()->objectName(); }
};
VESK_REGISTER(Probe)

// Runs on the thread everything with shareName "share" uses.
class Shared : public Probe {
    Q_OBJECT
public:
    Q_INVOKABLE explicit Shared(QObject* parent = nullptr) : Probe(parent) { shareName = "share"; }
};
VESK_REGISTER(Shared)

// Records what reaches it, copying payloads at the moment of delivery, and
// notes everything else with the thread it arrived in.
class Recorder : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit Recorder(QObject* parent = nullptr) : VeskObject(parent) {}

    // A copy of one of the lists below, taken under the lock.
    template <typename T>
    T copy(const T& list) const
    {
        QMutexLocker l(&mutex);
        return list;
    }

public slots:
    void onNewPacketV(VeskObject::Packet p) override
    {
        note(QString("pts %1, dts %2, type %3").arg(p.pts).arg(p.dts).arg(p.frameType));
        QMutexLocker l(&mutex);
        payloads << qMakePair(p.data, QByteArray(p.data, p.len));
    }
    void onNewInfoV(VeskObject::StreamInfo info) override
    {
        note(QString("infoV %1, kept %2").arg(info.type).arg(keptInfoV.params == info.params));
    }
    void onUnVeskV(VeskObject::StreamInfo info) override { note(QString("unV %1").arg(info.type)); }
    void onNewEvent(QString event, QVariant value) override
    {
        note(event + "=" + value.toString());
    }

private:
    void note(const QString& text)
    {
        QMutexLocker l(&mutex);
        noted << text + "@" + QThread::currentThread()->objectName();
    }
    mutable QMutex mutex;

public:
    QStringList noted;
    QList<QPair<const char*, QByteArray>> payloads;
};
VESK_REGISTER(Recorder)

namespace {

QByteArray pattern(int seed, int len)
{
    QByteArray b(len, Qt::Uninitialized);
    for (int i = 0; i < len; ++i) b[i] = char((seed * 31 + i * 7) & 0xFF);
    return b;
}

template <typename T>
T* make(VeskGraph& g, const QString& cls, const QString& name, const QString& thread = {})
{
    QString error;
    auto* n = qobject_cast<T*>(g.create(cls, name, thread, &error));
    EXPECT_NE(n, nullptr) << error.toStdString();
    return n;
}

}  // namespace

// ---- node contract -------------------------------------------------------------

TEST(Nodes, SetDataReportsRealChangesInvokeAndShareNameThreads)
{
    VeskGraph g;
    auto* p = make<Probe>(g, "Probe", "p");
    auto* a = make<Shared>(g, "Shared", "a");
    auto* b = make<Shared>(g, "Shared", "b");
    auto* d = make<Probe>(g, "Probe", "d", "custom");
    g.startAll();
    EXPECT_EQ(a->thread(), b->thread());
    EXPECT_NE(p->thread(), a->thread());
    EXPECT_EQ(QStringList({p->startedIn, a->startedIn, b->startedIn, d->startedIn}),
              QStringList({"p", "share", "share", "custom"}));

    // Same values as the defaults: nothing reaches the node.
    g.setData("p", {{"width", 1920}, {"mode", "auto"}});
    EXPECT_TRUE(p->changes.isEmpty());
    // A new key compares against an invalid value: an invalid one is no
    // change, yet stands in data afterwards.
    g.setData("p", {{"width", 1280}, {"mode", "auto"}, {"extra", true}, {"none", QVariant()}});
    ASSERT_EQ(p->changes.size(), 1);
    EXPECT_EQ(p->changes[0], (QVariantMap{{"width", 1280}, {"extra", true}}));
    const QVariantMap merged{
        {"width", 1280}, {"mode", "auto"}, {"extra", true}, {"none", QVariant()}};
    EXPECT_EQ(p->data, merged);
    // A stable signal reports the same map every second.
    for (int i = 0; i < 3; ++i) g.setData("p", merged);
    EXPECT_EQ(p->changes.size(), 1);

    // invoke spreads lists, converts arguments and runs in the node's thread.
    EXPECT_EQ(p->invoke("add", QVariantList{2, 3}), QVariant(5));
    EXPECT_EQ(p->invoke("add", QVariantList{"40", 2}).toInt(), 42);
    // One parameter of list type takes the whole list.
    EXPECT_EQ(p->invoke("count", QVariantList{1, 2, 3}), QVariant(3));
    EXPECT_FALSE(p->invoke("touch").isValid());
    EXPECT_TRUE(p->touched);
    EXPECT_FALSE(p->invoke("noSuchMethod", 1).isValid());
    // A method of that name whose parameters the argument does not fit is
    // not called.
    EXPECT_FALSE(p->invoke("add", QVariantList{"forty", 2}).isValid());
    EXPECT_EQ(g.invoke("d", "whereAmI").toString(), "custom");
}

// ---- packets -----------------------------------------------------------------

TEST(Packets, FanOutAndBufferPacketAOutliveLaterBuffersAndAFullQueueDropsForItsReceiverOnly)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    Recorder* rs[] = {make<Recorder>(g, "Recorder", "r1"), make<Recorder>(g, "Recorder", "r2"),
                      make<Recorder>(g, "Recorder", "slow")};
    rs[0]->shareDepth = rs[1]->shareDepth = 2;  // 32 packets may wait
    rs[2]->shareDepth = 1;                      // 16
    Gate gates[3];
    for (int i = 0; i < 3; ++i) {
        g.link("src", rs[i]->name(), VeskHost::LinkV);
        gates[i].close(rs[i]);
    }
    Recorder* sink = rs[1];  // also queues every packet for itself

    const int n = 24, len = 3000;
    const QByteArray table = pattern(99, 420);
    QList<const char*> sent;
    VeskGraph::runIn(src, [&] {
        for (int i = 0; i < n; ++i) {
            const QByteArray body = pattern(i, len);
            Packet p;
            p.data = src->bufferData(const_cast<char*>(body.constData()), len, 420);
            p.len = len;
            p.pts = 1000 + i;
            p.frameType = i % 2;
            if (i == 0) {
                // A source prepends a table by moving data back into the headroom.
                p.data -= table.size();
                p.len += table.size();
                std::memcpy(p.data, table.constData(), size_t(table.size()));
            }
            sent << p.data;
            src->sendPacketV(p);
            EXPECT_EQ(sink->bufferPacketA(p), 1);
        }
        // Far more than the pool's window: freed blocks, headroom included,
        // would be reused here and overwritten.
        for (int i = 0; i < 4 * vhost::NodePool::kWindow; ++i)
            std::memset(src->bufferData(nullptr, len, 420) - 420, 0xEE, len + 420);
        EXPECT_EQ(src->bufferData(nullptr, -1, 0), nullptr);
        EXPECT_EQ(src->bufferData(nullptr, 1 << 30, 0), nullptr);
        EXPECT_NE(src->bufferData(nullptr, 0, 10), nullptr);
    });
    EXPECT_EQ(VeskHost::droppedPackets(rs[0], VeskHost::LinkV), 0u);
    EXPECT_EQ(VeskHost::droppedPackets(rs[2], VeskHost::LinkV), 8u);
    for (Gate& gate : gates) gate.open();
    auto payload = [&](int i) { return (i == 0 ? table : QByteArray()) + pattern(i, len); };
    for (Recorder* r : rs) {
        const int expected = r == rs[2] ? 16 : n;
        ASSERT_TRUE(waitFor([&] {
            return r->copy(r->noted).size() == expected &&
                   VeskHost::pendingPackets(r, VeskHost::LinkV) == 0;
        }));
        const auto got = r->copy(r->payloads);
        const QStringList notes = r->copy(r->noted);
        for (int i = 0; i < expected; ++i) {
            EXPECT_EQ(got[i].first, sent[i]);
            EXPECT_EQ(got[i].second, payload(i)) << i;
            EXPECT_EQ(
                notes[i],
                QString("pts %1, dts -1, type %2@%3").arg(1000 + i).arg(i % 2).arg(r->name()));
        }
    }
    ASSERT_EQ(sink->packetsA.size(), n);
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(QByteArray(sink->packetsA[i].data, sink->packetsA[i].len), payload(i)) << i;

    EXPECT_EQ(sink->bufferPacketA(Packet()), 0);
    Packet again = sink->packetsA.last();
    again.len = -1;
    EXPECT_EQ(sink->bufferPacketA(again), 0);
    again.len = len;
    // Trimmed packets lose their pin with the next call.
    const size_t before = vhost::liveBlocks();
    {
        QWriteLocker lock(&sink->lockA);
        sink->packetsA.erase(sink->packetsA.begin(), sink->packetsA.begin() + 4);
    }
    EXPECT_EQ(sink->bufferPacketA(again), 1);
    EXPECT_EQ(vhost::liveBlocks(), before - 4);

    // A trimming thread that takes the lock as audio sinks do loses nothing.
    const int m = 3000, queued = sink->packetsA.size();
    std::atomic<bool> done{false};
    int trimmed = 0;
    std::thread trimmer([&] {
        for (;;) {
            // Read before the lock: once set, every append is in the list.
            const bool finished = done;
            while (!sink->lockA.tryLockForWrite(10)) {
            }
            trimmed += sink->packetsA.size();
            sink->packetsA.clear();
            sink->lockA.unlock();
            if (finished) break;
        }
    });
    for (int i = 0; i < m; ++i) sink->bufferPacketA(again);
    done = true;
    trimmer.join();
    EXPECT_EQ(trimmed, m + queued);
}

TEST(Packets, ASendersOrderHoldsAcrossKindsAndANodeThreadRunsTimersAndSocketsTooLeavingNoBlocks)
{
    const size_t blocksBefore = vhost::liveBlocks();
    {
        VeskGraph g;
        auto* src = make<Probe>(g, "Probe", "src");
        auto* r = make<Recorder>(g, "Recorder", "r");
        auto* parked = make<Recorder>(g, "Recorder", "parked");
        for (const char* to : {"r", "parked"})
            g.link("src", to, VeskHost::LinkV | VeskHost::LinkEvent);
        Gate gate;
        gate.close(parked);

        // One handler sends everything: the receiver in its own thread
        // gets it in that order, whatever it batches.
        VeskGraph::runIn(src, [&] {
            auto send = [&](int pts) {
                Packet p;
                p.data = src->bufferData(nullptr, 100, 20);
                p.len = 100;
                p.pts = pts;
                src->sendPacketV(p);
            };
            StreamInfo info;
            info.type = 4;
            src->sendInfoV(info);
            send(1);
            send(2);
            src->sendEvent("mid", 7);
            info.type = 5;
            src->sendInfoV(info);
            send(3);
        });
        const QStringList want = {"infoV 4, kept 1@r",       "pts 1, dts -1, type 0@r",
                                  "pts 2, dts -1, type 0@r", "mid=7@r",
                                  "infoV 5, kept 1@r",       "pts 3, dts -1, type 0@r"};
        ASSERT_TRUE(waitFor([&] { return r->copy(r->noted).size() == want.size(); }));
        EXPECT_EQ(r->copy(r->noted), want);

        // Timers and socket notifiers of a node's thread.
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        std::atomic<int> fired{0}, readable{0};
        QSocketNotifier* notifier = nullptr;
        VeskGraph::runIn(r, [&] {
            QTimer::singleShot(30, r, [&] { fired += 1; });
            notifier = new QSocketNotifier(fds[0], QSocketNotifier::Read, r);
            QObject::connect(notifier, &QSocketNotifier::activated, r, [&] {
                char c;
                if (read(fds[0], &c, 1) == 1) readable += 1;
            });
        });
        ASSERT_EQ(write(fds[1], "x", 1), 1);
        ASSERT_TRUE(waitFor([&] { return fired == 1 && readable == 1; }));
        QThread::msleep(50);
        EXPECT_EQ(fired.load(), 1);
        VeskGraph::runIn(r, [&] { delete notifier; });
        close(fds[0]);
        close(fds[1]);
        // Deliveries still queued as the graph goes are let go with it.
        EXPECT_EQ(VeskHost::pendingPackets(parked, VeskHost::LinkV), 3);
        gate.open();
    }
    EXPECT_EQ(vhost::liveBlocks(), blocksBefore);
}

// A source's timer sends bursts with a little work between the packets, as
// a network source does for each record of a read. However soon the
// receiver's thread could run, it wakes at most once a burst; an event sent
// in the middle of one still goes at once, behind the packets before it.
TEST(Packets, ATimersBurstWakesItsReceiverOnceAndEventsAreNotHeldBack)
{
    constexpr int kBursts = 8, kPerBurst = 16, kMarked = 3;
    class Sink : public VeskObject {
    public:
        void onNewPacketV(VeskObject::Packet p) override
        {
            QMutexLocker l(&mutex);
            got << qMakePair(p.pts, wakes.load());
        }
        void onNewEvent(QString, QVariant) override
        {
            {
                QMutexLocker l(&mutex);
                got << qMakePair(qint64(-1), wakes.load());
            }
            marked.release();
        }
        QMutex mutex;
        QList<QPair<qint64, int>> got;  // pts (-1: the event), wake-up it came in
        std::atomic<int> wakes{0};
        QSemaphore marked;
    };
    QThread srcThread, dstThread;
    srcThread.setEventDispatcher(new VeskDispatcher);
    dstThread.setEventDispatcher(new VeskDispatcher);
    srcThread.start();
    dstThread.start();
    VeskObject src;
    Sink sink;
    sink.shareDepth = 8;  // a loaded machine may hold the receiver back a few bursts
    src.moveToThread(&srcThread);
    sink.moveToThread(&dstThread);
    QObject::connect(dstThread.eventDispatcher(), &QAbstractEventDispatcher::awake,
                     [&] { ++sink.wakes; });
    VeskHost::link(&src, &sink, VeskHost::LinkV | VeskHost::LinkEvent);

    std::atomic<bool> eventWentAtOnce{true};
    QTimer* timer = nullptr;
    int burst = 0;
    qint64 pts = 0;
    VeskGraph::runIn(&src, [&] {
        timer = new QTimer;
        QObject::connect(timer, &QTimer::timeout, [&] {
            if (burst == kBursts) return;
            for (int i = 0; i < kPerBurst; ++i) {
                Packet p;
                p.data = src.bufferData(nullptr, 200, 0);
                p.len = 200;
                p.pts = ++pts;
                src.sendPacketV(p);
                QElapsedTimer spin;
                spin.start();
                while (spin.nsecsElapsed() < 50000) {
                }
            }
            // The handler waits for its event to be taken, which it is only
            // if it was not left for the handler's return.
            if (burst == kMarked) {
                src.sendEvent("mark", burst);
                if (!sink.marked.tryAcquire(1, 5000)) eventWentAtOnce = false;
            }
            ++burst;
        });
        timer->start(5);
    });
    const bool all = waitFor([&] {
        QMutexLocker l(&sink.mutex);
        return sink.got.size() == kBursts * kPerBurst + 1;
    });
    VeskGraph::runIn(&src, [&] { delete timer; });
    VeskHost::detach(&src);
    EXPECT_TRUE(all);
    EXPECT_TRUE(eventWentAtOnce);

    QList<QPair<qint64, int>> got;
    {
        QMutexLocker l(&sink.mutex);
        got = sink.got;
    }
    const int markAt = (kMarked + 1) * kPerBurst;
    if (all) {
        EXPECT_EQ(got[markAt].first, -1) << "the event behind its burst's packets";
        got.removeAt(markAt);
    }
    // A late receiver may take one burst with the start of the next: what
    // counts is one wake-up a burst at most, not one a few packets.
    int wakeUps = 0;
    for (int k = 0; all && k < got.size(); ++k) {
        EXPECT_EQ(got[k].first, k + 1);
        if (k == 0 || got[k].second != got[k - 1].second) ++wakeUps;
    }
    EXPECT_LE(wakeUps, kBursts);
    QThread* home = QThread::currentThread();
    VeskGraph::runIn(&src, [&] { src.moveToThread(home); });
    VeskGraph::runIn(&sink, [&] { sink.moveToThread(home); });
    srcThread.quit();
    dstThread.quit();
    srcThread.wait();
    dstThread.wait();
}

// ---- graph -------------------------------------------------------------------

TEST(Graph, BuildsWhatItCanAndDeliversEventsAndStreamInfoInTheNodesThreads)
{
    const QStringList classes = VeskGraph::classes();
    EXPECT_TRUE(classes.contains("Probe") && classes.contains("Recorder"));
    EXPECT_FALSE(classes.contains("VeskObject"));

    VeskGraph g;
    QStringList problems;
    const QVariantMap description = QJsonDocument::fromJson(R"({
        "nodes": [{"name": "a", "class": "Probe", "data": {"width": 640}},
                  {"name": "b", "class": "Recorder", "data": 5},
                  {"name": "c", "class": "NoSuchNode"}, 3, {"class": "Probe"}],
        "links": [{"from": "a", "to": "b", "kinds": ["V", "event"]}, {"from": "a", "to": "ghost"},
                  {"from": "a", "to": "b", "kinds": "X"}]})")
                                        .toVariant()
                                        .toMap();
    EXPECT_FALSE(g.build(description, &problems));
    EXPECT_EQ(g.nodeNames(), (QStringList{"a", "b"}));
    auto* a = qobject_cast<Probe*>(g.node("a"));
    auto* b = qobject_cast<Recorder*>(g.node("b"));
    EXPECT_EQ(a->changes.value(0), (QVariantMap{{"width", 640}}));
    EXPECT_TRUE(VeskHost::downstream(a, VeskHost::LinkA).isEmpty());
    const std::string all = problems.join("\n").toStdString();
    EXPECT_EQ(problems.size(), 7) << all;
    for (const char* text : {"\"b\": \"data\" is a number", "unknown class \"NoSuchNode\"",
                             "no node \"ghost\"", "unknown kinds X"})
        EXPECT_NE(all.find(text), std::string::npos) << text;

    QStringList seen;
    QObject::connect(&g, &VeskGraph::nodeEvent,
                     [&](const QString& node, const QString& event, const QVariant& value) {
                         seen << node + ":" + event + ":" + VeskHost::toJsonText(value);
                     });
    StreamInfo info;
    info.type = VeskObject::TypeH264;
    info.params = {{"width", 1280}};
    VeskGraph::runIn(a, [&] {
        a->sendInfoV(info);
        a->sendEvent("ready", 1);
    });
    ASSERT_TRUE(waitFor([&] { return b->copy(b->noted).size() == 2 && seen.size() == 2; }));
    EXPECT_EQ(b->copy(b->noted), (QStringList{"infoV 4, kept 1@b", "ready=1@b"}));
    EXPECT_EQ(seen, (QStringList{R"(a:infoV:{"opaque":0,"params":{"width":1280},"type":4})",
                                 "a:ready:1"}));

    // Linked after the announcement: the stream is replayed to it; unlinked,
    // it hears of the detach and forgets the stream.
    auto* late = make<Recorder>(g, "Recorder", "late");
    g.link("a", "late", VeskHost::LinkV);
    g.unlink("a", "late", VeskHost::LinkV);
    ASSERT_TRUE(waitFor([&] { return late->copy(late->noted).size() == 2; }));
    EXPECT_EQ(late->copy(late->noted), (QStringList{"infoV 4, kept 1@late", "unV 4@late"}));
    VeskGraph::runIn(late, [&] { EXPECT_EQ(late->keptInfoV.type, 0); });
}

#include "test_nodes.moc"
