// Board video output on the virtual board: VeskOutputVo driven through a
// graph, checked in the display devices, the HDMI transmitter, the graphics
// plane and the bindings the platform was left with.
#include <QDeadlineTimer>
#include <QThread>
#include <algorithm>

#include "CaptureHarness.h"
#include "frame/VeskRegister.h"
#include "input/VeskInputImage.h"
#include "input/VeskInputVi.h"
#include "output/VeskOutputVo.h"
#include "sim/VideoOut.h"

using capture::inNode;
using capture::Log;

// The upstream of the tests: announces what the test hands it.
class VoTestFeeder : public VeskObject {
    Q_OBJECT
public:
    Q_INVOKABLE explicit VoTestFeeder(QObject* parent = nullptr) : VeskObject(parent) {}
};
VESK_REGISTER(VoTestFeeder)

namespace {

// The shell lines come from a timer in the node's thread.
bool waitForCommands(int n)
{
    QDeadlineTimer deadline(5000);
    while (vsim::Board::instance().commands().size() < n && !deadline.hasExpired())
        QThread::msleep(5);
    return vsim::Board::instance().commands().size() >= n;
}

class VideoOutTest : public capture::GraphTest {
protected:
    void SetUp() override
    {
        GraphTest::SetUp();
        VeskOutputVo::firstRun = false;
        VeskHost::clearBindings();
    }
    static vsim::VideoOut& out() { return vsim::VideoOut::instance(); }

    void display(const QVariantMap& data = {}) { vo = make<VeskOutputVo>("vo", data); }
    template <typename T>
    T member(T VeskOutputVo::*m)
    {
        return inNode(vo, [&] { return vo->*m; });
    }
    void announce(VeskObject::StreamInfo info)
    {
        VeskGraph::runIn(src, [&] { src->sendInfoV(info); });
        VeskGraph::runIn(vo, [] {});
    }
    static VeskObject::StreamInfo frames(int tee)
    {
        return {VeskObject::TypeFrames, {{"tee", tee}}, 0};
    }
    bool called(const QString& name) { return platform().callNames().contains(name); }
    // What feeds the channel of a display layer; mod_id -1 for nothing.
    ot_mpp_chn fedBy(int layer) { return out().boundTo(ot_mpp_chn{15, layer, 0}); }

    VeskOutputVo* vo = nullptr;
    VeskObject* src = nullptr;
};

TEST_F(VideoOutTest, OutputNamesPickTheirTimingRow)
{
    struct {
        const char* output;
        int intfSync, hdmiFormat, width, height;
    } const rows[] = {
        {"1080p60", 23, 0, 1920, 1080},
        {"1080P60", 23, 0, 1920, 1080},
        {"1080I60", 21, 5, 1920, 1080},
        {"1080p24", 17, 4, 1920, 1080},
        {"720p50", 9, 8, 1280, 720},
        {"576p50", 6, 9, 720, 576},
        {"1280x1024_60", 12, 17, 1280, 1024},
        {"1024x768_60", 8, 15, 1024, 768},
        {"2160p30", 26, 27, 1920, 2160},
        {"3840x2160_60", 34, 32, 3840, 2160},
        // Parsed but without a row: the first row's timing, the parsed size.
        {"2160p60", 23, 0, 1920, 2160},
        {"1280x1024_75", 23, 0, 1280, 1024},
        {"ntsc", 1, 12, 720, 486},
        {"480p", 23, 0, 720, 480},
        {"1080p60p", 23, 0, 1920, 1080},
        {"800x600", 23, 0, 1920, 1080},
    };
    display();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.output);
        set(vo, {{"output", r.output}});
        EXPECT_EQ(out().voDev(0).attr.intf_sync, r.intfSync);
        EXPECT_EQ(member(&VeskOutputVo::info).hdmiFormat, r.hdmiFormat);
        EXPECT_EQ(member(&VeskOutputVo::width), r.width);
        EXPECT_EQ(member(&VeskOutputVo::height), r.height);
    }
    EXPECT_EQ(member(&VeskOutputVo::interlaced), false);

    // The layer follows the row, the channel and the plane the parsed size.
    set(vo, {{"output", "1280x1024_75"}, {"x", 0.5}, {"w", 0.25}});
    const auto layer = out().voLayer(0);
    EXPECT_EQ(layer.attr.img_width, 1920u);
    EXPECT_EQ(layer.chnAttr.rect.x, 640);
    EXPECT_EQ(layer.chnAttr.rect.width, 320u);
    EXPECT_EQ(layer.chnAttr.rect.height, 1024u);
    EXPECT_EQ(out().fb(0).var.xres, 1280u);
    EXPECT_EQ(out().hdmi().attr.video_format, 0);

    // "mode" overrides the device's code only.
    set(vo, {{"output", "720p60"}, {"mode", 9}});
    EXPECT_EQ(out().voDev(0).attr.intf_sync, 9);
    EXPECT_EQ(out().hdmi().attr.video_format, 7);

    // CVBS defaults to PAL on the standard definition device, its layer at 50.
    make<VeskOutputVo>("cvbs", {{"type", "cvbs"}});
    EXPECT_EQ(out().voDev(2).attr.intf_type, uint32_t(OT_VO_INTF_CVBS));
    EXPECT_EQ(out().voDev(2).attr.intf_sync, 0);
    EXPECT_EQ(out().voLayer(3).attr.display_frame_rate, 50u);
    EXPECT_TRUE(out().voLayer(3).chnEnabled);
}

TEST_F(VideoOutTest, UserTimingTakesItsSyncRecordAndClock)
{
    display({{"output", "user"}, {"width", 960}, {"height", 544}, {"pixel_clk", 45000}});
    auto dev = out().voDev(0);
    ASSERT_TRUE(dev.enabled);
    EXPECT_EQ(dev.attr.intf_sync, 48);
    const ot_vo_sync_info& s = dev.attr.sync_info;
    EXPECT_EQ(QVector<int>({int(s.iop), s.intfb, s.vact, s.vbb, s.vfb, s.hact, s.hbb, s.hfb, s.hpw,
                            s.vpw, int(s.idv), int(s.ihs), int(s.ivs)}),
              QVector<int>({1, 1, 544, 22, 10, 960, 36, 190, 4, 4, 0, 1, 1}));
    const ot_vo_user_sync_info& c = dev.userSync;
    EXPECT_TRUE(dev.userSyncSet);
    EXPECT_EQ(QVector<uint32_t>({c.fb_div, c.frac, c.ref_div, c.post_div1, c.post_div2, c.dev_div,
                                 c.pre_div, c.clk_reverse_en}),
              QVector<uint32_t>({30, 0, 1, 4, 1, 4, 1, 1}));
    // The 960 wide panel runs its transmitter at its own clock.
    EXPECT_EQ(out().hdmi().attr.video_format, 41);
    EXPECT_EQ(out().hdmi().attr.pix_clk, 41000u);
    EXPECT_TRUE(Log::has("HI_HDMI_VIDEO_MODE_RGB444"));
    EXPECT_EQ(out().voLayer(0).attr.img_height, 544u);

    const QVariantMap sync{{"iop", true}, {"vact", 600}, {"vbb", 23}, {"vfb", 12}, {"hact", 1024},
                           {"hbb", 160},  {"hfb", 160},  {"hpw", 20}, {"vpw", 3},  {"ihs", true}};
    // Only a new "output" (here in other letters) restarts the transmitter.
    set(vo, {{"width", 1024}, {"height", 600}, {"syncInfo", sync}});
    EXPECT_EQ(out().hdmi().attr.pix_clk, 41000u);
    set(vo, {{"output", "USER"}});
    dev = out().voDev(0);
    EXPECT_EQ(dev.attr.sync_info.hact, 1024);
    EXPECT_EQ(dev.attr.sync_info.ivs, 0u);
    EXPECT_EQ(out().hdmi().attr.pix_clk, 45000u);

    // A user size with no timing of its own stops before the device.
    platform().clearCalls();
    make<VeskOutputVo>("vo1", {{"ui", false}, {"output", "user"}, {"width", 800}});
    EXPECT_FALSE(called("hi_mpi_vo_set_pub_attr"));
    EXPECT_FALSE(out().voDev(1).enabled);
}

TEST_F(VideoOutTest, InterfacesMatrixAndTransmitterRestarts)
{
    display({{"type", "hdmi,vga"}, {"csc", QVariantMap{{"matrix", "709FULL_rgbfull"}}}});
    auto dev = out().voDev(0);
    EXPECT_EQ(dev.attr.intf_type, uint32_t(OT_VO_INTF_HDMI | OT_VO_INTF_VGA));
    EXPECT_EQ(dev.hdmiParam.csc.csc_matrix, 19);
    EXPECT_EQ(dev.hdmiParam.csc.luma, 50u);
    auto hdmi = out().hdmi();
    EXPECT_TRUE(hdmi.started);
    EXPECT_EQ(QVector<int>({int(hdmi.attr.hdmi_en), int(hdmi.attr.infoframe_en),
                            hdmi.attr.sample_rate, hdmi.attr.bit_depth, int(hdmi.attr.audio_en)}),
              QVector<int>({1, 1, 9, 2, 1}));

    set(vo, {{"type", "dvi"}});
    hdmi = out().hdmi();
    EXPECT_EQ(out().voDev(0).hdmiParam.csc.csc_matrix, 16);
    EXPECT_EQ(out().voDev(0).attr.intf_type, uint32_t(OT_VO_INTF_HDMI));
    EXPECT_EQ(hdmi.attr.hdmi_en + hdmi.attr.infoframe_en, 0u);

    // Any key restarts the device; only "type" and "output" the transmitter.
    const int enables = out().voDev(0).enables, starts = hdmi.starts;
    set(vo, {{"color", 0x204080}});
    EXPECT_EQ(out().voDev(0).enables, enables + 1);
    EXPECT_EQ(out().voDev(0).attr.bg_color, 0x204080u);
    EXPECT_EQ(out().hdmi().starts, starts);
    set(vo, {{"output", "720p60"}});
    EXPECT_EQ(out().hdmi().starts, starts + 1);
    EXPECT_EQ(out().hdmi().attr.video_format, 7);
}

TEST_F(VideoOutTest, ShowHideRotationAndEdid)
{
    display();  // nothing changed: no set-up yet
    EXPECT_EQ(graph->invoke("vo", "show"), QVariant(true));
    EXPECT_EQ(graph->invoke("vo", "hide"), QVariant(true));
    EXPECT_FALSE(called("hi_mpi_vo_show_chn") || called("hi_mpi_vo_hide_chn"));

    set(vo, {{"rotate", 270}});
    EXPECT_EQ(out().voLayer(0).rotation, OT_ROTATION_270);
    EXPECT_EQ(graph->invoke("vo", "hide"), QVariant(true));
    EXPECT_FALSE(out().voLayer(0).chnShown);
    graph->invoke("vo", "show");
    EXPECT_TRUE(out().voLayer(0).chnShown);
    set(vo, {{"rotate", 45}});
    EXPECT_EQ(out().voLayer(0).rotation, OT_ROTATION_0);

    const QString file = "/vesk/config/edid_out.bin";
    vsim::Board::instance().writeFile(file, "old");
    EXPECT_EQ(graph->invoke("vo", "saveEDID", file), QVariant(false));
    EXPECT_EQ(vsim::Board::instance().readFile(file), QByteArray("old"));

    QByteArray edid(256, 0);
    for (int i = 0; i < edid.size(); ++i) edid[i] = char(i * 7);
    out().plugSink(edid);
    EXPECT_EQ(graph->invoke("vo", "saveEDID", file), QVariant(true));
    EXPECT_EQ(vsim::Board::instance().readFile(file), edid);
    // A file that cannot be opened is not looked at.
    EXPECT_EQ(graph->invoke("vo", "saveEDID", "/vesk/no/such/folder/edid.bin"), QVariant(true));
}

TEST_F(VideoOutTest, StreamGetsItsTeeChannelAndIsBoundByTheBringUp)
{
    VeskTee* tee = VeskHi::newTee(16, 0, 1);
    src = make<VoTestFeeder>("src", {});
    display();
    graph->link("src", "vo", VeskHost::LinkV);
    announce(frames(tee->getId()));
    VeskTeeChn* chn = member(&VeskOutputVo::teeChn);
    ASSERT_NE(chn, nullptr);
    EXPECT_FALSE(chn->ipc);
    EXPECT_FALSE(chn->flagB);
    EXPECT_EQ(fedBy(0).mod_id, -1) << "no device yet";

    set(vo, {{"rotate", 90}, {"w", 0.5}, {"flip", true}});
    EXPECT_EQ(fedBy(0).dev_id, chn->getChn().dev_id);
    EXPECT_EQ(fedBy(0).chn_id, chn->getChn().chn_id);
    EXPECT_EQ(QSize(chn->width, chn->height), QSize(1080, 960));
    EXPECT_TRUE(chn->flip);
    EXPECT_FALSE(chn->mirror);
    EXPECT_EQ(out().voLayer(0).rotation, OT_ROTATION_90);

    // The same tee again keeps its channel and binds it again, which the
    // host records once; other kinds of stream change nothing.
    const int bound = VeskHost::bindings().size();
    platform().clearCalls();
    announce(frames(tee->getId()));
    set(vo, {{"color", 0x101010}});
    EXPECT_EQ(member(&VeskOutputVo::teeChn), chn);
    EXPECT_TRUE(called("hi_mpi_sys_bind"));
    EXPECT_EQ(VeskHost::bindings().size(), bound);
    announce({VeskObject::TypeRaw, {{"tee", tee->getId()}}, 0});
    announce({VeskObject::TypeFrames, {}, 0});
    EXPECT_EQ(VeskHost::bindings().size(), bound);

    // A new tee replaces the channel, with the settings of now.
    VeskTee* other = VeskHi::newTee(87, 0, 0);
    set(vo, {{"scaleUp", true}, {"w", 1.0}, {"rotate", 0}});
    announce(frames(other->getId()));
    chn = member(&VeskOutputVo::teeChn);
    ASSERT_NE(chn, nullptr);
    EXPECT_TRUE(chn->ipc);
    EXPECT_EQ(QSize(chn->width, chn->height), QSize(1920, 1080));
    EXPECT_TRUE(tee->chns.isEmpty());
    EXPECT_EQ(fedBy(0).dev_id, other->grp);

    announce(frames(9999));
    EXPECT_TRUE(Log::has("Can not find tee"));
    EXPECT_EQ(member(&VeskOutputVo::teeChn), nullptr);
    EXPECT_EQ(fedBy(0).mod_id, -1);

    // A layer of its own takes the tee channel; low latency ties the source
    // straight to the device instead, whatever the layer.
    set(vo, {{"lid", 2}, {"share", 0}, {"scaleUp", false}});
    announce(frames(tee->getId()));
    EXPECT_TRUE(member(&VeskOutputVo::teeChn)->flagB);
    EXPECT_EQ(fedBy(2).dev_id, tee->grp);
    set(vo, {{"lowLatency", true}});
    const ot_mpp_chn s = fedBy(0);
    EXPECT_EQ(QVector<int>({s.mod_id, s.dev_id, s.chn_id}), QVector<int>({16, 0, 1}));
    // That binding goes with the channel the display held for it, so a new
    // source takes the device's place, and the record keeps one of each.
    VeskTee* third = VeskHi::newTee(16, 0, 2);
    announce(frames(third->getId()));
    EXPECT_EQ(fedBy(0).chn_id, 2);
    EXPECT_FALSE(Log::has("bind error2"));
    const auto binds = VeskHost::bindings();
    EXPECT_EQ(std::count_if(binds.begin(), binds.end(),
                            [](const VeskHost::Binding& b) { return b.dst.dev_id == 0; }),
              1);
}

TEST_F(VideoOutTest, FailingCallEndsTheBringUpWhereItFailed)
{
    struct {
        const char *call, *message, *notAfter;
    } const cases[] = {
        {"hi_mpi_vo_set_pub_attr", "VO zr_mpi_vo_set_pub_attr failed with 0xa00f8010! 0",
         "hi_mpi_vo_enable"},
        {"hi_mpi_vo_enable", "zr_mpi_vo_enable failed with 0xa00f8010!",
         "hi_mpi_vo_set_video_layer_attr"},
        {"hi_mpi_vo_set_chn_attr", "HI_MPI_VO_SetChnAttr failed with 0xa00f8010!",
         "hi_mpi_vo_enable_chn"},
        {"hi_mpi_vo_set_wbc_attr", "hi_mpi_vo_set_wbc_attr failed with 0xa00f8010",
         "hi_mpi_vo_enable_wbc"},
    };
    display({{"wbc", true}});
    int color = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.call);
        Log::clear();
        platform().clearCalls();
        platform().failNext(c.call, int(0xA00F8010));
        set(vo, {{"color", color++}});
        EXPECT_TRUE(Log::has(c.message));
        EXPECT_FALSE(called(c.notAfter));
        EXPECT_EQ(member(&VeskOutputVo::vid), 0);
    }
    // The HDMI steps log and go on.
    Log::clear();
    platform().failNext("hi_mpi_hdmi_start", int(0xA0338004u));
    set(vo, {{"output", "720p60"}});
    EXPECT_TRUE(Log::has("zr_mpi_hdmi_start failed 0xa0338004"));
    EXPECT_TRUE(out().wbc().enabled);
}

TEST_F(VideoOutTest, FirstStartRestartsAndWriteBackIsAnnounced)
{
    VeskOutputVo::firstRun = true;
    display({{"wbc", true}, {"output", "720p50"}});
    graph->start("vo");
    EXPECT_EQ(out().voDev(0).enables, 2);
    const auto fb = out().fb(0);
    EXPECT_EQ(QVector<uint32_t>({uint32_t(fb.opens), fb.shown, fb.var.xres, fb.var.bits_per_pixel,
                                 fb.var.transp.offset, fb.layer.buf_mode, fb.alpha.alpha1}),
              QVector<uint32_t>({2, 1, 1280, 32, 24, 1, 0xFF}));
    const auto wbc = out().wbc();
    EXPECT_TRUE(wbc.enabled);
    EXPECT_EQ(QVector<uint32_t>(
                  {wbc.attr.target_size.width, wbc.attr.target_size.height, wbc.attr.frame_rate}),
              QVector<uint32_t>({1280, 720, 60}));

    const auto infos = eventsOf("vo", "infoV");
    ASSERT_FALSE(infos.isEmpty());
    const QVariantMap params = infos.last().value.toMap().value("params").toMap();
    EXPECT_EQ(params.value("framerate").toInt(), 60);
    EXPECT_EQ(params.value("width").toInt(), 1280);
    VeskTee* tee = VeskHi::getTee(params.value("tee").toInt());
    ASSERT_NE(tee, nullptr);
    EXPECT_EQ(tee->getSource().mod_id, 15);
    EXPECT_EQ(member(&VeskOutputVo::wbcTee), tee);

    graph->stop("vo");
    EXPECT_FALSE(out().voDev(0).enabled);
    EXPECT_FALSE(out().wbc().enabled);
    EXPECT_TRUE(out().hdmi().started);
    EXPECT_EQ(member(&VeskOutputVo::vid), -1);
}

TEST_F(VideoOutTest, SerialiserRatePinsWithoutMicrocontroller)
{
    display({{"chip", "GS2972"}});
    auto& board = vsim::Board::instance();
    ASSERT_TRUE(waitForCommands(2));
    EXPECT_EQ(board.commands(), QStringList({"echo 0 > /sys/class/gpio/gpio124/value",
                                             "echo 1 > /sys/class/gpio/gpio125/value"}));
    set(vo, {{"output", "PAL"}});
    ASSERT_TRUE(waitForCommands(4));
    EXPECT_EQ(board.commands().mid(2), QStringList({"echo 1 > /sys/class/gpio/gpio124/value",
                                                    "echo 0 > /sys/class/gpio/gpio125/value"}));
}

// ---------------------------------------------------------------- what the monitors show

QRgb at(const QImage& img, int x, int y)
{
    return img.pixel(x, y);
}

bool grey(QRgb c, int lo, int hi)
{
    return qAbs(qRed(c) - qGreen(c)) < 8 && qAbs(qGreen(c) - qBlue(c)) < 8 && qRed(c) >= lo &&
           qRed(c) <= hi;
}

// Mean difference of two pictures of one size, per channel and pixel.
double difference(const QImage& a, const QImage& b)
{
    double sum = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
            sum +=
                qAbs(qRed(p) - qRed(q)) + qAbs(qGreen(p) - qGreen(q)) + qAbs(qBlue(p) - qBlue(q));
        }
    return sum / (3.0 * a.width() * a.height());
}

// A capture on the HDMI monitor and a still picture on the television, as a
// person looking at the two screens would judge them.
TEST_F(VideoOutTest, MonitorsShowTheNoSignalPictureTheSourceAndTheStillInItsPlace)
{
    auto& board = vsim::Board::instance();
    auto emu = board.addChip("hdmi1", "7611", {{"bus", 1}});
    VeskHost::setConfig({{"interfaceV", QVariantMap{{"hdmi1", QVariantMap{{"chip", "7611"},
                                                                          {"did", 0},
                                                                          {"cid", 0},
                                                                          {"mode", "bt1120"}}}}}});
    board.writeFile("/vesk/config/nosignal.yuv", vsim::builtinFile("nosignal.yuv"));
    board.writeFile("/vesk/pictures/testsrc.jpg", vsim::builtinFile("testsrc.jpg"));
    auto* cap = make<VeskInputVi>("cap", {{"interface", "hdmi1"}});
    auto* still = make<VeskInputImage>("still", {{"path", "/vesk/pictures/testsrc.jpg"},
                                                 {"width", 640},
                                                 {"height", 360},
                                                 {"framerate", 5}});
    make<VeskOutputVo>("monitor", {{"type", "hdmi"}, {"ui", false}});
    make<VeskOutputVo>("tv", {{"type", "cvbs"},
                              {"x", 0.25},
                              {"y", 0.25},
                              {"w", 0.5},
                              {"h", 0.5},
                              {"mirror", true},
                              {"color", 0x202020}});
    ASSERT_TRUE(graph->link("cap", "monitor", VeskHost::LinkV));
    ASSERT_TRUE(graph->link("still", "tv", VeskHost::LinkV));
    graph->startAll();
    VeskGraph::runIn(cap, [cap] { cap->timer.stop(); });

    emu->setSource({});
    VeskGraph::runIn(cap, [cap] { cap->onTimer(); });
    QImage screen = out().compose(1);
    ASSERT_EQ(screen.size(), QSize(1920, 1080));
    EXPECT_TRUE(grey(at(screen, 10, 10), 40, 110));     // the grey squares
    EXPECT_TRUE(grey(at(screen, 476, 540), 190, 255));  // the light frame around the middle

    emu->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 60}});
    VeskGraph::runIn(cap, [cap] { cap->onTimer(); });
    screen = out().compose(1);
    EXPECT_TRUE(grey(at(screen, 100, 100), 230, 255));  // white bar, then yellow
    EXPECT_EQ(at(screen, 360, 100) & 0xFFFFFF, 0xFFFF00u);
    EXPECT_TRUE(grey(at(screen, 1900, 1060), 230, 255));  // the ramp ends in white
    // The capture's contrast is its tee's: at -100 every colour is mid-grey.
    set(cap, {{"contrast", -100}});
    EXPECT_TRUE(grey(at(out().compose(1), 360, 100), 120, 136));

    // The still picture lies in the middle quarter of the 720x576 picture,
    // mirrored, over the background colour.
    QDeadlineTimer deadline(10000);
    const int grp =
        VeskHi::getTee(inNode(still, [still] { return still->infoV.params; }).value("tee").toInt())
            ->grp;
    while (out().vpssGrp(grp).framesIn == 0 && !deadline.hasExpired()) QThread::msleep(10);
    const QImage tv = out().compose(2);
    ASSERT_EQ(tv.size(), QSize(720, 576));
    EXPECT_EQ(at(tv, 10, 10) & 0xFFFFFF, 0x202020u);
    EXPECT_EQ(at(tv, 176, 300) & 0xFFFFFF, 0x202020u);
    const QImage shown = tv.copy(180, 144, 360, 288);
    const QImage original = QImage::fromData(vsim::builtinFile("testsrc.jpg"))
                                .convertToFormat(QImage::Format_RGB32)
                                .scaled(360, 288, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    EXPECT_LT(difference(shown, original.mirrored(true, false)), 12.0);
    EXPECT_GT(difference(shown, original), 30.0);
}

}  // namespace

#include "test_video_out.moc"
