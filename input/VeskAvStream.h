// How the FFmpeg-based sources describe the streams they found: the stream
// types and parameters of VeskObject::StreamInfo, the codec names of the
// "ready" event, and a deadline for FFmpeg calls that could block.
#pragma once

#include <QString>
#include <QVariantMap>
#include <atomic>
#include <cstdint>

#include "frame/VeskObject.h"

struct AVStream;
struct AVFormatContext;

namespace VeskAv {

// Stream type of an audio codec, or `current` for one the appliance does not
// know. The file source has no AC-3 entry.
int audioType(int codecId, bool withAc3, int current);
int videoType(int codecId, int current);

// The "infoA" / "infoV" parameters of a stream (without "time" and "sync").
QVariantMap audioParams(const AVStream* st);
QVariantMap videoParams(const AVStream* st);

// The copies of params that go into "ready": with "codec" by type.
QVariantMap withCodecName(const QVariantMap& params, int type, bool audio);

// Channels of an audio stream (0 when unknown).
int channelsOf(const AVStream* st);

// Wall-clock limit for the FFmpeg calls of a node that has no other way to
// break a blocking call off. Armed before a call, checked by FFmpeg through
// the context's interrupt callback.
class Deadline {
public:
    void arm(int64_t ms);
    void disarm() { until.store(0, std::memory_order_relaxed); }
    bool passed() const;
    // Installs the callback on the context; `d` must outlive it.
    static void install(AVFormatContext* ctx, Deadline* d);

private:
    std::atomic<int64_t> until{0};
};

}  // namespace VeskAv
