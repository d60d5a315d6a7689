// A sink for the fuzz targets: every buffer is exactly as large as asked,
// with poisoned bytes on both sides, so that the sanitizer sees any byte read
// or written past a unit, and every delivered packet is checked end to end.
//
// The buffers are cut from one arena, not taken from the heap one by one: a
// heap block per packet (with its allocation stack and quarantine) cost more
// than the parsing itself. The arena is poisoned except for the buffers
// handed out, and release() poisons them again, so a unit read after its
// buffer went back to the pool shows as well.
#pragma once

#include <sanitizer/asan_interface.h>

#include <QtGlobal>
#include <cstring>
#include <memory>
#include <vector>

#include "input/RtpMedia.h"
#include "tests/fuzz/FuzzInput.h"

struct FuzzSink : RtspMediaSink {
    // Enough for the buffers a target holds between two releases; beyond it
    // buffers come from the heap.
    static constexpr size_t kArena = size_t(16) << 20;
    // Poisoned bytes between two buffers (and before the first).
    static constexpr size_t kGap = 32;

    std::unique_ptr<char[]> arena{new char[kArena]};
    size_t used = 0;
    int held = 0;
    std::vector<std::unique_ptr<char[]>> spill;
    int64_t clock = 1000000;
    unsigned sum = 0;

    FuzzSink() { ASAN_POISON_MEMORY_REGION(arena.get(), kArena); }

    // Every buffer handed out goes back to the pool.
    void release()
    {
        ASAN_POISON_MEMORY_REGION(arena.get(), used);
        used = 0;
        held = 0;
        spill.clear();
    }

    char* buffer(const char* src, int len, int headroom) override
    {
        if (len < 0 || headroom < 0) __builtin_trap();
        const size_t n = size_t(headroom) + size_t(len);
        // Buffers start on the sanitizer's 8-byte granule; the end of each
        // is exact, a partial granule included.
        const size_t at = (used + kGap + 7) & ~size_t(7);
        char* p;
        if (at + n + kGap <= kArena) {
            p = arena.get() + at;
            ASAN_UNPOISON_MEMORY_REGION(p, n);
            used = at + n;
        } else {
            spill.emplace_back(new char[n]);
            p = spill.back().get();
        }
        ++held;
        p += headroom;
        if (src) memcpy(p, src, size_t(len));
        return p;
    }
    void sendInfo(bool, const VeskObject::StreamInfo& info) override { sum += info.params.size(); }
    void sendPacket(bool, const VeskObject::Packet& p) override
    {
        if (p.len < 0 || (p.len > 0 && !p.data)) __builtin_trap();
        // The whole unit must be there to be read, as a consumer reads it.
        if (p.len > 0) {
            if (void* bad = __asan_region_is_poisoned(p.data, size_t(p.len))) {
                __asan_describe_address(bad);
                __builtin_trap();
            }
            sum += static_cast<unsigned char>(p.data[0]) +
                   static_cast<unsigned char>(p.data[p.len - 1]);
        }
    }
    int64_t now() override { return clock += 20000; }
};

// One media object for the whole run: its 1 MB reassembly buffer would
// otherwise cost more than the parsing. Everything an input can leave behind
// is cleared, so that each input starts from the same state.
inline RtspMedia& freshMedia(FuzzSink& sink)
{
    static RtspMedia media(sink);
    sink.release();
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

// The input in a buffer of exactly its size (one byte for an empty one), so
// that the sanitizer sees any read past its end.
inline std::unique_ptr<unsigned char[]> exactCopy(const uint8_t* data, size_t size)
{
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size ? size : 1]);
    if (size) memcpy(copy.get(), data, size);
    return copy;
}
