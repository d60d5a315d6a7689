// What the capture and still-picture tests share: a virtual board with a
// fresh media platform, a graph whose nodes run in their own threads as under
// the host, the log lines the library wrote and the events the nodes raised.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <memory>

#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "sim/MediaPlatform.h"
#include "sim/VirtualBoard.h"
#include "tests/host/HostTestUtil.h"
#include "tests/support/LogCapture.h"

namespace capture {

using Log = vesktest::LogCapture;

// Runs `f` in the thread that owns `node` and hands back its result.
template <typename F>
auto inNode(QObject* node, F f)
{
    decltype(f()) result{};
    VeskGraph::runIn(node, [&] { result = f(); });
    return result;
}

struct Event {
    QString node, name;
    QVariant value;
};

inline QByteArray readHostFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// A graph on a fresh virtual board; the events of its nodes in order.
class GraphTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Log::install();
        Log::clear();
        vsim::Board::instance().activate();
        vsim::Board::instance().reset();
        graph = std::make_unique<VeskGraph>();
        QObject::connect(graph.get(), &VeskGraph::nodeEvent,
                         [this](const QString& node, const QString& name, const QVariant& v) {
                             events.append(Event{node, name, v});
                         });
    }
    void TearDown() override
    {
        graph.reset();
        vsim::Board::instance().deactivate();
    }

    template <typename T>
    T* make(const QString& name, const QVariantMap& data)
    {
        QString error;
        VeskObject* n = graph->create(T::staticMetaObject.className(), name, QString(), &error);
        EXPECT_NE(n, nullptr) << error.toStdString();
        if (n) graph->setData(name, data);
        return static_cast<T*>(n);
    }

    void set(VeskObject* node, const QVariantMap& data) { graph->setData(node->name(), data); }

    // The node's events were posted before the call that raised them
    // returned, so one pass of the loop delivers them all.
    QList<Event> eventsOf(const QString& node, const QString& name)
    {
        QCoreApplication::processEvents();
        QList<Event> out;
        for (const Event& e : events)
            if (e.node == node && e.name == name) out << e;
        return out;
    }

    vsim::MediaPlatform& platform() { return vsim::MediaPlatform::instance(); }

    int countCalls(const QString& name, int firstArg = INT32_MIN)
    {
        int n = 0;
        for (const auto& c : platform().calls())
            n += c.name == name && (firstArg == INT32_MIN || c.args.value(0).toInt() == firstArg);
        return n;
    }

    std::unique_ptr<VeskGraph> graph;
    QList<Event> events;
};

}  // namespace capture
