// The host's media layer and services: the clock, tees, frames, the copy
// engine, the board description and JSON.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <tuple>

#include "frame/Vesk.h"
#include "frame/VeskHi.h"
#include "frame/VeskSys.h"
#include "host/VeskHost.h"
#include "sim/BoardClock.h"
#include "sim/VideoOut.h"
#include "sim/VirtualBoard.h"

namespace {

int64_t now()
{
    int64_t t = 0;
    VeskHi::getPTS(&t, false);
    return t;
}

int64_t micros(std::chrono::steady_clock::duration d)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(d).count();
}

uint8_t* plane(const ot_video_frame_info& f, int i)
{
    return reinterpret_cast<uint8_t*>(f.video_frame.virt_addr[i]);
}

}  // namespace

TEST(Clock, IsMonotonicInMicrosecondsAndMovesWithTheOffset)
{
    // While the steady clock advances 2 ms the clock never goes back, and its
    // advance lies between the steady intervals inside and around it.
    using Steady = std::chrono::steady_clock;
    const auto outer = Steady::now();
    int64_t first = now(), last = first;
    const auto inner = Steady::now();
    while (Steady::now() - inner < std::chrono::milliseconds(2)) {
        const int64_t t = now();
        ASSERT_GE(t, last);
        last = t;
    }
    const int64_t innerUs = micros(Steady::now() - inner);
    last = now();
    EXPECT_GE(last - first, innerUs - 1);
    EXPECT_LE(last - first, micros(Steady::now() - outer) + 2);

    // Offsets add up, and the time also comes back without an out pointer.
    VeskHi::setPTSOffset(1000000000LL);
    VeskHi::setPTSOffset(1000000000LL);
    const int64_t moved = VeskHi::getPTS(nullptr, false) - last;
    EXPECT_TRUE(moved >= 2000000000LL && moved < 2001000000LL) << moved;
    // A caller that wants the clock to show `last` again moves it by last - pts.
    VeskHi::setPTSOffset(last - VeskHi::getPTS(nullptr, false));
    const int64_t back = now() - last;
    EXPECT_TRUE(back >= 0 && back < 1000000) << back;
}

// A tee is a processing group: a capture source is bound to its input, its
// channels carry their own size and flip, and a channel that goes away takes
// its binding to the display with it.
TEST(Tees, AreProcessingGroupsBoundToTheirSourceAndSinks)
{
    vsim::Board::instance().activate();
    vsim::VideoOut& vo = vsim::VideoOut::instance();
    VeskTee* a = VeskHi::newTee(OT_ID_VI, 0, 2);
    VeskTee* b = VeskHi::newTee(OT_ID_USER, 0, 0);
    EXPECT_NE(a->getId(), b->getId());
    EXPECT_EQ(VeskHi::getTee(a->getId()), a);
    EXPECT_EQ(a->getSource().chn_id, 2);

    a->setMax(1920, 1080);
    VeskTeeChn* c1 = a->newChn(false, true);
    VeskTeeChn* c2 = a->newChnIPC();
    const int grp = c1->getChn().dev_id;
    EXPECT_EQ(c2->vpss->getId(), grp);
    EXPECT_EQ(vo.boundTo({OT_ID_VPSS, grp, 0}).chn_id, 2);
    EXPECT_EQ(vo.boundTo({OT_ID_VPSS, b->newChn(false, true)->getChn().dev_id, 0}).mod_id, -1);
    c2->resizeChn(960, 540, false);
    c2->setMirror(true);
    const auto g = vo.vpssGrp(grp);
    EXPECT_TRUE(g.started && g.chn[0].enabled && g.chn[1].enabled);
    EXPECT_EQ(g.chn[0].attr.width, 1920u);
    EXPECT_EQ(g.chn[1].attr.width, 960u);
    EXPECT_EQ(g.chn[1].attr.mirror, 1u);

    EXPECT_EQ(VeskHi::bindFromTee(c2, OT_ID_VO, 0, 0), 1);
    EXPECT_EQ(VeskHi::bindFromTee(c2, OT_ID_VO, 0, 0), 1);  // again: harmless
    EXPECT_EQ(VeskHi::bindFromTee(c1, OT_ID_VO, 0, 0), 0);  // the layer is taken
    EXPECT_EQ(VeskHi::bindFromTee(c1, OT_ID_VO, 9, 0), 0);  // no such layer
    EXPECT_EQ(vo.boundTo({OT_ID_VO, 0, 0}).chn_id, 1);
    delete c2;
    EXPECT_EQ(a->chns.size(), 1);
    EXPECT_EQ(vo.boundTo({OT_ID_VO, 0, 0}).mod_id, -1);

    const int id = a->getId();
    VeskHi::delTee(a);
    EXPECT_EQ(VeskHi::getTee(id), nullptr);
    EXPECT_FALSE(vo.vpssGrp(grp).created);
    // The group is free for the next tee.
    VeskTee* c = VeskHi::newTee(OT_ID_VI, 0, 0);
    EXPECT_EQ(c->grp, grp);
    VeskHi::delTee(c);
    VeskHi::delTee(b);
    vsim::Board::instance().deactivate();
}

// Nodes take and drop channels of one tee from their own threads at once:
// the list stays whole and two living channels never share a number.
TEST(Tees, ChannelsComeAndGoFromTwoThreadsAtOnce)
{
    auto* tee = new VeskTee;  // no group behind it: nothing but the list is busy
    std::atomic<int> holders[8] = {};
    std::atomic<bool> shared{false};
    auto churn = [&] {
        for (int i = 0; i < 100000; ++i) {
            VeskTeeChn* a = tee->newChn(false, false);
            VeskTeeChn* b = tee->newChnIPC();
            for (VeskTeeChn* c : {a, b})
                if (c->index < 0 || c->index >= 8 || holders[c->index]++ != 0) shared = true;
            for (VeskTeeChn* c : {a, b}) {
                if (c->index >= 0 && c->index < 8) holders[c->index]--;
                delete c;
            }
        }
    };
    std::thread one(churn), two(churn);
    one.join();
    two.join();
    EXPECT_FALSE(shared);
    EXPECT_TRUE(tee->chns.isEmpty());
    VeskHi::delTee(tee);
}

TEST(CopyEngine, FramesHaveAlignedWritablePlanesAndCopiesStayInsideBoth)
{
    ot_video_frame_info s = VeskHi::makeFrame(64, 32, nullptr);
    ot_video_frame_info d = VeskHi::makeFrame(40, 21, nullptr);
    const uint32_t ss = s.video_frame.stride[0], ds = d.video_frame.stride[0];
    EXPECT_EQ(ds, 48u);
    EXPECT_EQ(d.video_frame.stride[1], 48u);
    ASSERT_TRUE(d.video_frame.virt_addr[0] && d.video_frame.virt_addr[1]);
    EXPECT_NE(d.video_frame.phys_addr[0], 0u);
    EXPECT_EQ(VeskHi::makeFrame(0, 10, nullptr).video_frame.virt_addr[0], 0u);
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 0; x < ss; ++x) plane(s, 0)[y * ss + x] = uint8_t(y * 64 + x);
    std::memset(plane(s, 1), 0x55, ss * 16);
    // Every byte of both planes, the last odd chroma row included.
    std::memset(plane(d, 0), 0, ds * 21);
    std::memset(plane(d, 1), 0, ds * 11);
    auto lumaCopiedWhere = [&](const std::function<bool(uint32_t, uint32_t)>& inside) {
        for (uint32_t y = 0; y < 21; ++y)
            for (uint32_t x = 0; x < ds; ++x)
                if (plane(d, 0)[y * ds + x] != (inside(x, y) ? uint8_t(y * 64 + x) : 0))
                    return false;
        return true;
    };

    MemInfo src, dst;
    src.fromFrame(s);
    dst.fromFrame(d);
    int handle = 0;
    // Reaches past the destination's right and bottom edges.
    ASSERT_EQ(IVE::copy(&handle, &src, &dst, QRect(30, 10, 30, 20), TD_TRUE), 0);
    auto clipped = [](uint32_t x, uint32_t y) { return x >= 30 && x < 40 && y >= 10; };
    EXPECT_TRUE(lumaCopiedWhere(clipped));
    EXPECT_EQ(IVE::copy(&handle, &src, &dst, QRect(-10, -10, 5, 5), TD_TRUE), 0);
    EXPECT_TRUE(lumaCopiedWhere(clipped));
    // An empty rectangle is the whole picture.
    ASSERT_EQ(IVE::copy(&handle, &src, &dst, QRect(), TD_TRUE), 0);
    EXPECT_TRUE(lumaCopiedWhere([](uint32_t x, uint32_t) { return x < 40; }));

    ASSERT_EQ(IVE::copyUV(&handle, &src, &dst, TD_TRUE), 0);
    for (uint32_t y = 0; y < 11; ++y)
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
    // Drivers are picked by text: a numeric chip word is read as text.
    EXPECT_EQ(v["odd"].toMap()["chip"], QVariant("7611"));
    EXPECT_EQ(board["interfaceA"].toMap().keys(), QStringList{"line"});
    const std::string all = notes.join("\n").toStdString();
    EXPECT_EQ(notes.size(), 4) << all;
    for (const char* text : {"interfaceV.hdmi2 is not an object, skipped",
                             "interfaceA.mic is not an object, skipped", "interfaceV.sdi has no"})
        EXPECT_NE(all.find(text), std::string::npos) << text;

    VeskHost::boardFromJson(QJsonValue(3), &notes, &error);
    EXPECT_FALSE(error.isEmpty());
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

// A held board clock walks a poll loop pass by pass: two threads with
// different periods see exactly the passes their deadlines allow, a thread
// that ends does not hold the clock up, and releasing it frees a sleeper.
TEST(BoardClock, HeldClockStepsSleepersInDeadlineOrder)
{
    auto& clock = vsim::BoardClock::instance();
    clock.hold();
    std::mutex m;
    std::vector<std::pair<char, int64_t>> passes;
    std::atomic<bool> stop{false};
    auto loop = [&](char who, int periodMs, int limit) {
        for (int i = 0; i < limit && !stop; ++i) {
            vsys::msleep(periodMs);
            std::lock_guard<std::mutex> g(m);
            passes.emplace_back(who, clock.nowUs() / 1000);
        }
    };
    std::thread a(loop, 'a', 100, 1000), b(loop, 'b', 250, 2);
    ASSERT_TRUE(clock.waitSleepers(2));
    clock.advance(1000);
    {
        std::lock_guard<std::mutex> g(m);
        std::vector<std::pair<char, int64_t>> want;
        for (int t = 100; t <= 1000; t += 100) want.emplace_back('a', t);
        want.emplace_back('b', 250);
        want.emplace_back('b', 500);
        // Two threads woken at one instant run in either order.
        auto byTime = [](auto& x, auto& y) {
            return std::tie(x.second, x.first) < std::tie(y.second, y.first);
        };
        EXPECT_TRUE(std::is_sorted(passes.begin(), passes.end(),
                                   [](auto& x, auto& y) { return x.second < y.second; }));
        std::sort(want.begin(), want.end(), byTime);
        std::sort(passes.begin(), passes.end(), byTime);
        EXPECT_EQ(passes, want);
    }
    b.join();  // ended after two passes, and advance() did not wait for it
    stop = true;
    clock.release();
    a.join();
}
