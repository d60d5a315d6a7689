// Board video capture on the virtual board: the node following the receiver
// emulator, the records it hands the input unit and the MIPI receiver, the
// no-signal picture shared by all capture nodes, refusals by the unit, and the
// whole story through a graph driven by a scenario.
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include "CaptureHarness.h"
#include "input/VeskInputVi.h"
#include "sim/Emu7611.h"

using capture::inNode;
using capture::Log;
using vsim::Board;

namespace {

const QString kPic = "/vesk/config/nosignal.yuv";
const QVariantMap k1080p60{{"width", 1920}, {"height", 1080}, {"framerate", 60}};

uint64_t lumaSum(const QByteArray& picture)
{
    uint64_t sum = 0;
    for (int i = 0; i < qMin(picture.size(), 1920 * 1080); ++i) sum += uint8_t(picture[i]);
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
        // "spare" has no chip: no signal check, the node runs blind.
        setInterface("hdmi1", {{"chip", "7611"}, {"did", 0}, {"cid", 0}, {"mode", "bt1120"}});
        setInterface("spare", {{"did", 1}, {"cid", 4}, {"mode", "bt656"}});
        setInterface("bare", {});
        VeskInputVi::picInited = false;
    }

    // A node on an interface, started, with its one-second timer stopped so
    // that the test decides when the driver is asked.
    VeskInputVi* capture(const QString& name, const QVariantMap& data)
    {
        VeskInputVi* n = make<VeskInputVi>(name, data);
        if (!n) return nullptr;
        graph->start(name);
        VeskGraph::runIn(n, [n] { n->timer.stop(); });
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
        VeskGraph::runIn(n, [n] { n->onTimer(); });
    }
    QVariantMap dataOf(VeskInputVi* n)
    {
        return inNode(n, [n] { return n->data; });
    }
    QVariantMap params(VeskInputVi* n)
    {
        return inNode(n, [n] { return n->infoV.params; });
    }
    QStringList mipiCalls() { return platform().callNames().filter(QRegExp("^mipi_")); }

    std::shared_ptr<vsim::Emu7611> emu;
    QVariantMap config;
};

// ---------------------------------------------------------------- following the signal

TEST_F(Capture, SignalComesChangesAndGoesWithThePictureCoveringTheGaps)
{
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}, {"srcFramerate", 60}});
    VeskInputVi* other = capture("other", {{"interface", "spare"}});
    ASSERT_TRUE(n && other);
    const int tee = params(n)["tee"].toInt();
    ASSERT_GT(tee, 0);
    // No picture file yet: the unit delivers what it sees.
    EXPECT_FALSE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic"), 0);
    EXPECT_EQ(platform().viOutput(0), "capture");

    // The file arrives later; the next change of signal takes it.
    const QByteArray picture = vsim::builtinFile("nosignal.yuv");
    Board::instance().writeFile(kPic, picture);
    emu->setSource(k1080p60);
    poll(n);
    EXPECT_TRUE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic", 0), 1);
    EXPECT_EQ(platform().userPicLumaSum(), lumaSum(picture));
    EXPECT_EQ(platform().userPic().pic_mode, OT_VI_USER_PIC_MODE_PIC);
    EXPECT_EQ(platform().viOutput(0), "capture");
    EXPECT_EQ(platform().viChn(0).attr.crop.width, 1920u);
    EXPECT_EQ(platform().viChn(0).attr.crop.height, 1080u);
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
    const QVariantMap last = eventsOf("cap", "signal").value(signalsBefore + 1).value.toMap();
    EXPECT_FALSE(last["avalible"].toBool());
    EXPECT_EQ(last["name"].toString(), "hdmi1");
    EXPECT_EQ(last["width"].toInt(), 1280);  // the driver keeps the last format
    EXPECT_EQ(graph->invoke("cap", "getReport").toMap(), last);
    emu->setSource(k1080p60);
    poll(n);
    EXPECT_EQ(platform().viOutput(0), "capture");
    for (const capture::Event& e : eventsOf("cap", "infoV")) {
        const QVariantMap info = e.value.toMap();
        EXPECT_TRUE(info["type"] != VeskObject::TypeFrames || info["params"].toMap()["tee"] == tee);
    }

    // The other node shows the same picture on its own channel, whatever
    // file it names.
    set(other, {{"pic", "/vesk/config/other.yuv"}});
    EXPECT_EQ(platform().viOutput(4), "picture");
    EXPECT_EQ(countCalls("hi_mpi_vi_set_user_pic"), 1);
}

TEST_F(Capture, AnnouncedSizeFollowsRotationRateClampAndCrop)
{
    emu->setSource({{"width", 1280}, {"height", 720}, {"framerate", 30}});
    VeskInputVi* n =
        capture("cap", {{"interface", "hdmi1"}, {"srcFramerate", 60}, {"rotate", 270}});
    ASSERT_TRUE(n);
    auto expect = [&](int width, int height, int rate, ot_rotation rotation) {
        const QVariantMap p = params(n);
        EXPECT_EQ(QSize(p["width"].toInt(), p["height"].toInt()), QSize(width, height));
        EXPECT_EQ(p["framerate"].toInt(), rate);
        EXPECT_EQ(platform().viChn(0).rotation, rotation);
    };
    expect(1080, 1920, 60, OT_ROTATION_270);  // blind 1920x1080 at start
    poll(n);
    // Never more frames out than come in; equal rates need no conversion.
    expect(720, 1280, 30, OT_ROTATION_270);
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 30);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.src_frame_rate, -1);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.dst_frame_rate, -1);
    set(n, {{"rotate", 90}});
    expect(720, 1280, 30, OT_ROTATION_90);
    set(n, {{"rotate", 180}});
    expect(1280, 720, 30, OT_ROTATION_180);

    // A faster input later does not raise the rate again.
    emu->setSource({{"width", 1280}, {"height", 720}, {"framerate", 60}});
    poll(n);
    expect(1280, 720, 30, OT_ROTATION_180);
    EXPECT_EQ(dataOf(n)["srcFramerate"].toInt(), 60);
    EXPECT_EQ(dataOf(n)["dstFramerate"].toInt(), 30);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.src_frame_rate, 60);
    EXPECT_EQ(platform().viChn(0).attr.frame_rate_ctrl.dst_frame_rate, 30);

    // The top moves down to a multiple of four lines and the height shrinks
    // to one: 717 lines become 716, 715 become 712.
    const struct {
        int l, t, r, b;
        QRect window;
    } crops[] = {{0, 0, 0, 3, {0, 0, 1280, 716}}, {10, 2, 0, 3, {10, 4, 1270, 712}}};
    for (const auto& c : crops) {
        set(n, {{"crop", QVariantMap{{"L", c.l}, {"T", c.t}, {"R", c.r}, {"B", c.b}}}});
        const auto a = platform().viChn(0).attr;
        EXPECT_EQ(QRect(a.crop.x, a.crop.y, a.crop.width, a.crop.height), c.window);
        EXPECT_EQ(QSize(a.size.width, a.size.height), c.window.size());
        expect(c.window.width(), c.window.height(), 30, OT_ROTATION_180);
    }
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
    EXPECT_TRUE(platform().viChn(0).enabled);
    // Primed as progressive, then set interlaced and enabled for good.
    QStringList chnCalls;
    for (const auto& c : platform().calls()) {
        const bool interlaced = c.args.value(1).toInt() == OT_VIDEO_SCAN_MODE_INTERLACED;
        if (c.name.endsWith("chn_attr"))
            chnCalls << (interlaced ? "interlaced" : "progressive");
        else if (c.name.contains("_chn") || c.name.contains("rotation"))
            chnCalls << c.name.mid(10);
    }
    EXPECT_EQ(chnCalls, (QStringList{"disable_chn", "progressive", "enable_chn", "disable_chn",
                                     "set_rotation", "interlaced", "enable_chn"}));

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

// ---------------------------------------------------------------- records

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
        SCOPED_TRACE(&c - cases);
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
    EXPECT_EQ(Board::instance().commands(), QStringList{"bspmm 0x1741C314 0xFF000008 > /dev/null"});
}

TEST_F(Capture, MipiReceiverGetsItsLanesAndTheFortyByteRecord)
{
    VeskInputVi::mipiHsModeSet = false;
    VeskInputVi* n = capture(
        "cap", {{"did", 1}, {"cid", 4}, {"mode", "mipi"}, {"width", 1280}, {"height", 720}});
    ASSERT_TRUE(n);
    EXPECT_EQ(mipiCalls(), (QStringList{"mipi_set_hs_mode", "mipi_enable_clock", "mipi_reset",
                                        "mipi_set_dev_attr", "mipi_unreset"}));
    EXPECT_EQ(platform().mipiHsMode(), 0);
    const auto m = platform().mipiDev(1);
    EXPECT_TRUE(m.clockOn);
    EXPECT_FALSE(m.inReset);
    // Device 1, a 1280x720 picture of data type 1, lanes 4 to 7.
    const int32_t words[] = {1, 0, 0, 0, 1280, 720, 1, 0};
    const int16_t lanes[] = {4, 5, 6, 7};
    const QByteArray expected = QByteArray(reinterpret_cast<const char*>(words), sizeof words) +
                                QByteArray(reinterpret_cast<const char*>(lanes), sizeof lanes);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(&m.attr), sizeof m.attr).toHex(),
              expected.toHex());

    // The lane split is set once per process; a failing step ends the
    // sequence there, and the capture is built all the same.
    platform().clearCalls();
    platform().failNext("mipi_reset", EIO);
    set(n, {{"width", 1920}});
    EXPECT_EQ(mipiCalls(), (QStringList{"mipi_enable_clock", "mipi_reset"}));
    EXPECT_TRUE(Log::has("[cap] HI_MIPI_RESET_MIPI 1 failed"));
    EXPECT_TRUE(platform().viChn(4).enabled);

    Board::instance().setAbsent(OT_MIPI_DEV_NAME, true);
    set(n, {{"width", 1280}});
    EXPECT_TRUE(Log::has("[cap] open hi_mipi dev failed"));
}

// ---------------------------------------------------------------- the no-signal picture

TEST_F(Capture, RefusedPictureIsTriedAgainAndTheFileFillsTheFrameNoFurther)
{
    Board::instance().writeFile(kPic, QByteArray(1000, char(235)));
    platform().failNext("hi_mpi_vi_set_user_pic", OT_ERR_VI_NOT_PERM);
    VeskInputVi* n = capture("cap", {{"interface", "hdmi1"}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[cap] zr_mpi_vi_set_user_pic faild"));
    EXPECT_FALSE(VeskInputVi::picInited);
    EXPECT_EQ(countCalls("hi_mpi_vi_enable_user_pic"), 0);

    emu->setSource(k1080p60);
    poll(n);
    EXPECT_TRUE(VeskInputVi::picInited);
    // The rest of the frame keeps the black it was made with.
    EXPECT_EQ(platform().userPicLumaSum(), 1000u * 235 + (1920u * 1080 - 1000) * 16);
    emu->setSource({});
    poll(n);
    EXPECT_EQ(platform().viOutput(0), "picture");

    VeskInputVi::picInited = false;
    const QByteArray big = vsim::builtinFile("nosignal.yuv") + QByteArray(4096, char(0xFF));
    Board::instance().writeFile(kPic, big);
    set(n, {{"contrast", 1}});
    EXPECT_TRUE(VeskInputVi::picInited);
    EXPECT_TRUE(Log::has("holds 3114496 bytes"));
    EXPECT_EQ(platform().userPicLumaSum(), lumaSum(big));
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

class CaptureEndToEnd : public capture::GraphTest {};

TEST_F(CaptureEndToEnd, ScenarioSourceDrivesSignalsAnnouncementsAndThePicture)
{
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
    ASSERT_TRUE(Board::instance().loadScenario(scenario, &error)) << error.toStdString();
    VeskHost::setConfig(scenario["board"].toMap());
    const QJsonDocument doc = QJsonDocument::fromJson(
        capture::readHostFile(VESK_SOURCE_DIR "/examples/graphs/capture.json"));
    QStringList problems;
    ASSERT_TRUE(graph->build(VeskHost::fromJson(doc.object()).toMap(), &problems))
        << problems.join("\n").toStdString();
    graph->startAll();
    Board::instance().startScenario();

    // Each new signal of the capture, beside what was announced before it.
    QSet<int> tees;
    auto story = [&] {
        auto shape = [](const QVariantMap& m) {
            return !m["avalible"].toBool() ? QString("none")
                                           : QString("%1x%2%3%4")
                                                 .arg(m["width"].toInt())
                                                 .arg(m["height"].toInt())
                                                 .arg(m["interlace"].toBool() ? "i" : "p")
                                                 .arg(m["framerate"].toInt());
        };
        QStringList told;
        QVariantMap announced, last;
        for (const capture::Event& e : events) {
            const QVariantMap v = e.value.toMap();
            if (e.node == "cap1" && e.name == "infoV" && v["type"] == VeskObject::TypeFrames) {
                announced = v["params"].toMap();
                tees << announced["tee"].toInt();
            } else if (e.node == "cap1" && e.name == "signal" && !v.isEmpty() && v != last) {
                last = v;
                told << shape(v) + " as " + shape(announced);
            }
        }
        return told;
    };
    EXPECT_TRUE(waitFor([&] { return story().size() >= 4; }, 12000));
    EXPECT_EQ(story(), (QStringList{"none as none", "1920x1080p60 as 1920x1080p60",
                                    "1280x720p50 as 1280x720p50", "none as none"}));
    EXPECT_EQ(tees.size(), 1);
    EXPECT_FALSE(tees.contains(0));
    EXPECT_EQ(platform().viOutput(0), "picture");
    // The still picture keeps going into its tee at 5 a second.
    const auto frames = platform().vpssFrames();
    ASSERT_GE(frames.size(), 20);
    EXPECT_EQ(frames.last().width, 640u);
    EXPECT_EQ(frames.last().height, 360u);
    EXPECT_GT(frames.last().lumaSum, 640u * 360 * 16);  // not the black it was made with
}

}  // namespace
