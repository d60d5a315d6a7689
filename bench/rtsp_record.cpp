// rtsp-record CLIP.h264 OUT TARGET_BYTES [MTU] [--aac CLIP.adts] [--seconds S]
//
// Turns an H.264 Annex B clip into what an RTSP server sends over TCP after
// PLAY: RTP packets in `$` records on channel 0, one NAL unit per packet
// while it fits into the MTU and FU-A fragments beyond, the clip repeated
// with running sequence numbers and timestamps until TARGET_BYTES are
// reached (or, with --seconds, until the pictures last S seconds), and an
// RTCP sender report with BYE on channel 1 at the end.
//
// --aac adds an audio track on channel 2: the ADTS clip's frames, one per
// RTP packet with one AU header (13-bit size, 3-bit index), looped for as
// long as the pictures last and put in front of the picture they precede
// in time, so that the records stand in the order of their time stamps.
//
// Next to OUT goes OUT.meta, key=value lines that the replay server and the
// benchmark read: the parameter sets for the SDP, and what a client that
// depacketises the stream completely must end up with (units, unit_bytes
// with a 4-byte start code per unit).
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kRtpHeader = 12;
constexpr uint8_t kPayloadType = 96;
constexpr uint32_t kSsrc = 0x5eb1c0de;
constexpr uint32_t kTicksPerFrame = 90000 / 25;
constexpr uint8_t kAudioPayloadType = 97;
constexpr uint32_t kAudioSsrc = 0x5eb1a0d1;
constexpr uint32_t kAudioTicksPerFrame = 1024;  // AAC-LC samples per frame

struct AdtsFrame {
    size_t at;  // raw frame, behind the ADTS header
    size_t len;
};

struct AdtsClip {
    std::vector<uint8_t> bytes;
    std::vector<AdtsFrame> frames;
    unsigned rate = 0, channels = 0;
    uint8_t config[2] = {0, 0};  // AudioSpecificConfig
};

bool readFile(const char* path, std::vector<uint8_t>& out)
{
    FILE* in = std::fopen(path, "rb");
    if (!in) return false;
    uint8_t tmp[1 << 16];
    size_t n;
    while ((n = std::fread(tmp, 1, sizeof tmp, in)) > 0) out.insert(out.end(), tmp, tmp + n);
    std::fclose(in);
    return true;
}

bool parseAdts(AdtsClip& c)
{
    static const unsigned kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                      22050, 16000, 12000, 11025, 8000,  7350};
    const std::vector<uint8_t>& s = c.bytes;
    size_t i = 0;
    while (i + 7 <= s.size()) {
        if (s[i] != 0xff || (s[i + 1] & 0xf6) != 0xf0) return false;
        const size_t head = (s[i + 1] & 1) ? 7 : 9;
        const size_t len = size_t(s[i + 3] & 3) << 11 | size_t(s[i + 4]) << 3 | s[i + 5] >> 5;
        if (len <= head || i + len > s.size()) break;
        const unsigned object = (s[i + 2] >> 6) + 1, sfi = (s[i + 2] >> 2) & 15,
                       channels = (s[i + 2] & 1) << 2 | s[i + 3] >> 6;
        if (sfi >= 13) return false;
        if (c.frames.empty()) {
            c.rate = kRates[sfi];
            c.channels = channels;
            c.config[0] = uint8_t(object << 3 | sfi >> 1);
            c.config[1] = uint8_t((sfi & 1) << 7 | channels << 3);
        }
        c.frames.push_back({i + head, len - head});
        i += len;
    }
    return !c.frames.empty() && c.rate > 0;
}

struct Nal {
    size_t at;
    size_t len;
    uint32_t frame;  // access unit within the clip
    bool lastOfFrame;
};

std::string base64(const uint8_t* p, size_t n)
{
    static const char k[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < n; i += 3) {
        const uint32_t v = uint32_t(p[i]) << 16 | (i + 1 < n ? uint32_t(p[i + 1]) << 8 : 0) |
                           (i + 2 < n ? p[i + 2] : 0);
        out += k[v >> 18 & 63];
        out += k[v >> 12 & 63];
        out += i + 1 < n ? k[v >> 6 & 63] : '=';
        out += i + 2 < n ? k[v & 63] : '=';
    }
    return out;
}

// NAL units between start codes, trailing zero bytes (the leading zero of a
// 4-byte start code) taken off the unit in front.
std::vector<Nal> splitAnnexB(const std::vector<uint8_t>& s)
{
    std::vector<Nal> nals;
    const size_t n = s.size();
    size_t i = 0, start = SIZE_MAX;
    auto close = [&](size_t end) {
        if (start == SIZE_MAX) return;
        while (end > start && s[end - 1] == 0) --end;
        if (end > start) nals.push_back({start, end - start, 0, false});
    };
    while (i + 3 <= n) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            close(i);
            i += 3;
            start = i;
        } else {
            ++i;
        }
    }
    close(n);
    return nals;
}

// Access units: a slice whose first_mb_in_slice is 0 (its first bit after
// the header is 1) starts a picture, and parameter sets, SEI and delimiters
// belong to the picture behind them.
uint32_t groupFrames(const std::vector<uint8_t>& s, std::vector<Nal>& nals)
{
    uint32_t frame = 0;
    bool sliceSeen = false;
    for (Nal& n : nals) {
        const uint8_t type = s[n.at] & 31;
        const bool vcl = type >= 1 && type <= 5;
        if (vcl) {
            const bool firstMb0 = n.len > 1 && (s[n.at + 1] & 0x80);
            if (sliceSeen && firstMb0) ++frame;
            sliceSeen = true;
        } else if (sliceSeen) {
            ++frame;
            sliceSeen = false;
        }
        n.frame = frame;
    }
    for (size_t i = 0; i < nals.size(); ++i)
        nals[i].lastOfFrame = i + 1 == nals.size() || nals[i + 1].frame != nals[i].frame;
    return nals.empty() ? 0 : frame + 1;
}

class Writer {
public:
    explicit Writer(FILE* f) : f(f) { buf.reserve(kChunk + 4096); }
    ~Writer() { flush(); }

    void rtp(bool marker, uint16_t seq, uint32_t ts, const uint8_t* a, size_t an, const uint8_t* b,
             size_t bn, uint8_t channel = 0, uint8_t pt = kPayloadType, uint32_t ssrc = kSsrc)
    {
        const size_t len = kRtpHeader + an + bn;
        // clang-format off
        const uint8_t head[4 + kRtpHeader] = {
            '$', channel, uint8_t(len >> 8), uint8_t(len),
            0x80, uint8_t((marker ? 0x80 : 0) | pt), uint8_t(seq >> 8), uint8_t(seq),
            uint8_t(ts >> 24), uint8_t(ts >> 16), uint8_t(ts >> 8), uint8_t(ts),
            uint8_t(ssrc >> 24), uint8_t(ssrc >> 16), uint8_t(ssrc >> 8), uint8_t(ssrc)};
        // clang-format on
        put(head, sizeof head);
        put(a, an);
        put(b, bn);
        ++packets;
    }

    void raw(const uint8_t* p, size_t n) { put(p, n); }

    bool flush()
    {
        if (!buf.empty() && std::fwrite(buf.data(), 1, buf.size(), f) != buf.size()) ok = false;
        written += buf.size();
        buf.clear();
        return ok;
    }

    uint64_t bytes() const { return written + buf.size(); }
    uint64_t packets = 0;
    bool ok = true;

private:
    static constexpr size_t kChunk = 4 << 20;
    void put(const uint8_t* p, size_t n)
    {
        if (!n) return;
        buf.insert(buf.end(), p, p + n);
        if (buf.size() >= kChunk) flush();
    }
    FILE* f;
    std::vector<uint8_t> buf;
    uint64_t written = 0;
};

}  // namespace

int main(int argc, char** argv)
{
    const char* aacPath = nullptr;
    double seconds = 0;
    std::vector<char*> pos{argv[0]};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--aac") == 0 && i + 1 < argc)
            aacPath = argv[++i];
        else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
            seconds = std::strtod(argv[++i], nullptr);
        else
            pos.push_back(argv[i]);
    }
    if (pos.size() < 4) {
        std::fprintf(stderr,
                     "usage: rtsp-record CLIP.h264 OUT TARGET_BYTES [MTU] [--aac CLIP.adts] "
                     "[--seconds S]\n");
        return 2;
    }
    argv = pos.data();
    const std::string out = argv[2];
    const uint64_t target = std::strtoull(argv[3], nullptr, 10);
    const size_t mtu = pos.size() > 4 ? std::strtoul(argv[4], nullptr, 10) : 1400;
    if (mtu < 64 || mtu > 65535 - 4) {
        std::fprintf(stderr, "rtsp-record: MTU %zu out of range\n", mtu);
        return 2;
    }

    std::vector<uint8_t> clip;
    if (!readFile(argv[1], clip)) {
        std::fprintf(stderr, "rtsp-record: %s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    AdtsClip aac;
    if (aacPath && (!readFile(aacPath, aac.bytes) || !parseAdts(aac))) {
        std::fprintf(stderr, "rtsp-record: %s is not a readable ADTS stream\n", aacPath);
        return 1;
    }
    std::vector<Nal> nals = splitAnnexB(clip);
    const uint32_t frames = groupFrames(clip, nals);
    const Nal* sps = nullptr;
    const Nal* pps = nullptr;
    for (const Nal& n : nals) {
        if (!sps && (clip[n.at] & 31) == 7) sps = &n;
        if (!pps && (clip[n.at] & 31) == 8) pps = &n;
    }
    if (!frames || !sps || !pps || sps->len < 4 || (clip[nals.front().at] & 31) != 7) {
        std::fprintf(stderr, "rtsp-record: %s does not start with SPS, PPS and a picture\n",
                     argv[1]);
        return 1;
    }

    const std::string tmpName = out + ".part";
    FILE* f = std::fopen(tmpName.c_str(), "wb");
    if (!f) {
        std::fprintf(stderr, "rtsp-record: %s: %s\n", tmpName.c_str(), std::strerror(errno));
        return 1;
    }
    uint64_t units = 0, unitBytes = 0, totalFrames = 0, repeats = 0;
    uint16_t seq = 0x1234;
    const uint32_t ts0 = 0x10000000;
    uint32_t ts = ts0;
    uint64_t nextReport = 0, rtpPackets = 0;
    uint16_t seqA = 0x4321;
    const uint32_t ts0A = 0x20000000;
    uint64_t audioFrames = 0, audioBytes = 0;
    {
        Writer w(f);
        const size_t room = mtu - kRtpHeader;
        // Whole passes of the clip, so that the stream never starts a
        // repetition without its key frame.
        // Audio frames whose time has come before the picture at `frame`
        // (counted from the start of the stream).
        auto audioUpTo = [&](uint64_t frame) {
            if (aac.frames.empty()) return;
            while (audioFrames * kAudioTicksPerFrame * 25 <= frame * uint64_t(aac.rate)) {
                const AdtsFrame& f = aac.frames[audioFrames % aac.frames.size()];
                const uint8_t au[4] = {0, 16, uint8_t(f.len >> 5), uint8_t((f.len & 31) << 3)};
                w.rtp(true, seqA++, ts0A + uint32_t(audioFrames * kAudioTicksPerFrame), au, 4,
                      aac.bytes.data() + f.at, f.len, 2, kAudioPayloadType, kAudioSsrc);
                ++audioFrames;
                audioBytes += f.len;
            }
        };
        while (seconds > 0 ? double(totalFrames) < seconds * 25 : w.bytes() < target) {
            uint32_t lastFrame = UINT32_MAX;
            for (const Nal& n : nals) {
                const uint8_t* p = clip.data() + n.at;
                const uint32_t t = ts + n.frame * kTicksPerFrame;
                if (n.frame != lastFrame) audioUpTo(totalFrames + n.frame);
                lastFrame = n.frame;
                if (n.len <= room) {
                    w.rtp(n.lastOfFrame, seq++, t, p, n.len, nullptr, 0);
                } else {
                    const uint8_t nri = p[0] & 0x60, type = p[0] & 31;
                    size_t off = 1;
                    while (off < n.len) {
                        const size_t take = std::min(room - 2, n.len - off);
                        const bool first = off == 1, last = off + take == n.len;
                        const uint8_t fu[2] = {
                            uint8_t(nri | 28),
                            uint8_t((first ? 0x80 : 0) | (last ? 0x40 : 0) | type)};
                        w.rtp(last && n.lastOfFrame, seq++, t, fu, 2, p + off, take);
                        off += take;
                    }
                }
                ++units;
                unitBytes += 4 + n.len;
            }
            ts += frames * kTicksPerFrame;
            totalFrames += frames;
            ++repeats;
            if (seconds > 0) {
                std::fprintf(stderr, "rtsp-record: %5.0f s of %.0f\n", double(totalFrames) / 25,
                             seconds);
            } else if (w.bytes() >= nextReport) {
                std::fprintf(stderr, "rtsp-record: %5.0f MB of %.0f\n", double(w.bytes()) / 1e6,
                             double(target) / 1e6);
                nextReport = w.bytes() + target / 10;
            }
        }
        // Sender report then BYE, one compound packet: the end of the stream
        // for a client that counts BYEs.
        const uint32_t last = ts - kTicksPerFrame;
        // clang-format off
        const uint8_t rtcp[4 + 28 + 8] = {
            '$', 1, 0, 36,
            0x80, 200, 0, 6,  // SR, no report blocks
            uint8_t(kSsrc >> 24), uint8_t(kSsrc >> 16), uint8_t(kSsrc >> 8), uint8_t(kSsrc),
            0, 0, 0, 0, 0, 0, 0, 0,  // NTP time: none
            uint8_t(last >> 24), uint8_t(last >> 16), uint8_t(last >> 8), uint8_t(last),
            uint8_t(w.packets >> 24), uint8_t(w.packets >> 16), uint8_t(w.packets >> 8),
            uint8_t(w.packets),
            0, 0, 0, 0,  // octet count: not kept
            0x81, 203, 0, 1,  // BYE, one source
            uint8_t(kSsrc >> 24), uint8_t(kSsrc >> 16), uint8_t(kSsrc >> 8), uint8_t(kSsrc)};
        // clang-format on
        w.raw(rtcp, sizeof rtcp);
        rtpPackets = w.packets;
        if (!w.flush()) {
            std::fprintf(stderr, "rtsp-record: writing %s failed\n", tmpName.c_str());
            std::fclose(f);
            return 1;
        }
    }
    const long size = std::ftell(f);
    if (std::fclose(f) != 0 || size < 0) {
        std::fprintf(stderr, "rtsp-record: writing %s failed\n", tmpName.c_str());
        return 1;
    }

    const std::string metaName = out + ".meta";
    FILE* m = std::fopen(metaName.c_str(), "w");
    if (!m) {
        std::fprintf(stderr, "rtsp-record: %s: %s\n", metaName.c_str(), std::strerror(errno));
        return 1;
    }
    char profile[7];
    std::snprintf(profile, sizeof profile, "%02x%02x%02x", clip[sps->at + 1], clip[sps->at + 2],
                  clip[sps->at + 3]);
    std::fprintf(m,
                 "bytes=%ld\nsprop=%s,%s\nprofile=%s\nssrc=%08x\nseq=%u\nrtptime=%u\n"
                 "frames=%llu\nunits=%llu\nunit_bytes=%llu\nrtp_packets=%llu\nrepeats=%llu\n"
                 "mtu=%zu\nseconds=%.3f\n",
                 size, base64(&clip[sps->at], sps->len).c_str(),
                 base64(&clip[pps->at], pps->len).c_str(), profile, kSsrc, 0x1234u, ts0,
                 static_cast<unsigned long long>(totalFrames),
                 static_cast<unsigned long long>(units), static_cast<unsigned long long>(unitBytes),
                 static_cast<unsigned long long>(rtpPackets),
                 static_cast<unsigned long long>(repeats), mtu, double(totalFrames) / 25);
    if (!aac.frames.empty())
        std::fprintf(m,
                     "audio_rate=%u\naudio_channels=%u\naudio_config=%02x%02x\naudio_ssrc=%08x\n"
                     "audio_seq=%u\naudio_rtptime=%u\naudio_frames=%llu\naudio_bytes=%llu\n",
                     aac.rate, aac.channels, aac.config[0], aac.config[1], kAudioSsrc, 0x4321u,
                     ts0A, static_cast<unsigned long long>(audioFrames),
                     static_cast<unsigned long long>(audioBytes));
    if (std::fclose(m) != 0 || std::rename(tmpName.c_str(), out.c_str()) != 0) {
        std::fprintf(stderr, "rtsp-record: finishing %s failed\n", out.c_str());
        return 1;
    }
    std::fprintf(stderr,
                 "rtsp-record: %s: %ld bytes, %llu pictures, %llu NAL units, clip repeated "
                 "%llu times\n",
                 out.c_str(), size, static_cast<unsigned long long>(totalFrames),
                 static_cast<unsigned long long>(units), static_cast<unsigned long long>(repeats));
    return 0;
}
