// The node side of the host: the setData contract, invoke, threads, and the
// delivery of events, stream descriptions and packets between nodes.
#include <gtest/gtest.h>

#include <QMutex>
#include <QMutexLocker>
#include <QThread>
#include <atomic>
#include <cstring>
#include <thread>

#include "HostTestUtil.h"
#include "frame/VeskObject.h"
#include "frame/VeskRegister.h"
#include "host/VeskBuffers.h"
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
    Q_INVOKABLE QString echo(QString text) { return text + "!"; }
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

// Records what reaches it, copying payloads at the moment of delivery.
class Recorder : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit Recorder(QObject* parent = nullptr) : VeskObject(parent) {}

    struct Got {
        Packet packet;
        QByteArray payload;
        QString thread;
    };
    QList<Got> video() const
    {
        QMutexLocker l(&mutex);
        return videoGot;
    }
    QList<Got> audio() const
    {
        QMutexLocker l(&mutex);
        return audioGot;
    }
    std::atomic<int> videoCount{0}, audioCount{0}, infoCount{0}, unCount{0};
    StreamInfo lastInfo, keptAtInfo, lastUn;
    QStringList events;

public slots:
    void onNewPacketV(VeskObject::Packet p) override { record(p, &videoGot, &videoCount); }
    void onNewPacketA(VeskObject::Packet p) override { record(p, &audioGot, &audioCount); }
    void onNewInfoV(VeskObject::StreamInfo info) override
    {
        lastInfo = info;
        keptAtInfo = keptInfoV;
        ++infoCount;
    }
    void onUnVeskV(VeskObject::StreamInfo info) override
    {
        lastUn = info;
        ++unCount;
    }
    void onNewEvent(QString event, QVariant value) override
    {
        QMutexLocker l(&mutex);
        events << event + "=" + value.toString() + "@" + QThread::currentThread()->objectName();
    }

private:
    void record(const Packet& p, QList<Got>* to, std::atomic<int>* n)
    {
        QMutexLocker l(&mutex);
        to->append({p, QByteArray(p.data, p.len), QThread::currentThread()->objectName()});
        ++*n;
    }
    mutable QMutex mutex;
    QList<Got> videoGot, audioGot;
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

// ---- setData -----------------------------------------------------------------

TEST(SetData, ReportsOnlyRealChangesAndKeepsTheMergedState)
{
    VeskGraph g;
    auto* p = make<Probe>(g, "Probe", "p");

    // Same values as the defaults: nothing reaches the node.
    g.setData("p", {{"width", 1920}, {"mode", "auto"}});
    EXPECT_TRUE(p->changes.isEmpty());

    g.setData("p", {{"width", 1280}, {"mode", "auto"}});
    ASSERT_EQ(p->changes.size(), 1);
    EXPECT_EQ(p->changes[0], (QVariantMap{{"width", 1280}}));
    EXPECT_EQ(p->data, (QVariantMap{{"width", 1280}, {"mode", "auto"}}));

    // A key the node never had is a change, even with an invalid value.
    g.setData("p", {{"extra", true}, {"none", QVariant()}});
    ASSERT_EQ(p->changes.size(), 2);
    EXPECT_EQ(p->changes[1].keys(), (QStringList{"extra", "none"}));
    EXPECT_TRUE(p->data.contains("none"));

    // A stable signal reports the same map every second.
    for (int i = 0; i < 3; ++i) g.setData("p", p->data);
    EXPECT_EQ(p->changes.size(), 2);
}

// ---- invoke ------------------------------------------------------------------

TEST(Invoke, SpreadsListsConvertsArgumentsAndReturnsResults)
{
    VeskGraph g;
    auto* p = make<Probe>(g, "Probe", "p");

    EXPECT_EQ(p->invoke("add", QVariantList{2, 3}), QVariant(5));
    EXPECT_EQ(p->invoke("add", QVariantList{"40", 2}).toInt(), 42);
    EXPECT_EQ(p->invoke("echo", "hi"), QVariant("hi!"));
    // One parameter of list type takes the whole list.
    EXPECT_EQ(p->invoke("count", QVariantList{1, 2, 3}), QVariant(3));

    EXPECT_FALSE(p->invoke("touch").isValid());
    EXPECT_TRUE(p->touched);
    EXPECT_FALSE(p->invoke("noSuchMethod", 1).isValid());
}

TEST(Invoke, RunsInTheNodesThreadFromAnyCaller)
{
    VeskGraph g;
    auto* p = make<Probe>(g, "Probe", "p");
    EXPECT_EQ(g.invoke("p", "whereAmI").toString(), "p");

    QString fromOther;
    std::thread other([&] { fromOther = p->invoke("whereAmI").toString(); });
    other.join();
    EXPECT_EQ(fromOther, "p");
}

// ---- threads -----------------------------------------------------------------

TEST(Threads, ShareNameGroupsNodesOnANamedThread)
{
    VeskGraph g;
    auto* a = make<Shared>(g, "Shared", "a");
    auto* b = make<Shared>(g, "Shared", "b");
    auto* c = make<Probe>(g, "Probe", "c");
    auto* d = make<Probe>(g, "Probe", "d", "custom");
    g.startAll();

    EXPECT_EQ(a->thread(), b->thread());
    EXPECT_EQ(a->startedIn, "share");
    EXPECT_EQ(b->startedIn, "share");
    EXPECT_NE(c->thread(), a->thread());
    EXPECT_EQ(c->startedIn, "c");
    EXPECT_EQ(d->startedIn, "custom");
}

// ---- events and stream descriptions --------------------------------------------

TEST(Delivery, EventsAndStreamInfoReachHostAndDownstreamInTheirThreads)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    auto* early = make<Recorder>(g, "Recorder", "early");
    auto* late = make<Recorder>(g, "Recorder", "late");
    QStringList seen;
    QObject::connect(&g, &VeskGraph::nodeEvent,
                     [&](const QString& node, const QString& event, const QVariant& value) {
                         seen << node + ":" + event + ":" + VeskHost::toJsonText(value);
                     });
    g.link("src", "early", VeskHost::LinkAll);

    StreamInfo info;
    info.type = VeskObject::TypeH264;
    info.params = {{"width", 1280}};
    VeskGraph::runIn(src, [&] {
        src->sendInfoV(info);
        src->sendEvent("ready", 1);
    });
    ASSERT_TRUE(waitFor([&] { return early->infoCount == 1 && seen.size() == 2; }));
    EXPECT_EQ(early->keptAtInfo.params, info.params);
    EXPECT_EQ(seen[0], R"(src:infoV:{"opaque":0,"params":{"width":1280},"type":4})");
    EXPECT_EQ(seen[1], "src:ready:1");
    ASSERT_TRUE(waitFor([&] { return early->events.size() == 1; }));
    EXPECT_EQ(early->events[0], "ready=1@early");

    // Linked after the announcement: the stream is replayed to it.
    g.link("src", "late", VeskHost::LinkV);
    ASSERT_TRUE(waitFor([&] { return late->infoCount == 1; }));
    EXPECT_EQ(late->lastInfo.type, VeskObject::TypeH264);

    g.unlink("src", "late", VeskHost::LinkV);
    ASSERT_TRUE(waitFor([&] { return late->unCount == 1; }));
    EXPECT_EQ(late->lastUn.type, VeskObject::TypeH264);
    EXPECT_EQ(late->keptInfoV.type, 0);
}

// ---- packets -----------------------------------------------------------------

TEST(Packets, FanOutIsZeroCopyAndOutlivesTheProducersLaterBuffers)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    auto* r1 = make<Recorder>(g, "Recorder", "r1");
    auto* r2 = make<Recorder>(g, "Recorder", "r2");
    r1->shareDepth = r2->shareDepth = 2;
    g.link("src", "r1", VeskHost::LinkV);
    g.link("src", "r2", VeskHost::LinkV);
    Gate g1, g2;
    g1.close(r1);
    g2.close(r2);

    const int n = 24, len = 3000;
    QList<const char*> sent;
    VeskGraph::runIn(src, [&] {
        for (int i = 0; i < n; ++i) {
            const QByteArray body = pattern(i, len);
            Packet p;
            p.data = src->bufferData(const_cast<char*>(body.constData()), len, 20);
            p.len = len;
            p.pts = 1000 + i;
            p.frameType = i % 2;
            sent << p.data;
            src->sendPacketV(p);
        }
        // Far more than the pool's window: freed blocks would be reused here
        // and overwritten.
        for (int i = 0; i < 4 * vhost::NodePool::kWindow; ++i)
            std::memset(src->bufferData(nullptr, len, 20), 0xEE, len);
    });
    g1.open();
    g2.open();
    ASSERT_TRUE(waitFor([&] { return r1->videoCount == n && r2->videoCount == n; }));

    for (Recorder* r : {r1, r2}) {
        const auto got = r->video();
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(got[i].packet.data, sent[i]);
            EXPECT_EQ(got[i].payload, pattern(i, len)) << "packet " << i;
            EXPECT_EQ(got[i].packet.pts, 1000 + i);
            EXPECT_EQ(got[i].packet.dts, -1);
            EXPECT_EQ(got[i].packet.frameType, i % 2);
            EXPECT_EQ(got[i].thread, r->name());
        }
    }
}

TEST(Packets, HeadroomIsWritableAndAMovedBackPacketKeepsItsBlock)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    auto* r = make<Recorder>(g, "Recorder", "r");
    g.link("src", "r", VeskHost::LinkV);
    Gate gate;
    gate.close(r);

    const QByteArray table = pattern(7, 420), frame = pattern(8, 5000);
    VeskGraph::runIn(src, [&] {
        Packet p;
        p.data = src->bufferData(const_cast<char*>(frame.constData()), frame.size(), 420);
        p.len = frame.size();
        // A source prepends a table by moving data back into the headroom.
        p.data -= table.size();
        p.len += table.size();
        std::memcpy(p.data, table.constData(), size_t(table.size()));
        src->sendPacketV(p);
        for (int i = 0; i < 4 * vhost::NodePool::kWindow; ++i)
            std::memset(src->bufferData(nullptr, 5420, 420) - 420, 0xEE, 5420 + 420);
    });
    gate.open();
    ASSERT_TRUE(waitFor([&] { return r->videoCount == 1; }));
    EXPECT_EQ(r->video()[0].payload, table + frame);

    VeskGraph::runIn(src, [&] {
        EXPECT_EQ(src->bufferData(nullptr, -1, 0), nullptr);
        EXPECT_EQ(src->bufferData(nullptr, 1 << 30, 0), nullptr);
        char* empty = src->bufferData(nullptr, 0, 10);
        EXPECT_NE(empty, nullptr);
    });
}

TEST(Packets, AFullQueueDropsForThatReceiverOnly)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    auto* slow = make<Recorder>(g, "Recorder", "slow");
    auto* fast = make<Recorder>(g, "Recorder", "fast");
    slow->shareDepth = 1;  // 16 packets may wait
    fast->shareDepth = 4;
    g.link("src", "slow", VeskHost::LinkA);
    g.link("src", "fast", VeskHost::LinkA);
    Gate gate;
    gate.close(slow);

    VeskGraph::runIn(src, [&] {
        for (int i = 0; i < 40; ++i) {
            Packet p;
            p.data = src->bufferData(nullptr, 16, 0);
            p.len = 16;
            p.frameType = 3;
            src->sendPacketA(p);
        }
    });
    ASSERT_TRUE(waitFor([&] { return fast->audioCount == 40; }));
    EXPECT_EQ(VeskHost::droppedPackets(slow, VeskHost::LinkA), 24u);
    EXPECT_EQ(VeskHost::droppedPackets(fast, VeskHost::LinkA), 0u);
    gate.open();
    ASSERT_TRUE(waitFor([&] { return slow->audioCount == 16; }));
    ASSERT_TRUE(waitFor([&] { return VeskHost::pendingPackets(slow, VeskHost::LinkA) == 0; }));
}

TEST(Packets, BufferPacketAPinsQueuedPacketsUntilTrimmed)
{
    VeskGraph g;
    auto* src = make<Probe>(g, "Probe", "src");
    auto* sink = make<Recorder>(g, "Recorder", "sink");

    QList<QByteArray> bodies;
    VeskGraph::runIn(src, [&] {
        for (int i = 0; i < 10; ++i) {
            bodies << pattern(i, 2000);
            Packet p;
            p.data = src->bufferData(const_cast<char*>(bodies.last().constData()), 2000, 10);
            p.len = 2000;
            EXPECT_EQ(sink->bufferPacketA(p), 1);
        }
        for (int i = 0; i < 4 * vhost::NodePool::kWindow; ++i)
            std::memset(src->bufferData(nullptr, 2000, 10), 0xEE, 2000);
    });
    ASSERT_EQ(sink->packetsA.size(), 10);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(QByteArray(sink->packetsA[i].data, 2000), bodies[i]) << "packet " << i;

    EXPECT_EQ(sink->bufferPacketA(Packet()), 0);
    Packet negative;
    negative.data = sink->packetsA[0].data;
    negative.len = -1;
    EXPECT_EQ(sink->bufferPacketA(negative), 0);

    // Trimmed packets lose their pin with the next call.
    const size_t before = vhost::liveBlocks();
    {
        QWriteLocker lock(&sink->lockA);
        sink->packetsA.erase(sink->packetsA.begin(), sink->packetsA.begin() + 4);
    }
    Packet again = sink->packetsA.last();
    EXPECT_EQ(sink->bufferPacketA(again), 1);
    EXPECT_EQ(vhost::liveBlocks(), before - 4);
}

TEST(Packets, BufferPacketAAndATrimmingThreadShareTheLock)
{
    Recorder sink;
    Probe src;
    char* data = src.bufferData(nullptr, 64, 0);
    const int n = 3000;
    std::atomic<bool> done{false};
    int trimmed = 0;
    std::thread trimmer([&] {
        for (;;) {
            // Read before the lock: once set, every append is in the list.
            const bool finished = done;
            while (!sink.lockA.tryLockForWrite(10)) {
            }
            trimmed += sink.packetsA.size();
            sink.packetsA.clear();
            sink.lockA.unlock();
            if (finished) break;
        }
    });
    for (int i = 0; i < n; ++i) {
        Packet p;
        p.data = data + (i % 64);
        p.len = 1;
        sink.bufferPacketA(p);
    }
    done = true;
    trimmer.join();
    EXPECT_EQ(trimmed, n);
}

// ---- graph -------------------------------------------------------------------

TEST(Graph, ListsRegisteredNodeClassesOnly)
{
    const QStringList classes = VeskGraph::classes();
    EXPECT_TRUE(classes.contains("Probe"));
    EXPECT_TRUE(classes.contains("Recorder"));
    EXPECT_FALSE(classes.contains("VeskObject"));
}

TEST(Graph, BuildReportsBadEntriesAndBuildsTheRest)
{
    VeskGraph g;
    QStringList problems;
    const QVariantMap description{
        {"nodes",
         QVariantList{
             QVariantMap{{"name", "a"}, {"class", "Probe"}, {"data", QVariantMap{{"width", 640}}}},
             QVariantMap{{"name", "b"}, {"class", "Recorder"}, {"data", 5}},
             QVariantMap{{"name", "c"}, {"class", "NoSuchNode"}}, QVariant(3),
             QVariantMap{{"class", "Probe"}}}},
        {"links",
         QVariantList{QVariantMap{{"from", "a"}, {"to", "b"}, {"kinds", QVariantList{"V"}}},
                      QVariantMap{{"from", "a"}, {"to", "ghost"}},
                      QVariantMap{{"from", "a"}, {"to", "b"}, {"kinds", "X"}}}}};
    EXPECT_FALSE(g.build(description, &problems));
    EXPECT_EQ(g.nodeNames(), (QStringList{"a", "b"}));
    EXPECT_EQ(qobject_cast<Probe*>(g.node("a"))->changes.value(0), (QVariantMap{{"width", 640}}));
    EXPECT_EQ(VeskHost::downstream(g.node("a"), VeskHost::LinkV).size(), 1);
    EXPECT_TRUE(VeskHost::downstream(g.node("a"), VeskHost::LinkA).isEmpty());

    const QString all = problems.join("\n");
    EXPECT_EQ(problems.size(), 7) << all.toStdString();
    EXPECT_TRUE(all.contains("\"b\": \"data\" is a number")) << all.toStdString();
    EXPECT_TRUE(all.contains("unknown class \"NoSuchNode\"")) << all.toStdString();
    EXPECT_TRUE(all.contains("no node \"ghost\"")) << all.toStdString();
    EXPECT_TRUE(all.contains("unknown kinds X")) << all.toStdString();
}

#include "test_nodes.moc"
