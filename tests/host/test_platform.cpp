// The host's media layer and services: the clock, tees, frames, the copy
// engine, the board description and JSON.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <cstring>
#include <thread>

#include "frame/Vesk.h"
#include "frame/VeskHi.h"
#include "host/VeskHost.h"

namespace {

int64_t now()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

uint8_t* plane(const ot_video_frame_info& f, int i)
{
    return reinterpret_cast<uint8_t*>(f.video_frame.virt_addr[i]);
}

}  // namespace

TEST(Clock, IsMonotonicInMicrosecondsAndMovesWithTheOffset)
{
    int64_t last = now();
    for (int i = 0; i < 10000; ++i) {
        const int64_t t = now();
        ASSERT_GE(t, last);
        last = t;
    }
    const int64_t a = now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const int64_t elapsed = now() - a;
    EXPECT_GE(elapsed, 20000);
    EXPECT_LT(elapsed, 2000000);

    VeskHi::setPTSOffset(1000000000LL);
    const int64_t shifted = now() - a;
    VeskHi::setPTSOffset(0);
    EXPECT_GE(shifted, 1000000000LL);
    EXPECT_LT(shifted, 1002000000LL);
    EXPECT_LT(now() - a, 2000000);
}

TEST(Tees, HaveUniqueIdsAndAreFoundById)
{
    VeskTee* a = VeskHi::newTee(OT_ID_VI, 0, 2);
    VeskTee* b = VeskHi::newTee(OT_ID_USER, 0, 0);
    ASSERT_TRUE(a && b);
    EXPECT_GT(a->getId(), 0);
    EXPECT_NE(a->getId(), b->getId());
    EXPECT_EQ(VeskHi::getTee(a->getId()), a);
    EXPECT_EQ(a->getSource().mod_id, OT_ID_VI);
    EXPECT_EQ(a->getSource().chn_id, 2);
    EXPECT_EQ(VeskHi::getTee(0), nullptr);
    EXPECT_EQ(VeskHi::getTee(1 << 30), nullptr);

    VeskTeeChn* c1 = a->newChn(false, true);
    VeskTeeChn* c2 = a->newChnIPC();
    ASSERT_TRUE(c1->vpss && c2->vpss);
    EXPECT_NE(c1->vpss->getId(), c2->vpss->getId());
    EXPECT_EQ(c1->getChn().dev_id, c1->vpss->getId());

    VeskHost::clearBindings();
    EXPECT_EQ(VeskHi::bindFromTee(c1, OT_ID_VO, 0, 1), 1);
    ASSERT_EQ(VeskHost::bindings().size(), 1);
    EXPECT_EQ(VeskHost::bindings()[0].teeId, a->getId());
    EXPECT_EQ(VeskHost::bindings()[0].dst.chn_id, 1);

    const int id = a->getId();
    VeskHi::delTee(a);
    EXPECT_EQ(VeskHi::getTee(id), nullptr);
    EXPECT_EQ(VeskHi::getTee(b->getId()), b);
    VeskHi::delTee(b);
}

TEST(Frames, HaveAlignedStridesAndWritablePlanes)
{
    ot_video_frame_info f = VeskHi::makeFrame(100, 51, nullptr);
    const ot_video_frame& v = f.video_frame;
    EXPECT_EQ(v.width, 100u);
    EXPECT_EQ(v.stride[0], 112u);
    EXPECT_EQ(v.stride[1], 112u);
    ASSERT_NE(v.virt_addr[0], 0u);
    ASSERT_NE(v.virt_addr[1], 0u);
    EXPECT_NE(v.phys_addr[0], 0u);
    // Every byte of both planes, the last odd chroma row included.
    std::memset(plane(f, 0), 1, 112 * 51);
    std::memset(plane(f, 1), 2, 112 * 26);

    EXPECT_EQ(VeskHi::makeFrame(0, 10, nullptr).video_frame.virt_addr[0], 0u);
}

TEST(CopyEngine, CopiesOnlyWhatLiesInsideBothFrames)
{
    ot_video_frame_info s = VeskHi::makeFrame(64, 32, nullptr);
    ot_video_frame_info d = VeskHi::makeFrame(40, 20, nullptr);
    const uint32_t ss = s.video_frame.stride[0], ds = d.video_frame.stride[0];
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 0; x < ss; ++x) plane(s, 0)[y * ss + x] = uint8_t(y * 64 + x);
    std::memset(plane(d, 0), 0, ds * 20);
    std::memset(plane(s, 1), 0x55, ss * 16);
    std::memset(plane(d, 1), 0, ds * 10);

    MemInfo src, dst;
    src.fromFrame(s);
    dst.fromFrame(d);
    int handle = 0;
    // Reaches past the destination's right and bottom edges.
    ASSERT_EQ(IVE::copy(&handle, &src, &dst, QRect(30, 10, 30, 20), TD_TRUE), 0);
    for (uint32_t y = 0; y < 20; ++y)
        for (uint32_t x = 0; x < ds; ++x) {
            const bool inside = x >= 30 && x < 40 && y >= 10;
            ASSERT_EQ(plane(d, 0)[y * ds + x], inside ? uint8_t(y * 64 + x) : 0)
                << "at " << x << "," << y;
        }
    EXPECT_EQ(IVE::copy(&handle, &src, &dst, QRect(-10, -10, 5, 5), TD_TRUE), 0);

    ASSERT_EQ(IVE::copyUV(&handle, &src, &dst, TD_TRUE), 0);
    for (uint32_t y = 0; y < 10; ++y)
        for (uint32_t x = 0; x < ds; ++x)
            ASSERT_EQ(plane(d, 1)[y * ds + x], x < 40 ? 0x55 : 0) << "at " << x << "," << y;

    MemInfo empty;
    EXPECT_NE(IVE::copy(&handle, &empty, &dst, QRect(0, 0, 4, 4), TD_TRUE), 0);
}

TEST(HostServices, BoardDescriptionKeepsGoodEntriesAndNamesBadOnes)
{
    const auto doc = QJsonDocument::fromJson(R"({
        "interfaceV": {"hdmi1": {"chip": "7611", "bus": 3}, "hdmi2": 5, "sdi": {"mode": 1},
                       "odd": {"chip": 7611}},
        "interfaceA": {"line": {"chip": "tlv32"}, "mic": "x"},
        "extra": true})");
    QStringList notes;
    QString error;
    const QVariantMap board = VeskHost::boardFromJson(doc.object(), &notes, &error);
    EXPECT_TRUE(error.isEmpty());
    const QVariantMap v = board["interfaceV"].toMap();
    EXPECT_EQ(v.keys(), (QStringList{"hdmi1", "odd", "sdi"}));
    EXPECT_EQ(v["hdmi1"].toMap()["bus"].userType(), QMetaType::Int);
    EXPECT_EQ(v["odd"].toMap()["chip"], QVariant("7611"));
    EXPECT_EQ(board["interfaceA"].toMap().keys(), QStringList{"line"});
    const QString all = notes.join("\n");
    EXPECT_TRUE(all.contains("interfaceV.hdmi2 is not an object, skipped")) << all.toStdString();
    EXPECT_TRUE(all.contains("interfaceA.mic is not an object, skipped")) << all.toStdString();
    EXPECT_TRUE(all.contains("interfaceV.sdi has no \"chip\"")) << all.toStdString();
    EXPECT_EQ(notes.size(), 4) << all.toStdString();

    VeskHost::boardFromJson(QJsonValue(3), &notes, &error);
    EXPECT_FALSE(error.isEmpty());

    VeskHost::setConfig(board);
    QVariantMap copy = Vesk::getConfig();
    copy.clear();
    EXPECT_EQ(Vesk::getConfig(), board);
}

TEST(HostServices, JsonCarriesLoneValuesAndStructures)
{
    EXPECT_EQ(Json::encode(QVariantMap{{"a", QVariantList{1, "x", true}}}, false),
              R"({"a":[1,"x",true]})");
    EXPECT_EQ(Json::encode(5, false), "5");
    EXPECT_EQ(Json::encode("t", false), R"("t")");
    EXPECT_EQ(Json::decode(R"({"n":3,"f":1.5})"), (QVariantMap{{"n", 3}, {"f", 1.5}}));
    EXPECT_EQ(Json::decode("7"), QVariant(7));
    EXPECT_FALSE(Json::decode("{broken").isValid());
}

TEST(HostServices, DecoderStreamRecordCarriesThePacket)
{
    char bytes[8] = {};
    VeskObject::Packet p;
    p.data = bytes;
    p.len = 8;
    p.pts = 123456789012LL;
    const ot_vdec_stream s = zr_vdec_stream_init(p);
    EXPECT_EQ(s.addr, reinterpret_cast<uint8_t*>(bytes));
    EXPECT_EQ(s.len, 8u);
    EXPECT_EQ(s.pts, 123456789012ULL);
    EXPECT_EQ(s.end_of_frame, 1u);
    EXPECT_EQ(s.end_of_stream, 0u);
}
