// A graph of nodes: creation by class name, the threads the nodes run in,
// wiring, and calls into each node from the thread that owns it.
//
// Threads: nodes whose shareName is the same non-empty text share one thread
// of that name; a node with an empty shareName gets a thread of its own,
// named after the node. A "thread" given at creation overrides shareName.
#pragma once

#include <QMap>
#include <QObject>
#include <QStringList>
#include <QVariant>
#include <algorithm>
#include <functional>

#include "frame/VeskObject.h"

class QThread;

class VeskGraph : public QObject {
    Q_OBJECT
public:
    explicit VeskGraph(QObject* parent = nullptr);
    ~VeskGraph() override;

    // Node classes registered with the meta-type system so far, without the
    // trailing "*", sorted.
    static QStringList classes();

    // Creates the node in the calling thread, then hands it to its thread.
    // Fails on an unknown class and on a name already in use.
    VeskObject* create(const QString& className, const QString& name,
                       const QString& thread = QString(), QString* error = nullptr);
    VeskObject* node(const QString& name) const;
    QStringList nodeNames() const;  // in order of creation

    // These run in the node's thread and return when it is done.
    bool setData(const QString& name, const QVariantMap& data);
    bool start(const QString& name);
    bool stop(const QString& name);
    QVariant invoke(const QString& name, const QString& method, const QVariant& arg = QVariant());
    void startAll();
    void stopAll();

    // kinds: VeskHost::LinkKind bits.
    bool link(const QString& from, const QString& to, int kinds, QString* error = nullptr);
    bool unlink(const QString& from, const QString& to, int kinds, QString* error = nullptr);
    // "A", "V", "event" to LinkKind bits; unknown words go to `unknown`.
    static int parseKinds(const QStringList& words, QStringList* unknown = nullptr);

    // Creates, configures and wires a graph from its description:
    //   {"nodes": [{"name": "cap1", "class": "VeskInputVi", "data": {...},
    //               "thread": "optional",
    //               "invoke": [["enableIR"], ["registEvent", "GPIO2_1"]]}],
    //    "links": [{"from": "cap1", "to": "out1", "kinds": ["V", "A", "event"]}]}
    // Missing "kinds" means all three. Nothing is started. Each bad entry is
    // described in `problems` and left out; the rest is built. Returns false
    // if there was any problem.
    bool build(const QVariantMap& description, QStringList* problems);

    // Stops the started nodes, destroys every node in its own thread and
    // ends the threads. Also done by the destructor.
    void shutdown();

    // Runs `fn` in the thread of `context` and waits for it; runs it at once
    // when that is the calling thread or the thread is not running.
    static void runIn(QObject* context, const std::function<void()>& fn);

    // The coalescing window of the threads made from now on, in ms (see
    // VeskDispatcher); 0, the default, serves sockets as soon as they are
    // ready. The environment's VESK_COALESCE_MS sets it for a whole process.
    void setCoalesceMs(int ms) { coalesceMs = std::max(ms, 0); }

signals:
    // Every event of every node, and every stream announcement as "infoA" or
    // "infoV"; delivered in the graph's thread.
    void nodeEvent(const QString& node, const QString& event, const QVariant& value);

private:
    struct Entry {
        VeskObject* node = nullptr;
        QThread* thread = nullptr;
        bool started = false;
        // Calls the application makes once the node runs: method, argument.
        QList<QPair<QString, QVariant>> calls;
    };
    QThread* threadFor(const QString& key, const QString& name);

    QMap<QString, Entry> entries;
    QStringList order;
    QMap<QString, QThread*> threads;  // key -> thread
    QMap<QThread*, QObject*> anchors;
    int coalesceMs = 0;
};
