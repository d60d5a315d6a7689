// The byte and clock arithmetic behind the network and file sources, on
// hand-made buffers and real encoder output, without any peer. Buffers are
// exactly sized heap copies, so that the sanitizer build sees any read past
// their end.
#include <gtest/gtest.h>

#include <QByteArray>
#include <vector>

#include "input/VeskAvUtil.h"

namespace {

using Bytes = std::vector<uint8_t>;

const QByteArray kStart("\0\0\0\1", 4);

TEST(ParameterSets, AvcRecordsAsX264WritesThemAndBrokenOnes)
{
    // x264's records for 320x240, Baseline and High. The PPS length is read
    // from the PPS's own header byte (0x68), so the chroma fields that High
    // records carry ride along behind the PPS.
    const QByteArray baseline = QByteArray::fromHex(
        "0142c00dffe100166742c00dda0507ec0440000003004000000c83c50aa801000468ce0fc8");
    EXPECT_EQ(VeskAv::annexBParameterSets(baseline).toHex(),
              "000000016742c00dda0507ec0440000003004000000c83c50aa80000000168ce0fc8");
    const QByteArray high = QByteArray::fromHex(
        "0164000dffe100196764000dacd94141fb011000000300100000030320f14299600100066"
        "8eae3cb22c0fdf8f800");
    EXPECT_EQ(VeskAv::annexBParameterSets(high).toHex(),
              "000000016764000dacd94141fb011000000300100000030320f1429960"
              "0000000168eae3cb22c0fdf8f800");

    const QByteArray annexB = kStart + QByteArray::fromHex("6742c00d") + kStart + "\x68";
    EXPECT_EQ(VeskAv::annexBParameterSets(annexB), annexB);
    EXPECT_TRUE(VeskAv::annexBParameterSets(QByteArray()).isEmpty());
    for (int n = 1; n <= high.size(); ++n) {
        const QByteArray out = VeskAv::annexBParameterSets(high.left(n));
        EXPECT_LE(out.size(), n + 8) << n;
    }
    QByteArray lying = high;
    lying[7] = char(0xff);  // an SPS longer than the record
    EXPECT_EQ(VeskAv::annexBParameterSets(lying), kStart + high.mid(8) + kStart);
}

TEST(AacConfig, IndexAndTheConfigBytesForStreamsThatCarryNone)
{
    // The lookup starts at 88200: 96000 and unknown rates give 0.
    EXPECT_EQ(get_sr_index(96000), 0u);
    EXPECT_EQ(get_sr_index(7350), 12u);
    struct {
        unsigned rate, channels;
        uint8_t b0, b1;
    } cases[] = {{48000, 2, 0x11, 0x90}, {44100, 1, 0x12, 0x08}, {8000, 1, 0x15, 0x88},
                 {22050, 6, 0x13, 0xb0}};
    for (const auto& c : cases) {
        unsigned char out[2] = {0, 0};
        make_dsi(get_sr_index(c.rate), c.channels, out);
        EXPECT_EQ((out[0] << 8) | out[1], (c.b0 << 8) | c.b1) << c.rate << "/" << c.channels;
    }
}

TEST(StartCodes, NetworkRuleStopsAtALengthPastTheEndAndFileRuleRejectsThePacket)
{
    const Bytes two = {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 3, 0x65, 0x88, 0x84};
    const Bytes converted = {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x65, 0x88, 0x84};
    Bytes p = two;
    VeskAv::lengthsToStartCodes(p.data(), int(p.size()));
    EXPECT_EQ(p, converted);
    p = two;
    EXPECT_TRUE(VeskAv::lengthsToStartCodesStrict(p.data(), int(p.size())));
    EXPECT_EQ(p, converted);

    Bytes lying = {0, 0, 0, 1, 0x65, 0x7f, 0xff, 0xff, 0xff, 0x41, 0x42};
    VeskAv::lengthsToStartCodes(lying.data(), int(lying.size()));
    EXPECT_EQ(lying, (Bytes{0, 0, 0, 1, 0x65, 0, 0, 0, 1, 0x41, 0x42}));

    Bytes zero = {0, 0, 0, 0, 0x65, 0x88};
    EXPECT_FALSE(VeskAv::lengthsToStartCodesStrict(zero.data(), int(zero.size())));
    Bytes overlong = {0, 0, 0, 2, 0x09, 0xf0, 0, 0, 0, 9, 0x65, 0x88};
    EXPECT_FALSE(VeskAv::lengthsToStartCodesStrict(overlong.data(), int(overlong.size())));
    // Measured from its own field, a last length may reach 4 bytes past the
    // end, as it always could on the appliance; nothing is read there.
    Bytes edge = {0, 0, 0, 5, 0x65, 0x88, 0x84};
    EXPECT_TRUE(VeskAv::lengthsToStartCodesStrict(edge.data(), int(edge.size())));
}

// ---- stamped times ---------------------------------------------------------

const uint8_t kUuidMicros[16] = {0xda, 0x3c, 0x78, 0xf6, 0x0c, 0x46, 0x4d, 0x30,
                                 0x94, 0xfe, 0x45, 0x0c, 0x49, 0xe2, 0x26, 0xea};
const uint8_t kUuidMillis[16] = {0x05, 0x17, 0x0d, 0xb4, 0xe9, 0xab, 0x44, 0xb0,
                                 0xb4, 0x1c, 0xcc, 0x8e, 0x4f, 0xe2, 0xf9, 0xc6};

// Start code, SEI header, type 5, size, UUID; the time sits 25 (µs UUID) or
// 31 (ms UUID) bytes behind the start code (one more for H.265's second
// header byte).
Bytes stampedSei(bool hevc, const uint8_t* uuid, uint64_t time)
{
    const size_t at = (hevc ? 1 : 0) + (uuid == kUuidMicros ? 25 : 31);
    Bytes b = {0, 0, 0, 1};
    if (hevc)
        b.insert(b.end(), {39 << 1, 1});
    else
        b.push_back(0x06);
    b.insert(b.end(), {5, 40});
    b.insert(b.end(), uuid, uuid + 16);
    b.resize(at + 8 + 1, 0x11);
    for (int i = 0; i < 8; ++i) b[at + i] = uint8_t(time >> (8 * i));
    b.back() = 0x80;
    return b;
}

TEST(StampedTime, BothUuidsInBothCodecsBehindOtherUnits)
{
    int64_t t = 0;
    for (bool hevc : {false, true}) {
        Bytes a = stampedSei(hevc, kUuidMicros, 1700000000123456ull);
        ASSERT_TRUE(VeskAv::findStampedTime(a.data(), int(a.size()), hevc ? 5 : 4, &t));
        EXPECT_EQ(t, 1700000000123456);
        Bytes b = stampedSei(hevc, kUuidMillis, 1700000000123ull);
        ASSERT_TRUE(VeskAv::findStampedTime(b.data(), int(b.size()), hevc ? 5 : 4, &t));
        EXPECT_EQ(t, 1700000000123000);
    }
    // AUD, a recovery point SEI, then the stamp: found.
    Bytes au = {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x06, 0x06, 0x01, 0xc4, 0x80};
    const Bytes sei = stampedSei(false, kUuidMicros, 5555);
    au.insert(au.end(), sei.begin(), sei.end());
    ASSERT_TRUE(VeskAv::findStampedTime(au.data(), int(au.size()), 4, &t));
    EXPECT_EQ(t, 5555);
    // Someone else's user data SEI ends the search before the stamp.
    const uint8_t other[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Bytes foreign = stampedSei(false, other, 1);
    foreign.insert(foreign.end(), sei.begin(), sei.end());
    EXPECT_FALSE(VeskAv::findStampedTime(foreign.data(), int(foreign.size()), 4, &t));
    // The H.264 header means nothing to H.265, and SEI nothing to MPEG-4.
    EXPECT_FALSE(VeskAv::findStampedTime(sei.data(), int(sei.size()), 5, &t));
    EXPECT_FALSE(VeskAv::findStampedTime(sei.data(), int(sei.size()), 14, &t));
}

TEST(StampedTime, CutOffStampGivesNoTime)
{
    const Bytes full = stampedSei(false, kUuidMillis, 99);
    for (size_t n = 0; n <= full.size(); ++n) {
        const Bytes cut(full.begin(), full.begin() + long(n));
        int64_t t = -5;
        const bool found = VeskAv::findStampedTime(cut.data(), int(cut.size()), 4, &t);
        EXPECT_EQ(found, n >= 31 + 8) << n;
        EXPECT_EQ(t, found ? 99000 : -5) << n;
    }
}

// ---- clock -------------------------------------------------------------------

TEST(Drift, BandSlewAndJump)
{
    const int64_t now = 100000000;
    int64_t offV = 0, offA = 0;
    int count = 9;
    int64_t pts = now + 50000, dts = pts;
    VeskAv::applyDrift(now, &pts, &dts, &offV, &offA, &count);
    EXPECT_EQ(count, 0) << "50 ms off is inside the band";

    // 90 ms late: ten packets pass (offsetA follows all the same), the
    // eleventh moves the offset by a thirtieth of the error, the twelfth by
    // a thirtieth of what is left. Each packet keeps its own time.
    for (int i = 1; i <= 12; ++i) {
        const int64_t before = offV;
        pts = now - 90000 + offV;
        dts = pts;
        VeskAv::applyDrift(now, &pts, &dts, &offV, &offA, &count);
        EXPECT_EQ(pts, now - 90000 + before);
        EXPECT_EQ(offV, i <= 10 ? 0 : i == 11 ? 3000 : 3000 + 87000 / 30) << i;
        EXPECT_EQ(offA, offV);
    }
    // Ten seconds early: 5 ms at most.
    offV = 0;
    pts = dts = now + 10000000;
    VeskAv::applyDrift(now, &pts, &dts, &offV, &offA, &count);
    EXPECT_EQ(offV, -5000);
    // Beyond 50 s the packet is pulled onto the clock, dts keeping its lead.
    offV = 1234;
    pts = now + 60000000;
    dts = pts - 80000;
    VeskAv::applyDrift(now, &pts, &dts, &offV, &offA, &count);
    EXPECT_EQ(pts, now);
    EXPECT_EQ(dts, now - 80000);
    EXPECT_EQ(offV, 1234 - 60000000);
    EXPECT_EQ(offA, offV);
}

TEST(NetClock, AutoModeStartsOnTheFirstKeyFrameAndAudioFollowsVideo)
{
    VeskAv::NetClock c;
    c.hasVideo = true;
    int64_t now = 5000000, pts = 0, dts = 0;
    EXPECT_FALSE(c.audio(now, 0, &pts));
    EXPECT_FALSE(c.video(&now, 40000, 40000, false, nullptr, 0, &pts, &dts));
    ASSERT_TRUE(c.video(&now, 80000, 80000, true, nullptr, 0, &pts, &dts));
    EXPECT_EQ(pts, now);
    ASSERT_TRUE(c.audio(now + 10000, 85000, &pts));
    EXPECT_EQ(pts, now + 5000);

    VeskAv::NetClock audioOnly;
    ASSERT_TRUE(audioOnly.audio(now, 1000000, &pts));
    EXPECT_EQ(pts, now);

    // Local mode stamps arrival and keeps the reorder distance.
    VeskAv::NetClock local;
    local.mode = VeskAv::NetClock::Local;
    ASSERT_TRUE(local.video(&now, 120000, 40000, false, nullptr, 0, &pts, &dts));
    EXPECT_EQ(pts, now);
    EXPECT_EQ(dts, now - 80000);
}

TEST(NetClock, SyncDropsFiftyPacketsWaitsTheMinimumDelayAndNeverCorrects)
{
    VeskAv::NetClock c;
    c.hasVideo = true;
    c.sync = true;
    c.driftControl = false;
    c.minDelayMs = 300;
    int delayed = 0;
    c.firstFrameDelay = [&](int ms) {
        delayed = ms;
        return int64_t(9000000);
    };
    int64_t now = 1000000, pts = 0, dts = 0;
    for (int i = 0; i < 50; ++i)  // key frames among them go too
        EXPECT_FALSE(c.video(&now, i * 40000, i * 40000, i % 25 == 0, nullptr, 0, &pts, &dts));
    EXPECT_FALSE(c.video(&now, 50 * 40000, 50 * 40000, false, nullptr, 0, &pts, &dts));
    EXPECT_EQ(delayed, 0);
    ASSERT_TRUE(c.video(&now, 52 * 40000, 51 * 40000, true, nullptr, 0, &pts, &dts));
    EXPECT_EQ(delayed, 300);
    EXPECT_EQ(pts, 9000000);
    EXPECT_EQ(dts, 9000000 - 40000);
    now += 120000000;
    ASSERT_TRUE(c.video(&now, 53 * 40000, 53 * 40000, false, nullptr, 0, &pts, &dts));
    EXPECT_EQ(pts, 9000000 + 40000);
}

TEST(NetClock, SyncModeTakesTheSendersStampOnKeyFrames)
{
    VeskAv::NetClock c;
    c.mode = VeskAv::NetClock::Sync;
    c.hasVideo = true;
    c.videoType = 4;
    const Bytes sei = stampedSei(false, kUuidMicros, 50000000);
    int64_t now = 20000000, pts = 0, dts = 0;
    ASSERT_TRUE(c.video(&now, 1000000, 1000000, true, sei.data(), int(sei.size()), &pts, &dts));
    EXPECT_EQ(pts, 50000000);
    ASSERT_TRUE(c.video(&now, 1040000, 1040000, false, sei.data(), int(sei.size()), &pts, &dts));
    EXPECT_EQ(pts, 50040000) << "a delta frame keeps the offset";
    ASSERT_TRUE(c.video(&now, 2000000, 2000000, true, nullptr, 0, &pts, &dts));
    EXPECT_EQ(pts, now) << "a key frame without a stamp falls back to the host clock";
    VeskAv::NetClock audioOnly;
    audioOnly.mode = VeskAv::NetClock::Sync;
    EXPECT_FALSE(audioOnly.audio(now, 5, &pts));
}

TEST(NetClock, HostileTimesStayDefined)
{
    // At the ends of int64 the conversion saturates, so that the sums after
    // it cannot overflow (the sanitizer build stops on overflow).
    EXPECT_EQ(VeskAv::toMicros(3003, 30000), 100100);
    EXPECT_EQ(VeskAv::toMicros(12345, 0), 0);
    VeskAv::NetClock c;
    c.hasVideo = true;
    int64_t now = 1000, pts = 0, dts = 0;
    const int64_t big = VeskAv::toMicros(INT64_MAX, 1), small = VeskAv::toMicros(INT64_MIN, 1);
    ASSERT_TRUE(c.video(&now, big, small, true, nullptr, 0, &pts, &dts));
    ASSERT_TRUE(c.video(&now, small, big, false, nullptr, 0, &pts, &dts));
    ASSERT_TRUE(c.audio(now, big, &pts));
    ASSERT_TRUE(c.audio(now, small, &pts));
}

}  // namespace
