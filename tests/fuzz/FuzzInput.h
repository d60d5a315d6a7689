// What every fuzz target may want: no log output, and bytes of the input
// as a file, a link or a device would hold them.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <QByteArray>
#include <QtGlobal>
#include <string>

// Log lines would only slow the fuzzer down.
inline void silenceQtLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

// Up to `max` bytes of the input.
inline QByteArray bytes(FuzzedDataProvider& in, size_t max)
{
    const std::string s = in.ConsumeRandomLengthString(max);
    return QByteArray(s.data(), int(s.size()));
}
