// Board video capture on the virtual board: the node following the receiver
// emulator, the records it hands the input unit and the MIPI receiver, the
// no-signal picture shared by all capture nodes, refusals by the unit, and the
// whole story through a graph driven by a scenario.
#include <QJsonDocument>
#include <QJsonObject>
#include <cstring>

#include "CaptureHarness.h"
#include "input/VeskInputVi.h"
#include "sim/Emu7611.h"

using capture::inNode;
using capture::Log;
using capture::waitFor;
using vsim::Board;
using vsim::MediaPlatform;

namespace {

const QString kPic = "/vesk/config/nosignal.yuv";

QVariantMap board()
{
    QVariantMap video{
        {"hdmi1", QVariantMap{{"chip", "7611"}, {"did", 0}, {"cid", 0}, {"mode", "bt1120"}}},
        // No chip: no signal check, the node runs blind.
        {"spare", QVariantMap{{"did", 1}, {"cid", 4}, {"mode", "bt656"}}},
        {"bare", QVariantMap{}},
    };
    return QVariantMap{{"interfaceV", video}, {"interfaceA", QVariantMap{}}};
}

uint64_t lumaSum(const QByteArray& picture, int width = 1920, int height = 1080)
{
    uint64_t sum = 0;
    const int n = qMin(picture.size(), width * height);
    for (int i = 0; i < n; ++i) sum += uint8_t(picture[i]);
    return sum;
}

class Capture : public capture::GraphTest {
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        emu = std::dynamic_pointer_cast<vsim::Emu7611>(
            Board::instance().addChip("hdmi1", "7611", {{"bus", 1}}));
        ASSERT_TRUE(emu);
        config = board();
        VeskHost::setConfig(config);
        VeskInputVi::picInited = false;
    }

    // A node on an interface, started, with its one-second timer stopped so
    // that the test decides when the driver is asked.
    VeskInputVi* capture(const QString& name, const QVariantMap& data)
    {
        VeskInputVi* n = make<VeskInputVi>(name, data);
        if (!n) return nullptr;
        graph->start(name);
        inNode(n, [n] { n->timer.stop(); });
        return n;
    }

    void setInterface(const QString& name, const QVariantMap& map)
    {
        QVariantMap video = config["interfaceV"].toMap();
        video[name] = map;
        config["interfaceV"] = video;
        VeskHost::setConfig(config);
    }

    void poll(VeskInputVi* n)
    {
        inNode(n, [n] { n->onTimer(); });
    }
    QVariantMap dataOf(VeskInputVi* n)
    {
        return inNode(n, [n] { return n->data; });
    }
    QVariantMap params(VeskInputVi* n)
    {
        return inNode(n, [n] { return n->infoV.params; });
    }

    std::shared_ptr<vsim::Emu7611> emu;
    QVariantMap config;
};

const QVariantMap k1080p60{{"width", 1920}, {"height", 1080}, {"framerate", 60}};

// ---------------------------------------------------------------- following the signal

TEST_F(Capture, SignalComesChangesAndGoesWithThePictureCoveringTheGaps)
{
    Board::instance().writeFile(kPic, vsim::builtinFile("nosignal.yuv"));
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}, {"srcFramerate", 60}});
    ASSERT_TRUE(n);
    const int tee = params(n)["tee"].toInt();
    ASSERT_GT(tee, 0);
    EXPECT_TRUE(VeskInputVi::picInited);
    EXPECT_EQ(platform().userPicLumaSum(), lumaSum(vsim::builtinFile("nosignal.yuv")));
    EXPECT_EQ(platform().viOutput(0), "picture");

    emu->setSource(k1080p60);
    poll(n);
    EXPECT_EQ(platform().viOutput(0), "capture");
    auto attr = platform().viChn(0).attr;
    EXPECT_EQ(attr.crop.width, 1920u);
    EXPECT_EQ(attr.crop.height, 1080u);
    QVariantMap p = params(n);
    EXPECT_EQ(p["tee"].toInt(), tee);
    EXPECT_EQ(p["width"].toInt(), 1920);
    EXPECT_EQ(p["framerate"].toInt(), 60);
    EXPECT_TRUE(p["avalible"].toBool());
    EXPECT_TRUE(Log::has("[cap] VI set 1920x1080P60@0,0"));

    // A stable signal touches nothing.
    const int callsBefore = platform().calls().size();
    const int signalsBefore = eventsOf("cap", "signal").size();
    poll(n);
    poll(n);
    EXPECT_EQ(platform().calls().size(), callsBefore);
    EXPECT_EQ(eventsOf("cap", "signal").size(), signalsBefore);

    emu->setSource({{"width", 1280}, {"height", 720}, {"framerate", 50}});
    poll(n);
    EXPECT_EQ(platform().viChn(0).attr.crop.width, 1280u);
    p = params(n);
    EXPECT_EQ(p["width"].toInt(), 1280);
    EXPECT_EQ(p["height"].toInt(), 720);
    EXPECT_EQ(p["framerate"].toInt(), 50);

    emu->setSource({});
    poll(n);
    EXPECT_EQ(platform().viOutput(0), "picture");
    p = params(n);
    EXPECT_FALSE(p["avalible"].toBool());
    EXPECT_EQ(p["width"].toInt(), 1920);
    EXPECT_EQ(p["height"].toInt(), 1080);

    QList<capture::Event> signals_ = eventsOf("cap", "signal");
    ASSERT_GE(signals_.size(), 3);
    const QVariantMap last = signals_.last().value.toMap();
    EXPECT_FALSE(last["avalible"].toBool());
    EXPECT_EQ(last["name"].toString(), "hdmi1");
    EXPECT_EQ(last["width"].toInt(), 1280);  // the driver keeps the last format
    for (const capture::Event& e : eventsOf("cap", "infoV")) {
        const QVariantMap info = e.value.toMap();
        if (info["type"].toInt() == VeskObject::TypeFrames) {
            EXPECT_EQ(info["params"].toMap()["tee"].toInt(), tee);
        }
    }
    EXPECT_EQ(graph->invoke("cap", "getReport").toMap()["name"].toString(), "hdmi1");
}

TEST_F(Capture, InterlacedSourceIsWovenByDefaultAndSplitIntoFieldsOtherwise)
{
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}});
    ASSERT_TRUE(n);
    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 60}, {"interlace", true}});
    platform().clearCalls();
    QElapsedTimer t;
    t.start();
    poll(n);
    EXPECT_GE(t.elapsed(), 50);  // the priming pass runs the channel for a while

    QVariantMap d = dataOf(n);
    EXPECT_EQ(d["srcFramerate"].toInt(), 30);
    EXPECT_EQ(d["height"].toInt(), 1080);
    EXPECT_TRUE(d["interlace"].toBool());
    EXPECT_EQ(platform().viChn(0).attr.scan_mode, OT_VIDEO_SCAN_MODE_INTERLACED);
    EXPECT_EQ(platform().viChn(0).attr.crop.height, 1080u);
    // Primed as progressive, then set interlaced and enabled for good.
    QList<QPair<QString, int>> chnCalls;
    for (const auto& c : platform().calls())
        if (c.name.contains("_chn") || c.name.contains("rotation"))
            chnCalls << qMakePair(c.name,
                                  c.name.endsWith("chn_attr") ? c.args.value(1).toInt() : -1);
    const QList<QPair<QString, int>> expected = {
        {"hi_mpi_vi_disable_chn", -1},  {"hi_mpi_vi_set_chn_attr", OT_VIDEO_SCAN_MODE_PROGRESSIVE},
        {"hi_mpi_vi_enable_chn", -1},   {"hi_mpi_vi_disable_chn", -1},
        {"hi_mpi_vi_set_rotation", -1}, {"hi_mpi_vi_set_chn_attr", OT_VIDEO_SCAN_MODE_INTERLACED},
        {"hi_mpi_vi_enable_chn", -1},
    };
    EXPECT_EQ(chnCalls, expected);
    EXPECT_TRUE(platform().viChn(0).enabled);

    // Any other word takes each field as a picture of half the height.
    set(n, {{"interlaceMode", "off"}});
    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 50}, {"interlace", true}});
    poll(n);
    d = dataOf(n);
    EXPECT_EQ(d["srcFramerate"].toInt(), 50);
    EXPECT_EQ(d["height"].toInt(), 540);
    EXPECT_FALSE(d["interlace"].toBool());
    EXPECT_EQ(platform().viChn(0).attr.scan_mode, OT_VIDEO_SCAN_MODE_PROGRESSIVE);
    EXPECT_EQ(platform().viChn(0).attr.crop.height, 540u);
    // Downstream still learns that the source is interlaced.
    EXPECT_TRUE(params(n)["interlace"].toBool());
}

TEST_F(Capture, OutputRateIsClampedToTheInputAndStaysLowered)
{
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}, {"srcFramerate", 60}});
    ASSERT_TRUE(n);
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 60);

    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 30}});
    poll(n);
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 30);
    EXPECT_EQ(params(n)["framerate"].toInt(), 30);
    // Equal rates: no conversion at all.
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.src_frame_rate, -1);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.dst_frame_rate, -1);

    emu->setSource(k1080p60);
    poll(n);
    EXPECT_EQ(dataOf(n)["srcFramerate"].toInt(), 60);
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 30);
    EXPECT_EQ(params(n)["framerate"].toInt(), 30);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.src_frame_rate, 60);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.dst_frame_rate, 30);
}

// ---------------------------------------------------------------- records

TEST_F(Capture, CropMovesTheTopToFourLinesAndCutsTheHeightToFour)
{
    VeskInputVi* n = capture("cap", {{"did", 0}, {"cid", 0}});
    ASSERT_TRUE(n);
    set(n, {{"crop", QVariantMap{{"L", 0}, {"R", 0}, {"T", 0}, {"B", 3}}}});
    EXPECT_EQ(params(n)["height"].toInt(), 1076);  // 1077 cut to a multiple of 4
    auto a = platform().viChn(0).attr;
    EXPECT_EQ(a.crop.y, 0);
    EXPECT_EQ(a.crop.height, 1076u);
    EXPECT_EQ(a.size.height, 1076u);

    set(n, {{"crop", QVariantMap{{"L", 10}, {"R", 0}, {"T", 2}, {"B", 3}}}});
    a = platform().viChn(0).attr;
    EXPECT_EQ(a.crop.x, 10);
    EXPECT_EQ(a.crop.y, 4);
    EXPECT_EQ(a.crop.width, 1910u);
    EXPECT_EQ(a.crop.height, 1072u);
    EXPECT_EQ(params(n)["width"].toInt(), 1910);
    EXPECT_EQ(params(n)["height"].toInt(), 1072);
}

TEST_F(Capture, RotationSwapsTheAnnouncedSize)
{
    emu->setSource({{"width", 1280}, {"height", 720}, {"framerate", 60}});
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}, {"rotate", 90}});
    ASSERT_TRUE(n);
    EXPECT_EQ(params(n)["width"].toInt(), 1080);  // blind 1920x1080 at start
    EXPECT_EQ(params(n)["height"].toInt(), 1920);
    poll(n);
    EXPECT_EQ(params(n)["width"].toInt(), 720);
    EXPECT_EQ(params(n)["height"].toInt(), 1280);
    EXPECT_EQ(platform().viChn(0).rotation, OT_ROTATION_90);

    set(n, {{"rotate", 180}});
    EXPECT_EQ(params(n)["width"].toInt(), 1280);
    EXPECT_EQ(params(n)["height"].toInt(), 720);
    EXPECT_EQ(platform().viChn(0).rotation, OT_ROTATION_180);
    set(n, {{"rotate", 270}});
    EXPECT_EQ(params(n)["width"].toInt(), 720);
    EXPECT_EQ(platform().viChn(0).rotation, OT_ROTATION_270);
}

TEST_F(Capture, DeviceRecordFollowsModeBusAndDeviceParity)
{
    struct Case {
        const char* mode;
        int did;
        bool swapYC, interleaved;
        int mux;
        bool dbl, reverse;
        int intf;
        uint32_t mask0, mask1;
        int seq, work, edge;
    };
    const Case cases[] = {
        {"bt1120", 0, false, false, 1, false, false, 1, 0xFF0, 0xFF000, 0, 0, 0},
        {"bt1120", 1, false, false, 2, false, false, 1, 0xFF0, 0xFF000, 0, 1, 0},
        {"bt1120", 0, true, false, 1, true, false, 1, 0xFF000, 0xFF0, 0, 0, 2},
        {"bt1120s", 3, true, false, 4, false, true, 1, 0xFF000, 0xFF0, 0, 2, 0},
        {"bt1120", 0, false, true, 1, false, false, 2, 0xFF0, 0, 0, 0, 0},
        {"bt1120i", 3, false, false, 1, false, false, 2, 0xFF000, 0, 0, 0, 0},
        {"bt656", 2, true, false, 1, false, false, 0, 0xFF0, 0, 2, 0, 0},
        {"bt656", 5, false, false, 2, false, false, 0, 0xFF000, 0, 2, 1, 0},
        {"mipi", 1, false, false, 1, false, false, 3, 0xFF000, 0, 0, 0, 0},
        {"lvds", 4, false, false, 1, false, false, 0, 0xFF0, 0, 2, 0, 0},
    };
    VeskInputVi* n = capture("cap", {});
    ASSERT_TRUE(n);
    for (const Case& c : cases) {
        SCOPED_TRACE(QString("%1 on device %2, interleaved %3")
                         .arg(c.mode)
                         .arg(c.did)
                         .arg(c.interleaved)
                         .toStdString());
        set(n, {{"mode", c.mode},
                {"did", c.did},
                {"cid", c.did * OT_VI_CHN_PER_DEV},
                {"swapYC", c.swapYC},
                {"interleaved", c.interleaved},
                {"mux", c.mux},
                {"double", c.dbl},
                {"reverse", c.reverse}});
        const auto dev = platform().viDev(c.did);
        ASSERT_TRUE(dev.enabled);
        EXPECT_EQ(dev.attr.intf_mode, c.intf);
        EXPECT_EQ(dev.attr.component_mask[0], c.mask0);
        EXPECT_EQ(dev.attr.component_mask[1], c.mask1);
        EXPECT_EQ(dev.attr.data_seq, c.seq);
        EXPECT_EQ(dev.attr.work_mode, c.work);
        EXPECT_EQ(dev.attr.clk_edge, c.edge);
        EXPECT_EQ(dev.attr.data_reverse, c.reverse ? 1u : 0u);
        EXPECT_TRUE(platform().viChn(c.did * OT_VI_CHN_PER_DEV).enabled);
    }
    // The interleaved bus gets its register patch on the first channel of
    // each group only.
    EXPECT_TRUE(Board::instance().commands().contains("bspmm 0x1741C314 0xFF000008 > /dev/null"));
    EXPECT_EQ(Board::instance().commands().size(), 1);
}

TEST_F(Capture, MipiReceiverGetsItsLanesAndTheFortyByteRecord)
{
    VeskInputVi::mipiHsModeSet = false;
    VeskInputVi* n = capture(
        "cap", {{"did", 1}, {"cid", 4}, {"mode", "mipi"}, {"width", 1280}, {"height", 720}});
    ASSERT_TRUE(n);
    QStringList mipiCalls;
    for (const QString& c : platform().callNames())
        if (c.startsWith("mipi_")) mipiCalls << c;
    EXPECT_EQ(mipiCalls, (QStringList{"mipi_set_hs_mode", "mipi_enable_clock", "mipi_reset",
                                      "mipi_set_dev_attr", "mipi_unreset"}));
    EXPECT_EQ(platform().mipiHsMode(), 0);
    const auto m = platform().mipiDev(1);
    EXPECT_TRUE(m.clockOn);
    EXPECT_FALSE(m.inReset);
    unsigned char raw[40];
    std::memcpy(raw, &m.attr, sizeof raw);
    auto word = [&](int at) {
        int32_t v;
        std::memcpy(&v, raw + at, 4);
        return v;
    };
    auto half = [&](int at) {
        int16_t v;
        std::memcpy(&v, raw + at, 2);
        return v;
    };
    EXPECT_EQ(word(0), 1);
    EXPECT_EQ(word(4), 0);
    EXPECT_EQ(word(8), 0);
    EXPECT_EQ(word(12), 0);
    EXPECT_EQ(word(16), 1280);
    EXPECT_EQ(word(20), 720);
    EXPECT_EQ(word(24), 1);
    EXPECT_EQ(word(28), 0);
    EXPECT_EQ((QList<int>{half(32), half(34), half(36), half(38)}), (QList<int>{4, 5, 6, 7}));

    // The lane split is set once per process; a failing step ends the
    // sequence there, and the capture is built all the same.
    platform().clearCalls();
    platform().failNext("mipi_reset", EIO);
    set(n, {{"width", 1920}});
    mipiCalls.clear();
    for (const QString& c : platform().callNames())
        if (c.startsWith("mipi_")) mipiCalls << c;
    EXPECT_EQ(mipiCalls, (QStringList{"mipi_enable_clock", "mipi_reset"}));
    EXPECT_TRUE(Log::has("[cap] HI_MIPI_RESET_MIPI 1 failed"));
    EXPECT_TRUE(platform().viChn(4).enabled);

    Board::instance().setAbsent(OT_MIPI_DEV_NAME, true);
    set(n, {{"width", 1280}});
    EXPECT_TRUE(Log::has("[cap] open hi_mipi dev failed"));
}

// ---------------------------------------------------------------- the no-signal picture

TEST_F(Capture, NoSignalPictureIsLoadedOnceForAllNodesAndPickedUpWhenItAppears)
{
    VeskInputVi* a = capture("a", {{"interface", "hdmi1"}});
    VeskInputVi* b = capture("b", {{"interface", "spare"}});
    ASSERT_TRUE(a && b);
    EXPECT_FALSE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic"), 0);
    EXPECT_EQ(platform().viOutput(0), "capture");

    // The file arrives later; the next change of signal takes it.
    const QByteArray picture = vsim::builtinFile("nosignal.yuv");
    Board::instance().writeFile(kPic, picture);
    emu->setSource(k1080p60);
    poll(a);
    EXPECT_TRUE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic", 0), 1);
    EXPECT_EQ(platform().userPicLumaSum(), lumaSum(picture));
    EXPECT_EQ(platform().userPic().pic_mode, OT_VI_USER_PIC_MODE_PIC);
    EXPECT_EQ(platform().viOutput(0), "capture");

    emu->setSource({});
    poll(a);
    EXPECT_EQ(platform().viOutput(0), "picture");
    emu->setSource(k1080p60);
    poll(a);
    EXPECT_EQ(platform().viOutput(0), "capture");

    // The other node shows the same picture on its own channel, whatever
    // file it names.
    set(b, {{"pic", "/vesk/config/other.yuv"}});
    EXPECT_EQ(platform().viOutput(4), "picture");
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic"), 1);
}

TEST_F(Capture, PictureFileOfTheWrongSizeStopsAtTheFrame)
{
    QByteArray big = vsim::builtinFile("nosignal.yuv") + QByteArray(4096, char(0xFF));
    Board::instance().writeFile(kPic, big);
    capture("a", {{"interface", "spare"}});
    EXPECT_TRUE(VeskInputVi::picInited);
    EXPECT_TRUE(Log::has("holds 3114496 bytes"));
    EXPECT_EQ(platform().userPicLumaSum(), lumaSum(big));

    VeskInputVi::picInited = false;
    Board::instance().writeFile(kPic, QByteArray(1000, char(235)));
    setInterface("spare2", {{"did", 2}, {"cid", 8}, {"mode", "bt656"}});
    capture("b", {{"interface", "spare2"}});
    EXPECT_TRUE(VeskInputVi::picInited);
    // The rest of the frame keeps the black it was made with.
    EXPECT_EQ(platform().userPicLumaSum(), 1000u * 235 + (1920u * 1080 - 1000) * 16);
}

TEST_F(Capture, RefusedPictureIsTriedAgainOnTheNextChange)
{
    Board::instance().writeFile(kPic, vsim::builtinFile("nosignal.yuv"));
    platform().failNext("hi_mpi_vi_set_user_pic", OT_ERR_VI_NOT_PERM);
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[cap] zr_mpi_vi_set_user_pic faild"));
    EXPECT_FALSE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_enable_user_pic"), 0);

    emu->setSource(k1080p60);
    poll(n);
    EXPECT_TRUE(VeskInputVi::picInited);
    emu->setSource({});
    poll(n);
    EXPECT_EQ(platform().viOutput(0), "picture");
}

// ---------------------------------------------------------------- the unit judges

TEST_F(Capture, TheUnitJudgesTheBoardEntryAndTheRebuildGoesOnPastARefusal)
{
    struct Case {
        QVariantMap entry;
        const char* line;
    };
    const Case cases[] = {
        {{{"did", 9}, {"cid", 0}}, "Set dev attributes failed with error 9 code 0xa0"},
        {{{"did", 1}, {"cid", 99}}, "HI_MPI_VI_SetChnAttr failed with 99 0xa0"},
        {{{"did", 2}, {"cid", 8}, {"crop", QVariantMap{{"T", 2000}}}},
         "HI_MPI_VI_SetChnAttr failed with 8 0xa0"},
        // All-ones registers of a receiver that cannot be read.
        {{{"did", 3}, {"cid", 12}, {"height", 16382}}, "HI_MPI_VI_SetChnAttr failed with 12 0xa0"},
    };
    int i = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const QString name = QString("bad%1").arg(i++);
        setInterface("x", c.entry);
        make<VeskInputVi>(name, {{"interface", "x"}});
        EXPECT_TRUE(Log::has(QString("[%1] ").arg(name) + c.line));
        // Refused or not, downstream hears where the capture stands.
        EXPECT_EQ(eventsOf(name, "signal").size(), 1);
        Log::clear();
    }

    // An unknown bus form is the zero interface mode, and any rotation goes
    // to the unit in quarter turns.
    setInterface("x", {{"did", 4}, {"cid", 16}, {"mode", "BT1120"}, {"rotate", 45}});
    make<VeskInputVi>("odd", {{"interface", "x"}});
    EXPECT_EQ(platform().viDev(4).attr.intf_mode, 0);
    EXPECT_EQ(platform().viDev(4).attr.data_seq, 2);
    EXPECT_EQ(platform().viChn(16).rotation, OT_ROTATION_0);
    EXPECT_TRUE(platform().viChn(16).enabled);

    make<VeskInputVi>("lost", {{"interface", "nowhere"}});
    EXPECT_TRUE(Log::has("[lost] Do not have interface named nowhere"));
}

TEST_F(Capture, WithoutDeviceNothingTouchesTheHardware)
{
    VeskInputVi* n = make<VeskInputVi>("cap", {{"interface", "bare"}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(platform().calls().isEmpty());
    EXPECT_TRUE(eventsOf("cap", "signal").isEmpty());
    // The rate clamp happens all the same.
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 30);
}

// ---------------------------------------------------------------- the whole story

TEST(CaptureEndToEnd, ScenarioSourceDrivesSignalsAnnouncementsAndThePicture)
{
    capture::ensureApplication();
    Board& b = Board::instance();
    b.activate();
    b.reset();
    VeskInputVi::picInited = false;
    QVariantMap scenario = vsim::defaultScenario();
    // The default story, told faster.
    scenario["timeline"] = QJsonDocument::fromJson(R"([
        { "at": 0, "chip": "hdmi1", "source": {} },
        { "at": 1.5, "chip": "hdmi1", "source": { "width": 1920, "height": 1080, "framerate": 60 } },
        { "at": 3.5, "chip": "hdmi1", "source": { "width": 1280, "height": 720, "framerate": 50 } },
        { "at": 5.5, "chip": "hdmi1", "source": {} } ])")
                               .toVariant();
    QString error;
    ASSERT_TRUE(b.loadScenario(scenario, &error)) << error.toStdString();
    VeskHost::setConfig(scenario["board"].toMap());

    const QJsonDocument doc = QJsonDocument::fromJson(
        capture::readHostFile(VESK_SOURCE_DIR "/examples/graphs/capture.json"));
    ASSERT_TRUE(doc.isObject());
    QList<capture::Event> events;
    {
        VeskGraph graph;
        QObject::connect(&graph, &VeskGraph::nodeEvent,
                         [&](const QString& node, const QString& name, const QVariant& v) {
                             events.append({node, name, v});
                         });
        QStringList problems;
        ASSERT_TRUE(graph.build(VeskHost::fromJson(doc.object()).toMap(), &problems))
            << problems.join("\n").toStdString();
        graph.startAll();
        b.startScenario();
        auto lost = [&] {
            for (const capture::Event& e : events)
                if (e.node == "cap1" && e.name == "signal" &&
                    e.value.toMap().value("width").toInt() == 1280 &&
                    !e.value.toMap().value("avalible").toBool())
                    return true;
            return false;
        };
        EXPECT_TRUE(waitFor(lost, 12000));
        EXPECT_EQ(MediaPlatform::instance().viOutput(0), "picture");
        // The still picture keeps going into its tee at 5 a second.
        const auto frames = MediaPlatform::instance().vpssFrames();
        ASSERT_GE(frames.size(), 20);
        EXPECT_EQ(frames.last().width, 640u);
        EXPECT_EQ(frames.last().height, 360u);
        EXPECT_GT(frames.last().lumaSum, 640u * 360 * 16);  // not the black it was made with
    }
    b.deactivate();

    // Each signal the capture reports is announced first, on one tee.
    QList<QVariantMap> story;
    int tee = 0;
    QVariantMap lastInfo;
    for (const capture::Event& e : events) {
        if (e.node == "still" && e.name == "infoV") {
            EXPECT_GT(e.value.toMap()["params"].toMap()["tee"].toInt(), 0);
        }
        if (e.node != "cap1") continue;
        if (e.name == "infoV" && e.value.toMap()["type"].toInt() == VeskObject::TypeFrames) {
            lastInfo = e.value.toMap()["params"].toMap();
            if (!tee) tee = lastInfo["tee"].toInt();
            EXPECT_EQ(lastInfo["tee"].toInt(), tee);
        }
        if (e.name != "signal" || e.value.toMap().isEmpty()) continue;
        const QVariantMap s = e.value.toMap();
        if (!story.isEmpty() && story.last() == s) continue;
        story << s;
        EXPECT_EQ(lastInfo["avalible"], s["avalible"]);
        if (s["avalible"].toBool()) {
            EXPECT_EQ(lastInfo["width"], s["width"]);
            EXPECT_EQ(lastInfo["height"], s["height"]);
            EXPECT_EQ(lastInfo["framerate"], s["framerate"]);
            EXPECT_EQ(lastInfo["interlace"], s["interlace"]);
        }
    }
    EXPECT_GT(tee, 0);
    ASSERT_EQ(story.size(), 4);
    EXPECT_FALSE(story[0]["avalible"].toBool());
    EXPECT_EQ(story[1]["width"].toInt(), 1920);
    EXPECT_EQ(story[1]["framerate"].toInt(), 60);
    EXPECT_EQ(story[2]["width"].toInt(), 1280);
    EXPECT_EQ(story[2]["framerate"].toInt(), 50);
    EXPECT_FALSE(story[3]["avalible"].toBool());
}

}  // namespace
