// USB camera capture on the virtual board: what the camera delivers reaching
// a sink (MJPEG with or without its tables, H.264, YUYV through a tee), the
// camera pulled and put back, short buffers, broken frames, and the camera's
// controls as the camera ends up holding them.
#include <linux/videodev2.h>

#include <QElapsedTimer>
#include <algorithm>

#include "CaptureHarness.h"
#include "frame/hi_mpi.h"
#include "input/VeskInputV4l2.h"
#include "sim/UsbCamera.h"

using capture::inNode;
using capture::Log;
using vsim::Board;
using vsim::UsbCamera;

namespace {

struct Unit {
    QByteArray bytes;
    qint64 pts = 0, dts = 0;
    int frameType = -1;
};

class Sink : public VeskObject {
public:
    Sink() { shareDepth = 1000; }
    void onNewPacketV(VeskObject::Packet p) override
    {
        units << Unit{QByteArray(p.data, p.len), p.pts, p.dts, p.frameType};
    }
    QList<Unit> units;
};

// The camera's "frame N" comment of an MJPEG frame; -1 without one.
int frameNumber(const QByteArray& jpeg)
{
    const int at = jpeg.indexOf("frame ");
    return at < 0 ? -1 : jpeg.mid(at + 6, 10).split('\xFF').first().toInt();
}

const QByteArray kTable(reinterpret_cast<const char*>(myDHT), sizeof myDHT);

// The luma the platform's JPEG decoder makes of `jpeg` at (x, y); -1 when it
// cannot decode it.
int decodedLuma(QByteArray jpeg, int w, int h, int x, int y)
{
    ot_vdec_chn_attr attr{};
    attr.type = OT_PT_JPEG;
    attr.mode = OT_VDEC_SEND_MODE_FRAME;
    attr.pic_width = uint32_t(w);
    attr.pic_height = uint32_t(h);
    attr.stream_buf_size = uint32_t(w * h);
    attr.frame_buf_size = uint32_t(w * h * 2);
    attr.frame_buf_cnt = 2;
    if (hi_mpi_vdec_create_chn(0, &attr) || hi_mpi_vdec_start_recv_stream(0)) return -1;
    VeskObject::Packet p;
    p.data = jpeg.data();
    p.len = jpeg.size();
    const ot_vdec_stream stream = zr_vdec_stream_init(p);
    ot_video_frame_info f{};
    int luma = -1;
    if (!hi_mpi_vdec_send_stream(0, &stream, 0) && !hi_mpi_vdec_get_frame(0, &f, nullptr, 300)) {
        luma = reinterpret_cast<const uint8_t*>(
            f.video_frame.virt_addr[0])[y * f.video_frame.stride[0] + x];
        hi_mpi_vdec_release_frame(0, &f);
    }
    hi_mpi_vdec_stop_recv_stream(0);
    hi_mpi_vdec_destroy_chn(0);
    return luma;
}

class V4l2 : public capture::GraphTest {
protected:
    void TearDown() override
    {
        VeskHost::detach(&sink);
        GraphTest::TearDown();
    }
    static bool camera(QVariantMap step)
    {
        step["camera"] = "video0";
        QString error;
        const bool ok = Board::instance().applyStep(step, &error);
        EXPECT_TRUE(ok) << error.toStdString();
        return ok;
    }
    static std::shared_ptr<UsbCamera> cam() { return UsbCamera::find("video0"); }
    VeskInputV4l2* open(const QVariantMap& data)
    {
        node = make<VeskInputV4l2>("cam", data);
        VeskHost::link(node, &sink, VeskHost::LinkV);
        graph->start("cam");
        return node;
    }
    int opens(bool value)
    {
        int n = 0;
        for (const capture::Event& e : eventsOf("cam", "CameraOpen"))
            n += e.value.toBool() == value;
        return n;
    }
    // Waits for the next opening, then drops what the last one sent.
    bool reopened(int before, int ms = 3000)
    {
        const bool ok = waitFor([&] { return opens(true) > before; }, ms);
        sink.units.clear();
        return ok;
    }
    bool units(int n, int ms = 3000)
    {
        return waitFor([&] { return sink.units.size() >= n; }, ms);
    }
    QVariantMap lastInfo()
    {
        const auto all = eventsOf("cam", "infoV");
        return all.isEmpty() ? QVariantMap() : all.last().value.toMap();
    }

    Sink sink;
    VeskInputV4l2* node = nullptr;
};

TEST_F(V4l2, MjpegTablesAreJudgedFromTheFirst300BytesOfTheFirstFrameOfEachOpening)
{
    ASSERT_TRUE(camera({{"format", "mjpeg"}, {"dhtAt", 299}}));
    open({{"width", 320}, {"height", 240}});
    ASSERT_TRUE(reopened(0));
    ASSERT_TRUE(units(3));
    const QVariantMap info = lastInfo();
    EXPECT_EQ(info["type"].toInt(), VeskObject::TypeMJPEG);
    EXPECT_EQ(info["params"].toMap()["width"].toInt(), 320);
    for (const Unit& u : sink.units) {
        EXPECT_TRUE(u.bytes.startsWith("\xFF\xD8")) << "a table was put ahead of a frame";
        EXPECT_EQ(u.bytes.indexOf("\xFF\xC4"), 299);
        EXPECT_EQ(u.dts, u.pts);
        EXPECT_EQ(u.frameType, 0);
    }

    // The camera's encoder used the typical tables: each of them is in ours.
    const QByteArray& withTables = sink.units[0].bytes;
    const int segEnd = 299 + 2 + (uint8_t(withTables[301]) << 8 | uint8_t(withTables[302]));
    int tables = 0;
    for (int at = 303, n = 0; at < segEnd; at += 17 + n, ++tables) {
        n = 0;
        for (int i = 1; i <= 16; ++i) n += uint8_t(withTables[at + i]);
        EXPECT_TRUE(kTable.contains(withTables.mid(at, 17 + n))) << "table " << int(withTables[at]);
    }
    EXPECT_EQ(tables, 4);

    // One byte further is too far: every frame of that opening gets the table.
    ASSERT_TRUE(camera({{"dhtAt", 300}}));
    set(node, {{"v4l2BufLen", 3}});
    ASSERT_TRUE(reopened(1));
    ASSERT_TRUE(units(3));
    for (const Unit& u : sink.units) {
        ASSERT_TRUE(u.bytes.startsWith(kTable));
        EXPECT_EQ(u.bytes.mid(420, 2), QByteArray("\xFF\xD8"));
        EXPECT_EQ(u.bytes.indexOf("\xFF\xC4", 420), 420 + 300);
    }

    // A camera without tables: the standard ones go ahead of its frames.
    ASSERT_TRUE(camera({{"format", "mjpeg-nodht"}}));
    set(node, {{"v4l2BufLen", 4}});
    ASSERT_TRUE(reopened(2));
    ASSERT_TRUE(units(2));
    for (const Unit& u : sink.units) {
        ASSERT_TRUE(u.bytes.startsWith(kTable));
        EXPECT_EQ(u.bytes.indexOf("\xFF\xC4", 1), -1);
    }
    // Those are the tables the camera meant: with them behind its start
    // marker (where the platform's parser wants them) the bars come out.
    const QByteArray& u = sink.units[0].bytes;
    const QByteArray fixed = u.mid(420, 2) + kTable + u.mid(422);
    EXPECT_NEAR(decodedLuma(fixed, 320, 240, 20, 60), 235, 4);
    EXPECT_NEAR(decodedLuma(fixed, 320, 240, 60, 60), 210, 4);
    EXPECT_FALSE(cam()->requests().contains("VIDIOC_STREAMOFF"));
}

TEST_F(V4l2, DropSendsEveryNthFrameAtTheRateTheCameraConfirms)
{
    ASSERT_TRUE(camera({{"rates", QVariantList{25, 15}}}));
    open({{"width", 320}, {"height", 240}, {"drop", 3}});
    ASSERT_TRUE(reopened(0));
    ASSERT_TRUE(units(3));
    EXPECT_EQ(frameNumber(sink.units[0].bytes), 2);  // frames 3, 6, 9
    EXPECT_EQ(frameNumber(sink.units[1].bytes), 5);
    EXPECT_EQ(frameNumber(sink.units[2].bytes), 8);
    EXPECT_GT(sink.units[1].pts, sink.units[0].pts);
    EXPECT_TRUE(Log::has("device framerate : 25"));
    EXPECT_EQ(lastInfo()["params"].toMap()["framerate"].toInt(), 25);

    // 0 sends nothing at all.
    set(node, {{"drop", 0}});
    ASSERT_TRUE(reopened(1));
    const quint64 from = cam()->framesDelivered();
    ASSERT_TRUE(waitFor([&] { return cam()->framesDelivered() >= from + 5; }));
    QCoreApplication::processEvents();
    EXPECT_TRUE(sink.units.isEmpty());
}

TEST_F(V4l2, PulledCameraIsReportedAndPickedUpAgainWhenItReturns)
{
    open({{"width", 320}, {"height", 240}});
    ASSERT_TRUE(reopened(0));
    ASSERT_TRUE(units(2));
    const int infos = eventsOf("cam", "infoV").size();

    QElapsedTimer t;
    t.start();
    ASSERT_TRUE(camera({{"plug", false}}));
    ASSERT_TRUE(waitFor([&] { return opens(false) == 1; }, 2000));
    EXPECT_LE(t.elapsed(), 750);
    EXPECT_EQ(inNode(node, [this] { return node->fd; }), -1);

    ASSERT_TRUE(camera({{"plug", true}}));
    ASSERT_TRUE(reopened(1));
    ASSERT_TRUE(units(2));
    EXPECT_EQ(eventsOf("cam", "infoV").size(), infos + 1);

    // Stopped by the host, the node still watches the path.
    graph->stop("cam");
    ASSERT_TRUE(camera({{"plug", false}}));
    ASSERT_TRUE(waitFor([&] { return opens(false) == 2; }, 2000));
    ASSERT_TRUE(camera({{"plug", true}}));
    ASSERT_TRUE(reopened(2));
}

TEST_F(V4l2, OneBufferIsEnoughAndBrokenFramesAreDroppedWithoutStoppingCapture)
{
    ASSERT_TRUE(camera({{"buffers", 1}, {"format", "h264"}}));
    open({{"width", 320}, {"height", 240}, {"format", "h264"}});
    ASSERT_TRUE(reopened(0));
    EXPECT_TRUE(Log::has("Insufficient buffer memory"));
    ASSERT_TRUE(units(3));
    EXPECT_EQ(lastInfo()["type"].toInt(), VeskObject::TypeH264);
    EXPECT_TRUE(sink.units[0].bytes.startsWith(QByteArray("\0\0\0\1", 4)));

    // An index past the buffers and a frame longer than its buffer are
    // dropped; an empty frame is a frame like any other.
    auto empty = [&] {
        return std::any_of(sink.units.begin(), sink.units.end(),
                           [](const Unit& u) { return u.bytes.isEmpty(); });
    };
    const struct {
        const char* fault;
        const char* line;
    } faults[] = {{"badIndex", "buffer error"}, {"oversize", "in a buffer of"}, {"empty", nullptr}};
    for (const auto& f : faults) {
        Log::clear();
        ASSERT_TRUE(camera({{"fault", f.fault}}));
        ASSERT_TRUE(waitFor([&] { return f.line ? Log::has(f.line) : empty(); })) << f.fault;
        const int n = sink.units.size();
        ASSERT_TRUE(units(n + 2)) << "capture stopped after " << f.fault;
    }

    // Requests that fail after the open are logged and the camera still
    // counts as open.
    ASSERT_TRUE(camera({{"fail", QVariantList{"VIDIOC_S_FMT", "VIDIOC_G_PARM"}}}));
    set(node, {{"v4l2BufLen", 2}});
    ASSERT_TRUE(reopened(1));
    EXPECT_TRUE(Log::has("VIDIOC_S_FMT failed"));
    EXPECT_TRUE(Log::has("VIDIOC_G_PARM failed"));
    ASSERT_TRUE(camera({{"fail", ""}}));

    // A format of none of the four is not opened.
    Log::clear();
    set(node, {{"format", "vp8"}});
    EXPECT_TRUE(Log::has("format \"vp8\" refused"));
    EXPECT_FALSE(inNode(node, [this] {
        node->onTimerRetry();
        return node->opened || node->fd != -1;
    }));
}

TEST_F(V4l2, YuyvBecomesASemiPlanarPictureInTheTee)
{
    ASSERT_TRUE(camera({{"format", "yuyv"}}));
    open({{"width", 320}, {"height", 240}, {"format", "yuv"}});
    ASSERT_TRUE(reopened(0));
    const quint64 from = platform().vpssFrameCount();
    ASSERT_TRUE(waitFor([&] { return platform().vpssFrameCount() >= from + 3; }));
    const QVariantMap info = lastInfo();
    EXPECT_EQ(info["type"].toInt(), VeskObject::TypeFrames);
    VeskTee* tee = inNode(node, [this] { return node->tee; });
    ASSERT_TRUE(tee);
    EXPECT_EQ(info["params"].toMap()["tee"].toInt(), tee->getId());

    const auto frames = platform().vpssFrames();
    const auto& last = frames.last();
    EXPECT_EQ(last.grp, tee->grp);
    EXPECT_EQ(last.timeRef, frames[frames.size() - 2].timeRef + 2);
    // The bars: luma from every pixel, V and U from the odd lines.
    const ot_video_frame f = inNode(node, [this] { return node->frame.video_frame; });
    const auto* luma = reinterpret_cast<const uint8_t*>(f.virt_addr[0]);
    const auto* vu = reinterpret_cast<const uint8_t*>(f.virt_addr[1]);
    const uint8_t bars[][3] = {{235, 128, 128}, {210, 16, 146}, {170, 166, 16}, {145, 54, 34}};
    for (int b = 0; b < 4; ++b) {
        const int x = b * 40 + 20;
        EXPECT_EQ(luma[100 * 320 + x], bars[b][0]) << "bar " << b;
        EXPECT_EQ(vu[50 * 320 + x], bars[b][2]) << "bar " << b;
        EXPECT_EQ(vu[50 * 320 + x + 1], bars[b][1]) << "bar " << b;
    }
    EXPECT_TRUE(sink.units.isEmpty());

    // An odd line count (the camera gives one line less) reads its last
    // line from the buffer's spare room: not guarded, the pictures go on.
    graph->stop("cam");
    set(node, {{"height", 239}});
    graph->start("cam");
    ASSERT_TRUE(reopened(1));
    const quint64 sent = platform().vpssFrameCount();
    ASSERT_TRUE(waitFor([&] { return platform().vpssFrameCount() >= sent + 3; }));

    // A picture taller than the camera gives would read past its buffers.
    graph->stop("cam");
    make<VeskInputV4l2>("tall", {{"width", 320}, {"height", 1090}, {"format", "yuv"}});
    graph->start("tall");
    ASSERT_TRUE(waitFor([] { return Log::has("frames dropped"); }));
    const quint64 held = platform().vpssFrameCount(), seen = cam()->framesDelivered();
    ASSERT_TRUE(waitFor([&] { return cam()->framesDelivered() >= seen + 3; }));
    EXPECT_EQ(platform().vpssFrameCount(), held);
}

TEST_F(V4l2, ControlsMoveTheCameraAndSetItsModes)
{
    open({{"width", 320}, {"height", 240}});
    ASSERT_TRUE(reopened(0));
    auto call = [&](const char* m, const QVariant& arg = QVariant()) {
        return graph->invoke("cam", m, arg);
    };

    EXPECT_TRUE(call("ptz_set", QVariantList{3600, -3600, 200}).toBool());
    EXPECT_EQ(call("ptz_get").toList(), (QVariantList{3600, -3600, 200}));
    EXPECT_FALSE(call("ptz_set", QVariantList{0, 0}).toBool());
    EXPECT_TRUE(call("ptz_rlt_z", -1).toBool());
    EXPECT_TRUE(call("ptz_rlt_p", 100).toBool());
    EXPECT_TRUE(call("ptz_abs_t", 7200).toBool());
    EXPECT_EQ(cam()->control(V4L2_CID_PAN_ABSOLUTE), 3700);
    EXPECT_EQ(cam()->control(V4L2_CID_TILT_ABSOLUTE), 7200);
    EXPECT_EQ(cam()->control(V4L2_CID_ZOOM_ABSOLUTE), 199);

    const QByteArray modeBefore = cam()->extension(0x02);
    const QByteArray flagsBefore = cam()->extension(0x1B);
    EXPECT_TRUE(
        call("insta360_set",
             QVariantMap{{"tracking", true}, {"whiteboard", true}, {"hdr", true}, {"mirror", true}})
            .toBool());
    EXPECT_EQ(cam()->extension(0x02), QByteArray(1, '\1') + modeBefore.mid(1));
    EXPECT_EQ(uint8_t(cam()->extension(0x1B)[0]), uint8_t(flagsBefore[0]) | 0x0C);
    EXPECT_EQ(cam()->extension(0x1B)[1], flagsBefore[1]);
    QVariantMap all{{"tracking", true},  {"whiteboard", false}, {"overhead", false},
                    {"deskview", false}, {"hdr", true},         {"mirror", true}};
    EXPECT_EQ(call("insta360_get").toMap(), all);

    EXPECT_TRUE(call("insta360_set", QVariantMap{{"deskview", true}}).toBool());
    all = {{"tracking", false}, {"whiteboard", false}, {"overhead", false},
           {"deskview", true},  {"hdr", false},        {"mirror", false}};
    EXPECT_EQ(call("insta360_get").toMap(), all);
    EXPECT_TRUE(call("insta360_set", QVariantMap()).toBool());
    EXPECT_EQ(cam()->extension(0x02)[0], '\0');
    EXPECT_EQ(cam()->extension(0x1B), flagsBefore);

    // Without the unit the answer is all off, not whatever the stack held.
    ASSERT_TRUE(camera({{"extension", false}}));
    cam()->setExtension(0x1B, QByteArray("\x0C\0", 2));
    for (const QVariant& v : call("insta360_get").toMap()) EXPECT_FALSE(v.toBool());
}

}  // namespace
