// The byte walks of the FFmpeg sources on what a stream or a file could
// carry: the parameter sets of a stream's extradata, the network rule and the
// file rule that turn 4-byte lengths into start codes, the start-code and
// stamped-time searches, and the clock mapping that follows them, with stream
// times and time bases of any value. Every packet lies in a heap block of its
// exact size. Input (read with FuzzedDataProvider): a mode byte (video type,
// clock mode, "sync", drift control, video present), the extradata, then
// packets, each with a kind byte, its bytes and its times.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "input/VeskAvUtil.h"

namespace {

constexpr int64_t kMaxMicros = int64_t(1) << 60;

std::unique_ptr<uint8_t[]> exact(const std::string& bytes)
{
    std::unique_ptr<uint8_t[]> p(new uint8_t[bytes.size()]);
    if (!bytes.empty()) std::memcpy(p.get(), bytes.data(), bytes.size());
    return p;
}

void checkParameterSets(const std::string& raw)
{
    const QByteArray e(raw.data(), int(raw.size()));
    const QByteArray out = VeskAv::annexBParameterSets(e);
    if (e.isEmpty()) {
        if (!out.isEmpty()) std::abort();
        return;
    }
    if (e.at(0) == 0) {
        if (out != e) std::abort();
        return;
    }
    // Two start codes and two pieces of the record, each at most all of it.
    if (!out.startsWith(QByteArray("\x00\x00\x00\x01", 4)) || out.size() > 8 + 2 * e.size())
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    const uint8_t mode = in.ConsumeIntegral<uint8_t>();
    static const int videoTypes[] = {4, 5, 14, 0};
    static const int clockModes[] = {VeskAv::NetClock::Auto, VeskAv::NetClock::Local,
                                     VeskAv::NetClock::Sync, 1};
    VeskAv::NetClock clock;
    clock.videoType = videoTypes[mode & 3];
    clock.mode = clockModes[(mode >> 2) & 3];
    clock.sync = mode & 16;
    clock.driftControl = mode & 32;
    clock.hasVideo = mode & 64;
    clock.minDelayMs = mode & 128 ? 300 : -1;
    int64_t now = 1700000000LL * 1000000;
    clock.firstFrameDelay = [&now](int ms) { return now += int64_t(ms) * 1000; };

    checkParameterSets(in.ConsumeRandomLengthString(512));

    while (in.remaining_bytes() > 0) {
        const uint8_t kind = in.ConsumeIntegral<uint8_t>();
        const std::string bytes = in.ConsumeRandomLengthString(4096);
        const int n = int(bytes.size());
        auto packet = exact(bytes);

        if (kind & 1) {
            // The file rule accepts a packet only where the network rule
            // would have made the same start codes of it.
            auto lenient = exact(bytes);
            const bool whole = VeskAv::lengthsToStartCodesStrict(packet.get(), n);
            VeskAv::lengthsToStartCodes(lenient.get(), n);
            if (whole && n > 4 && std::memcmp(packet.get(), lenient.get(), size_t(n)) != 0)
                std::abort();
        } else {
            VeskAv::lengthsToStartCodes(packet.get(), n);
        }
        const int nal = VeskAv::firstNalByte(packet.get(), n);
        if (nal < -1 || nal > 255) std::abort();
        int64_t stamped = 0;
        VeskAv::findStampedTime(packet.get(), n, clock.videoType, &stamped);

        const int64_t ts = in.ConsumeIntegral<int64_t>();
        const int den = in.ConsumeIntegral<int>();
        const int64_t p = VeskAv::toMicros(ts, den);
        const int64_t d = VeskAv::toMicros(in.ConsumeIntegral<int64_t>(), den);
        if (p > kMaxMicros || p < -kMaxMicros) std::abort();
        now += in.ConsumeIntegralInRange<int64_t>(0, 10000000);

        int64_t pts = 0, dts = 0;
        if (kind & 2)
            clock.audio(now, p, &pts);
        else
            clock.video(&now, p, d, kind & 4, packet.get(), n, &pts, &dts);

        const int speed =
            VeskAv::bytesPerSecond(in.ConsumeIntegral<int64_t>(), in.ConsumeIntegral<int64_t>());
        if (speed < 0) std::abort();
        unsigned char dsi[2];
        make_dsi(get_sr_index(in.ConsumeIntegral<unsigned>()), in.ConsumeIntegral<unsigned>(), dsi);
    }
    return 0;
}
