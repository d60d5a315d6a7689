// A sink for the fuzz targets: exact-size heap buffers so that the sanitizer
// sees any byte read or written past a unit, and every delivered packet is
// read end to end.
#pragma once

#include <QtGlobal>
#include <cstring>
#include <memory>
#include <vector>

#include "input/RtpMedia.h"

struct FuzzSink : RtspMediaSink {
    std::vector<std::unique_ptr<char[]>> pool;
    int64_t clock = 1000000;
    unsigned sum = 0;

    char* buffer(const char* src, int len, int headroom) override
    {
        if (len < 0 || headroom < 0) __builtin_trap();
        pool.emplace_back(new char[size_t(headroom) + size_t(len)]);
        char* p = pool.back().get() + headroom;
        if (src) memcpy(p, src, size_t(len));
        return p;
    }
    void sendInfo(bool, const VeskObject::StreamInfo& info) override { sum += info.params.size(); }
    void sendPacket(bool, const VeskObject::Packet& p) override
    {
        if (p.len < 0 || (p.len > 0 && !p.data)) __builtin_trap();
        for (int i = 0; i < p.len; ++i) sum += static_cast<unsigned char>(p.data[i]);
    }
    int64_t now() override { return clock += 20000; }
};

// One media object for the whole run: its 1 MB reassembly buffer would
// otherwise cost more than the parsing. Everything an input can leave behind
// is cleared, so that each input starts from the same state.
inline RtspMedia& freshMedia(FuzzSink& sink)
{
    static RtspMedia media(sink);
    sink.clock = 1000000;
    media.reset();
    media.infoA = media.infoV = VeskObject::StreamInfo();
    media.payloadA = media.payloadV = 0;
    media.clockA = media.clockV = 0;
    media.fmtpA.clear();
    media.fmtpV.clear();
    media.timestampMode = QStringLiteral("auto");
    return media;
}

// Log lines would only slow the fuzzer down.
inline void silenceQtLog()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}
