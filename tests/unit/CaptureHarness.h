// What the capture and still-picture tests share: an application object for
// the main loop, a virtual board with a fresh media platform, a graph whose
// nodes run in their own threads as under the host, the log lines the
// library wrote and the events the nodes raised.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>
#include <functional>
#include <memory>
#include <type_traits>

#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "tests/host/HostTestUtil.h"
#include "sim/MediaPlatform.h"
#include "sim/VirtualBoard.h"

namespace capture {

inline void ensureApplication()
{
    static int argc = 1;
    static char name[] = "test_capture";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance()) new QCoreApplication(argc, argv);
}

// Every message of the process, kept while still printed as before.
class Log {
public:
    static void install()
    {
        static QtMessageHandler previous = qInstallMessageHandler(&Log::handle);
        prev() = previous;
    }
    static void clear()
    {
        QMutexLocker l(&mutex());
        lines().clear();
    }
    static QStringList all()
    {
        QMutexLocker l(&mutex());
        return lines();
    }
    static bool has(const QString& part)
    {
        for (const QString& line : all())
            if (line.contains(part)) return true;
        return false;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext& ctx, const QString& text)
    {
        {
            QMutexLocker l(&mutex());
            lines() << text;
        }
        if (prev()) prev()(type, ctx, text);
    }
    static QMutex& mutex()
    {
        static QMutex m;
        return m;
    }
    static QStringList& lines()
    {
        static QStringList l;
        return l;
    }
    static QtMessageHandler& prev()
    {
        static QtMessageHandler p = nullptr;
        return p;
    }
};

using ::waitFor;

// Runs `f` in the thread that owns `node` and hands back its result.
template <typename F>
auto inNode(QObject* node, F f) -> decltype(f())
{
    using R = decltype(f());
    if constexpr (std::is_void_v<R>) {
        VeskGraph::runIn(node, f);
    } else {
        R result{};
        VeskGraph::runIn(node, [&] { result = f(); });
        return result;
    }
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
        ensureApplication();
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
        if (!n) return nullptr;
        graph->setData(name, data);
        return static_cast<T*>(n);
    }

    void set(VeskObject* node, const QVariantMap& data) { graph->setData(node->name(), data); }

    // Lets queued events reach the list.
    void settle()
    {
        waitFor([] { return false; }, 30);
    }

    QList<Event> eventsOf(const QString& node, const QString& name)
    {
        settle();
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
            if (c.name == name && (firstArg == INT32_MIN || c.args.value(0).toInt() == firstArg))
                ++n;
        return n;
    }

    std::unique_ptr<VeskGraph> graph;
    QList<Event> events;
};

}  // namespace capture
