#include "host/ffmpeglog.h"

#include <QElapsedTimer>
#include <QHash>
#include <cstdarg>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

namespace veskhost {

namespace {

void (*logSink)(const QByteArray&) = nullptr;

void collapse(void* avcl, int level, const char* fmt, va_list vl)
{
    if (level > av_log_get_level() || !logSink) return;
    char line[1024];
    int prefix = 1;
    va_list copy;
    va_copy(copy, vl);
    av_log_format_line2(avcl, level, fmt, copy, line, sizeof line, &prefix);
    va_end(copy);
    static std::mutex lock;
    // Distinct lines of one second: bounded by what FFmpeg can say in a
    // second, and cleared every second.
    static QHash<QByteArray, int> seen;
    static QElapsedTimer window;
    std::lock_guard<std::mutex> g(lock);
    if (!window.isValid() || window.elapsed() > 1000) {
        for (auto it = seen.constBegin(); it != seen.constEnd(); ++it)
            if (it.value() > 1)
                logSink(QByteArray("    (") + QByteArray::number(it.value() - 1) + " more times) " +
                        it.key());
        seen.clear();
        window.start();
    }
    const QByteArray text(line);
    if (seen[text]++ == 0) logSink(text);
}

}  // namespace

void installFfmpegLog(void (*sink)(const QByteArray& line))
{
    logSink = sink;
    av_log_set_callback(collapse);
}

}  // namespace veskhost
