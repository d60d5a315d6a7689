#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "input/RtpMedia.h"

using Bytes = std::vector<char>;
using Packet = VeskObject::Packet;

namespace {

Bytes hex(const std::string& text)
{
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(char(std::stoi(text.substr(i, 2), nullptr, 16)));
    return out;
}

Bytes cat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// An RTP packet of the fixed 12-byte header; only the timestamp matters.
Bytes rtp(uint32_t ts, const Bytes& payload)
{
    Bytes p = hex("80600001000000002089abcd");
    for (int i = 0; i < 4; ++i) p[4 + i] = char(ts >> (24 - 8 * i));
    return cat(p, payload);
}

struct Sink : RtspMediaSink {
    std::deque<Bytes> pool;
    std::vector<std::pair<Packet, Bytes>> sent;  // bytes as they were at delivery
    int infos = 0;
    int64_t clock = 1000000000;

    char* buffer(const char* src, int len, int headroom) override
    {
        pool.emplace_back(size_t(headroom + len));
        char* p = pool.back().data() + headroom;
        if (src) memcpy(p, src, size_t(len));
        return p;
    }
    void sendInfo(bool, const VeskObject::StreamInfo&) override { ++infos; }
    void sendPacket(bool, const Packet& p) override
    {
        sent.push_back({p, Bytes(p.data, p.data + p.len)});
    }
    int64_t now() override { return clock; }
};

struct Media : ::testing::Test {
    Sink sink;
    RtspMedia media{sink};
    void video(Bytes p) { media.parseV(p.data(), int(p.size())); }
    Bytes bytes(size_t i) const { return sink.sent.at(i).second; }
    Packet packet(size_t i) const { return sink.sent.at(i).first; }
};

// Real encoder output (x264, x265) and two hand-built units whose fields were
// checked with FFmpeg's header tracer.
const char* kSps1080 = "674d4028eca03c0113f2e022000003000200000300641e30632c";
const char* kSps720 = "6764001facd9405005bb011000000300100000030320f1831960";
const char* kSps360x444 = "67f4001e919b281405ff1380880000030008000003019078b16cb0";
const char* kSpsInterlaced = "67640028acd94078044fde0220000003002000000643e2c5b2c0";
const char* kSpsScaling =
    "67640028ad95d10ae2e57442b8b95d10ae2e57442b8b95d10ae2e57442b8b95d10ae8857442ba215d10ae885"
    "62e57442ba215d10ae8857442ba2158b2ca805002264";
const char* kSpsPoc1 = "674d0028950e3888a00961016824c8";
const char* kSps265 =
    "420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84";
const char* kSps265Layers =
    "4201020408000003009e0800000300003f00009000a0402d2cb2b3159a4932bc05b81010002000000300200000"
    "030321";

// Decodes the first len bytes of an exact-size copy, so ASan sees any read past them.
int sps(bool h265, const Bytes& unit, size_t len, int& w, int& h)
{
    std::unique_ptr<unsigned char[]> d(new unsigned char[len + 1]);
    memcpy(d.get(), unit.data(), len);
    return h265 ? h265_decode_sps(d.get(), unsigned(len), w, h)
                : h264_decode_sps(d.get(), unsigned(len), w, h);
}

}  // namespace

// ---- SDP ---------------------------------------------------------------------

TEST_F(Media, SdpH264AndAacWithRelativeControls)
{
    media.parseSDP(
        "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=Session\r\nt=0 0\r\na=control:*\r\n"
        "m=video 0 RTP/AVP 96\r\nc=IN IP4 0.0.0.0\r\na=rtpmap:96 H264/90000\r\n"
        "a=framerate:29.97\r\n"
        "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z01AKOygPAET8uAiAAADAAIAAAMAZB4wYyw="
        ",aOvjyyA=;profile-level-id=4d4028\r\na=control:stream=0\r\n"
        "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MPEG4-GENERIC/48000/2\r\n"
        "a=fmtp:97 streamtype=5;mode=AAC-hbr;sizelength=13\r\na=control:stream=1\r\n",
        "rtsp://127.0.0.1:8554/test");
    EXPECT_EQ(media.controlV, "rtsp://127.0.0.1:8554/test/stream=0");
    EXPECT_EQ(media.controlA, "rtsp://127.0.0.1:8554/test/stream=1");
    EXPECT_EQ(media.infoV.type, VeskObject::TypeH264);
    EXPECT_EQ(media.clockV, 90000);
    EXPECT_EQ(media.infoV.params["width"], 1920);
    EXPECT_EQ(media.infoV.params["height"], 1080);
    EXPECT_EQ(media.infoV.params["framerate"], 29);
    EXPECT_TRUE(media.fmtpV.startsWith("packetization-mode=1;"));
    EXPECT_EQ(media.infoA.type, VeskObject::TypeAAC);
    EXPECT_EQ(media.infoA.params["samplerate"].userType(), QMetaType::LongLong);
    EXPECT_EQ(media.infoA.params["samplerate"], 48000);
    EXPECT_EQ(media.infoA.params["channels"], QVariant(QString("2")));
    EXPECT_EQ(sink.infos, 2);
}

TEST_F(Media, SdpH265AndG711)
{
    media.parseSDP(
        "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\n"
        "a=fmtp:96 sprop-vps=QAEMAf//AWAAAAMAkAAAAwAAAwB4lZgJ;"
        "sprop-sps=QgEBAWAAAAMAkAAAAwAAAwB4oAPAgBDlllZpJMrwFoCAAAADAIAAAAyE;sprop-pps=RAHBcrRiQA=="
        "\r\na=control:rtsp://10.0.0.2/cam/trackID=1\r\n"
        "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\na=control:trackID=2\r\n",
        "rtsp://10.0.0.2/cam");
    EXPECT_EQ(media.infoV.type, VeskObject::TypeH265);
    EXPECT_EQ(media.controlV, "rtsp://10.0.0.2/cam/trackID=1");
    EXPECT_EQ(media.controlA, "rtsp://10.0.0.2/cam/trackID=2");
    EXPECT_EQ(media.infoA.type, VeskObject::TypePCMA);
    EXPECT_EQ(media.infoA.params["channels"], QVariant(1));

    // Video names must match exactly, audio names by prefix in any case.
    media.parseSDP(
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 h264/90000\r\n"
        "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 pcmu/8000\r\n",
        "u");
    EXPECT_EQ(media.infoV.type, VeskObject::TypeH265);
    EXPECT_EQ(media.infoA.type, VeskObject::TypePCMU);
}

// ---- bit readers and SPS -------------------------------------------------------

TEST(BitReaders, ExpGolombAndEnds)
{
    // 1 010 011 00100 0001000 then padding: code numbers 0,1,2,3,7.
    const unsigned char d[] = {0xA6, 0x41, 0x00};
    unsigned pos = 0;
    bool over = false;
    std::vector<uint32_t> got;
    for (int i = 0; i < 5; ++i) got.push_back(Ue(d, 3, pos, &over));
    EXPECT_EQ(got, (std::vector<uint32_t>{0, 1, 2, 3, 7}));
    pos = 1;
    EXPECT_EQ(Se(d, 3, pos), 1);
    EXPECT_EQ(Se(d, 3, pos), -1);
    pos = 24;
    EXPECT_EQ(Ue(d, 3, pos, &over), 0u);  // at the end: one step, no read
    EXPECT_EQ(pos, 25u);
    EXPECT_FALSE(over);
    pos = 20;
    EXPECT_EQ(u(8, d, 3, pos, &over), 0u);
    EXPECT_TRUE(over);
}

TEST(EmulationPrevention, MatchesBytewiseShifting)
{
    // The straightforward form: shift the tail down at each match and keep
    // scanning over the original length.
    auto naive = [](Bytes d) {
        unsigned total = unsigned(d.size()), len = total;
        for (unsigned i = 0; total >= 3 && i < total - 2; ++i)
            if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 3) {
                for (unsigned j = i + 2; j < total - 1; ++j) d[j] = d[j + 1];
                --len;
            }
        d.resize(len);
        return d;
    };
    auto fast = [](Bytes d) {
        unsigned len = unsigned(d.size());
        de_emulation_prevention(reinterpret_cast<unsigned char*>(d.data()), &len);
        d.resize(len);
        return d;
    };
    EXPECT_EQ(fast(hex("0000030100")), hex("00000100"));
    EXPECT_EQ(fast(hex("000003000003")), hex("00000000"));
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; ++round) {
        Bytes d(rng() % 24);
        for (char& c : d) c = "\0\0\0\3\1"[rng() % 5];
        ASSERT_EQ(fast(d), naive(d)) << "round " << round;
    }
}

TEST(H264Sps, SizesOfRealUnits)
{
    struct Case {
        const char* sps;
        int width, height;
    } cases[] = {
        {kSps1080, 1920, 1080},       // coded 1088
        {kSps720, 1280, 720},         //
        {kSps360x444, 640, 368},      // High 4:4:4; 360 isn't cropped
        {kSpsInterlaced, 1920, 544},  // map units of a field pair
        {kSpsScaling, 1280, 1080},    // eight scaling lists
        {kSpsPoc1, 720, 576},         // picture order count type 1
    };
    int w = 0, h = 0;
    for (const Case& c : cases) {
        EXPECT_EQ(sps(false, hex(c.sps), strlen(c.sps) / 2, w, h), 1) << c.sps;
        EXPECT_EQ(std::make_pair(w, h), std::make_pair(c.width, c.height)) << c.sps;
    }
    EXPECT_EQ(sps(false, hex("68ebe3cb20"), 5, w, h), 0);  // a PPS
}

TEST_F(Media, H265SpsIsReadWithItsHeaderAsIfItWerePayload)
{
    // With one sublayer the header's two bytes are absorbed by the sublayer
    // fields that the misaligned read sees; with two (x265 temporal layers)
    // the read goes astray and the SDP announces 0x0.
    const struct {
        const char* sps;
        int width, height;
    } cases[] = {{kSps265, 1920, 1080}, {kSps265Layers, 0, 0}};
    for (const auto& c : cases) {
        const Bytes unit = hex(c.sps);
        int w = 0, h = 0;
        EXPECT_EQ(sps(true, Bytes(unit.begin() + 2, unit.end()), unit.size() - 2, w, h), 1);
        media.parseSDP("m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\na=fmtp:96 sprop-sps=" +
                           QByteArray::fromHex(c.sps).toBase64() + "\r\n",
                       "u");
        EXPECT_EQ(media.infoV.params["width"], c.width) << c.sps;
        EXPECT_EQ(media.infoV.params["height"], c.height) << c.sps;
    }
}

TEST(HostileSps, TruncationAndHugeCodesStayInside)
{
    // Every cut of a real unit gives a result or a refusal that leaves the
    // outputs alone.
    for (const char* text : {kSps1080, kSpsScaling, kSpsPoc1, kSps265}) {
        const Bytes full = hex(text);
        for (size_t cut = 0; cut < full.size(); ++cut) {
            int w = -7, h = -7;
            if (!sps(text == kSps265, full, cut, w, h) && text != kSps265) {
                EXPECT_EQ(w, -7) << text << " cut " << cut;
            }
        }
    }
    // A picture-order cycle of 2^32-2 entries in a 15-byte unit ends at once.
    int w = -7, h = -7;
    EXPECT_EQ(sps(false, hex("6742001ed120000003001fffffffea"), 15, w, h), 0);
    EXPECT_EQ(w, -7);
    // Sizes of 2^32-1 macroblocks wrap instead of overflowing.
    EXPECT_EQ(sps(false, hex("6742001eda0000030000ffffffff0000030001ffffffff"), 23, w, h), 1);
    EXPECT_EQ(w, -16);
}

// ---- video -------------------------------------------------------------------

TEST_F(Media, SingleNalUnitsAndFrameType)
{
    media.infoV.type = VeskObject::TypeH264;
    media.clockV = 90000;
    media.timestampMode = "none";
    video(rtp(90000, hex("4188aa")));
    video(rtp(180000, hex("6588bb")));
    video(rtp(180000, hex("674d40")));
    EXPECT_EQ(bytes(0), hex("000000014188aa"));
    EXPECT_EQ(packet(0).pts, 1000000);
    EXPECT_EQ(packet(0).dts, -1);
    EXPECT_EQ(packet(0).frameType, 1);
    EXPECT_EQ(packet(1).frameType, 0);
    EXPECT_EQ(packet(2).frameType, 0);

    media.infoV.type = VeskObject::TypeH265;
    video(rtp(0, hex("0201aa")));  // TRAIL_R
    video(rtp(0, hex("2601aa")));  // IDR_W_RADL
    EXPECT_EQ(packet(3).frameType, 1);
    EXPECT_EQ(packet(4).frameType, 0);
}

TEST_F(Media, FragmentsReassembleToAnnexB)
{
    media.infoV.type = VeskObject::TypeH264;
    video(rtp(1, hex("7c85a1a2")));
    video(rtp(1, hex("7c05b1")));
    video(rtp(2, hex("7c45c1c2")));
    ASSERT_EQ(sink.sent.size(), 1u);
    EXPECT_EQ(bytes(0), hex("0000000165a1a2b1c1c2"));
    EXPECT_EQ(packet(0).frameType, 0);

    // A new start while a run is open drops the run; a fragment with both
    // start and end bits joins the run like a middle one.
    video(rtp(3, hex("7c81d1")));
    video(rtp(3, hex("7c81e1")));
    video(rtp(3, hex("7cc1e2")));
    video(rtp(3, hex("7c41e3")));
    ASSERT_EQ(sink.sent.size(), 2u);
    EXPECT_EQ(bytes(1), hex("0000000161e1e2e3"));
    EXPECT_EQ(packet(1).frameType, 1);

    media.infoV.type = VeskObject::TypeH265;
    video(rtp(4, hex("620181f1")));  // FU of a TRAIL_R
    video(rtp(4, hex("620141f2")));
    ASSERT_EQ(sink.sent.size(), 3u);
    EXPECT_EQ(bytes(2), hex("000000010201f1f2"));
    EXPECT_EQ(packet(2).frameType, 1);
}

TEST_F(Media, StapAKeepsItsSettledStride)
{
    media.infoV.type = VeskObject::TypeH264;
    // SPS (6 bytes) and PPS (4 bytes): the SPS comes out whole, then the walk
    // steps back over its own start codes and sends three 4-byte units.
    video(rtp(5, hex("180006674d4028eca0000468ebe3cb")));
    ASSERT_EQ(sink.sent.size(), 4u);
    EXPECT_EQ(bytes(0), hex("00000001674d4028eca0"));
    for (int i = 1; i < 4; ++i) EXPECT_EQ(bytes(i), hex("00000001"));

    sink.sent.clear();
    video(rtp(5, hex("18000309f0aa")));
    ASSERT_EQ(sink.sent.size(), 1u);
    EXPECT_EQ(bytes(0), hex("0000000109f0aa"));
}

// ---- audio ---------------------------------------------------------------------

TEST_F(Media, AudioSkipsPayloadHeaderInPlace)
{
    media.timestampMode = "none";
    media.clockA = 48000;
    media.infoA.type = VeskObject::TypeAAC;
    Bytes aac = rtp(48000, hex("00101c00abcdef"));
    media.parseA(aac.data(), int(aac.size()));
    media.infoA.type = VeskObject::TypePCMA;
    Bytes pcma = rtp(96000, hex("d5d5"));
    media.parseA(pcma.data(), int(pcma.size()));
    EXPECT_EQ(packet(0).data, aac.data() + 16);
    EXPECT_EQ(bytes(0), hex("abcdef"));
    EXPECT_EQ(packet(0).frameType, 3);
    EXPECT_EQ(packet(0).pts, 1000000);
    EXPECT_EQ(bytes(1), hex("d5d5"));
    EXPECT_EQ(packet(1).pts, 2000000);
}

// ---- clock mapping ----------------------------------------------------------------

TEST(ClockMapping, JumpBandAndSlew)
{
    int64_t offset = -1;
    int32_t count = 0;
    const int64_t now = 50000000;
    EXPECT_EQ(mapClock(1000, now, offset, count), now);  // the first packet jumps
    EXPECT_EQ(offset, now - 1000);
    EXPECT_EQ(mapClock(41000, now + 70000, offset, count), now + 40000);  // in band
    EXPECT_EQ(count, 0);

    // Three seconds off is no jump: ten packets go out as they are, then each
    // moves the offset by the 5 ms clamp.
    const int64_t before = offset;
    for (int i = 1; i <= 10; ++i) EXPECT_EQ(mapClock(3001000, now, offset, count), now + 3000000);
    EXPECT_EQ(offset, before);
    EXPECT_EQ(mapClock(3001000, now, offset, count), now + 3000000);
    EXPECT_EQ(offset, before - 5000);
    // Below the clamp the slew is the eightieth part, truncated.
    EXPECT_EQ(mapClock(206079, now, offset, count), now + 200079);
    EXPECT_EQ(offset, before - 5000 - 2500);
    EXPECT_EQ(count, 12);

    // Beyond five seconds the stream is followed at once.
    EXPECT_EQ(mapClock(90000000, now, offset, count), now);
    EXPECT_EQ(mapClock(90000000, now, offset, count), now);
    EXPECT_EQ(count, 0);
}

// ---- hostile input --------------------------------------------------------------------

TEST_F(Media, HostilePacketsStayInsideTheirBuffers)
{
    media.infoV.type = VeskObject::TypeH264;
    video(hex("80600001000000010000"));  // shorter than its header
    video(rtp(1, hex("7c")));            // FU-A without its FU header
    video(rtp(1, hex("18ffff6742")));    // STAP-A size past the end
    video(rtp(1, hex("18")));            // STAP-A with nothing in it
    // An odd remainder never reaches 0: the walk stops at the first byte,
    // after the unit and five 4-byte passes.
    video(rtp(1, hex("18000109"
                     "00")));
    ASSERT_EQ(sink.sent.size(), 6u);
    EXPECT_EQ(bytes(0), hex("0000000109"));

    // A run that outgrows the reassembly buffer is dropped whole, and the next
    // run is unaffected.
    sink.sent.clear();
    video(rtp(2, cat(hex("7c85"), Bytes(60000, 1))));
    for (int i = 0; i < 20; ++i) video(rtp(2, cat(hex("7c05"), Bytes(60000, 2))));
    video(rtp(2, hex("7c4503")));
    EXPECT_TRUE(sink.sent.empty());
    EXPECT_EQ(media.fuLen, 4);
    video(rtp(3, hex("7c8501")));
    video(rtp(3, hex("7c4502")));
    ASSERT_EQ(sink.sent.size(), 1u);
    EXPECT_EQ(bytes(0), hex("00000001650102"));

    // Audio shorter than its headers, and padding larger than the packet.
    media.infoA.type = VeskObject::TypeAAC;
    Bytes aac = rtp(0, hex("0010"));
    media.parseA(aac.data(), int(aac.size()));
    Bytes padded = rtp(0, hex("aabbccff"));
    padded[0] = char(0xA0);
    media.parseA(padded.data(), rtpUnpaddedLength(padded.data(), int(padded.size())));
    media.parseV(padded.data(), rtpUnpaddedLength(padded.data(), int(padded.size())));
    EXPECT_EQ(sink.sent.size(), 1u);
}
