// The RTSP node's reader on a connection made of the input: what the
// targets on the reader share. Byte 0 of the input says how the connection
// goes, the rest is its bytes.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>

#include "input/RtspReader.h"
#include "tests/fuzz/FuzzSink.h"

// The connection: bytes become readable one segment at a time.
class Segments : public RtspByteSource {
public:
    Segments(const char* d, size_t n) : data(d), size(n) {}
    bool connected() const override { return true; }
    int64_t available() const override { return int64_t(limit - pos); }
    bool canReadLine() const override { return memchr(data + pos, '\n', limit - pos) != nullptr; }
    QByteArray readLine(int64_t max) override
    {
        size_t n = 0;
        while (pos + n < limit && int64_t(n) < max) {
            if (data[pos + n++] == '\n') break;
        }
        QByteArray line(data + pos, int(n));
        pos += n;
        return line;
    }
    int64_t read(char* to, int64_t max) override
    {
        const size_t n = std::min<size_t>(size_t(max), limit - pos);
        memcpy(to, data + pos, n);
        pos += n;
        return int64_t(n);
    }
    QByteArray readAll() override
    {
        QByteArray rest(data + pos, int(limit - pos));
        pos = limit;
        return rest;
    }
    bool more(size_t segment)
    {
        if (limit == size) return false;
        limit = segment == 0 ? size : std::min(size, limit + segment);
        return true;
    }

private:
    const char* data;
    size_t size;
    size_t pos = 0;
    size_t limit = 0;
};

// The session as far as the reader sees it: `step` counts the steps up to
// PLAY (5: frames), frames come in buffers of exactly their size, every
// tenth refused when `refuseSome` is set.
class ReaderSession : public RtspReaderClient {
public:
    uint32_t sessionStep() const override { return step; }
    char* frameBuffer(int len) override
    {
        if (len < 0 || len > 65535) __builtin_trap();
        if (refuseSome && ++frames % 10 == 0) return nullptr;
        current.reset(new char[size_t(len) + 20]);
        return current.get() + 20;
    }
    void keepAliveDue() override { ++sum; }
    void log(const QString&) override {}

    uint32_t step = 0;
    unsigned sum = 0;
    bool refuseSome = false;

private:
    unsigned frames = 0;
    std::unique_ptr<char[]> current;
};

// Feeds the connection to the reader as byte 0 says: bits 0-2 the segment
// size (0: one segment, else 2^n bytes), bit 3 frame mode from the start
// (else replies until five 200s), bit 5 the session ends (reader reset)
// after every 8th segment. The sink's buffers go back to the pool whenever
// many are held.
inline void readConnection(RtspReader& reader, ReaderSession& session, FuzzSink& sink,
                           const uint8_t* data, size_t size)
{
    const uint8_t mode = data[0];
    session.step = mode & 8 ? 5 : 0;
    const size_t segment = (mode & 7) ? size_t(1) << (mode & 7) : 0;
    Segments in(reinterpret_cast<const char*>(data + 1), size - 1);
    for (int n = 1; in.more(segment); ++n) {
        reader.read(in);
        if (sink.held > 64) sink.release();
        if ((mode & 32) && n % 8 == 0) {
            reader.reset();
            session.step = 0;
        }
    }
}
