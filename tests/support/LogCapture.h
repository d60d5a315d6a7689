// Every message of the process, kept while still printed as before.
//
// The store is allocated once and never freed: the library's own static
// objects are destroyed after the test program's, and may still log on the
// way out (a thread or timer torn down at exit), through this very handler.
#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

namespace vesktest {

class LogCapture {
public:
    static void install()
    {
        static const bool once = [] {
            store().previous = qInstallMessageHandler(
                [](QtMsgType type, const QMessageLogContext& ctx, const QString& text) {
                    Store& s = store();
                    s.mutex.lock();
                    s.lines << text;
                    s.mutex.unlock();
                    if (s.previous) s.previous(type, ctx, text);
                });
            return true;
        }();
        Q_UNUSED(once);
    }
    static void clear()
    {
        QMutexLocker l(&store().mutex);
        store().lines.clear();
    }
    // How many lines hold `part`.
    static int count(const QString& part)
    {
        QMutexLocker l(&store().mutex);
        return store().lines.filter(part).size();
    }
    static bool has(const QString& part) { return count(part) > 0; }

private:
    struct Store {
        QMutex mutex;
        QStringList lines;
        QtMessageHandler previous = nullptr;
    };
    static Store& store()
    {
        static Store* s = new Store;
        return *s;
    }
};

}  // namespace vesktest
