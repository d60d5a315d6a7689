// Still pictures: JPEG files made by ffmpeg, decoded by the platform's
// decoder into the node's own frame and sent into a tee at the set rate.
#include <QDir>
#include <cstdlib>

#include "CaptureHarness.h"
#include "frame/hi_mpi.h"
#include "input/VeskInputImage.h"

using capture::inNode;
using capture::Log;
using capture::waitFor;
using vsim::Board;

namespace {

QByteArray media(const QString& name)
{
    const QByteArray bytes = capture::readHostFile(QDir(VESK_CAPTURE_MEDIA).filePath(name));
    EXPECT_FALSE(bytes.isEmpty()) << name.toStdString();
    return bytes;
}

QString onBoard(const QString& name, const QByteArray& bytes)
{
    const QString path = "/vesk/pictures/" + name;
    Board::instance().writeFile(path, bytes);
    return path;
}

struct Pixel {
    int y, v, u;
};

// The sample at (x, y) of an NV21 frame.
Pixel pixelAt(const ot_video_frame& f, uint32_t x, uint32_t y)
{
    const auto* luma = reinterpret_cast<const uint8_t*>(f.virt_addr[0]);
    const auto* vu = reinterpret_cast<const uint8_t*>(f.virt_addr[1]);
    const uint8_t* pair = vu + size_t(y / 2) * f.stride[1] + (x & ~1u);
    return Pixel{luma[size_t(y) * f.stride[0] + x], pair[0], pair[1]};
}

#define EXPECT_NEAR_PIXEL(p, Y, V, U) \
    do {                              \
        EXPECT_NEAR((p).y, (Y), 3);   \
        EXPECT_NEAR((p).v, (V), 3);   \
        EXPECT_NEAR((p).u, (U), 3);   \
    } while (0)

// 0x3060C0 in full-range BT.601: Y 93, Cr 96, Cb 184.
constexpr int kY = 93, kV = 96, kU = 184;

class Image : public capture::GraphTest {
protected:
    ot_video_frame frameOf(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->frame.video_frame; });
    }
    int interval(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->timer.isActive() ? n->timer.interval() : -1; });
    }
    int group(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->teeChn ? n->teeChn->getChn().dev_id : -1; });
    }
    quint64 framesTo(int grp)
    {
        quint64 count = 0;
        for (const auto& f : platform().vpssFrames()) count += f.grp == grp ? 1 : 0;
        return count;
    }
};

TEST_F(Image, JpegIsDecodedIntoItsOwnFrameAndSentAtTheRate)
{
    const QString path = onBoard("color.jpg", media("color.jpg"));
    VeskInputImage* n = make<VeskInputImage>(
        "img", {{"path", path}, {"width", 320}, {"height", 240}, {"framerate", 25}});
    ASSERT_TRUE(n);

    const ot_video_frame f = frameOf(n);
    ASSERT_EQ(f.width, 320u);
    ASSERT_EQ(f.height, 240u);
    EXPECT_NEAR_PIXEL(pixelAt(f, 0, 0), kY, kV, kU);
    EXPECT_NEAR_PIXEL(pixelAt(f, 319, 239), kY, kV, kU);

    const int chn = inNode(n, [n] { return n->vdecChn; });
    const auto dec = platform().vdecChn(chn);
    EXPECT_TRUE(dec.receiving);
    EXPECT_EQ(dec.attr.type, OT_PT_JPEG);
    EXPECT_EQ(dec.attr.mode, OT_VDEC_SEND_MODE_FRAME);
    EXPECT_EQ(dec.attr.stream_buf_size, 320u * 240);
    EXPECT_EQ(dec.attr.frame_buf_size, 320u * 240 * 3 / 2 + 102400);
    EXPECT_EQ(dec.attr.frame_buf_cnt, 8u);
    EXPECT_EQ(dec.decoded, 1);
    EXPECT_EQ(dec.held, 0);  // given back after the copy

    const QList<capture::Event> info = eventsOf("img", "infoV");
    ASSERT_EQ(info.size(), 1);
    const QVariantMap params = info[0].value.toMap()["params"].toMap();
    EXPECT_EQ(info[0].value.toMap()["type"].toInt(), VeskObject::TypeFrames);
    EXPECT_GT(params["tee"].toInt(), 0);
    EXPECT_EQ(params["width"].toInt(), 320);
    EXPECT_EQ(params["framerate"].toInt(), 25);

    EXPECT_EQ(interval(n), 40);
    const int grp = group(n);
    ASSERT_GE(grp, 0);
    ASSERT_TRUE(waitFor([&] { return framesTo(grp) >= 6; }, 2000));
    QList<vsim::MediaPlatform::VpssFrame> sent;
    for (const auto& s : platform().vpssFrames())
        if (s.grp == grp) sent << s;
    for (int i = 1; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].timeRef, sent[i - 1].timeRef + 2);
        EXPECT_GE(sent[i].pts, sent[i - 1].pts);
        EXPECT_EQ(sent[i].virtAddr, sent[0].virtAddr);  // one frame, never copied again
        EXPECT_EQ(sent[i].lumaSum, sent[0].lumaSum);
    }
    EXPECT_NEAR(double(sent[0].lumaSum) / (320 * 240), kY, 3);

    set(n, {{"framerate", 30}});
    EXPECT_EQ(interval(n), 33);
    set(n, {{"framerate", 1}});
    EXPECT_EQ(interval(n), 1000);
}

TEST_F(Image, AnySubsamplingComesOutAsTheFrameLayout)
{
    const QString path = onBoard("color422.jpg", media("color422.jpg"));
    VeskInputImage* n =
        make<VeskInputImage>("img", {{"path", path}, {"width", 320}, {"height", 240}});
    ASSERT_TRUE(n);
    EXPECT_NEAR_PIXEL(pixelAt(frameOf(n), 160, 121), kY, kV, kU);

    set(n, {{"path", onBoard("gray.jpg", media("gray.jpg"))}});
    EXPECT_NEAR_PIXEL(pixelAt(frameOf(n), 7, 9), 128, 128, 128);
}

TEST_F(Image, EveryChangeDecodesAgainThroughTheSameChannelAndTee)
{
    const QString path = onBoard("color.jpg", media("color.jpg"));
    VeskInputImage* n =
        make<VeskInputImage>("img", {{"path", path}, {"width", 320}, {"height", 240}});
    ASSERT_TRUE(n);
    const int chn = inNode(n, [n] { return n->vdecChn; });
    const uint64_t memory = frameOf(n).virt_addr[0];

    platform().clearCalls();
    set(n, {{"framerate", 5}});
    const QStringList expected = {"hi_mpi_vdec_stop_recv_stream", "hi_mpi_vdec_destroy_chn",
                                  "hi_mpi_vdec_create_chn",       "hi_mpi_vdec_start_recv_stream",
                                  "hi_mpi_vdec_send_stream",      "hi_mpi_vdec_get_frame",
                                  "hi_mpi_vdec_release_frame"};
    QStringList decoderCalls;
    for (const auto& c : platform().calls()) {
        if (!c.name.startsWith("hi_mpi_vdec")) continue;
        decoderCalls << c.name;
        EXPECT_EQ(c.args.value(0).toInt(), chn);
    }
    EXPECT_EQ(decoderCalls, expected);
    EXPECT_EQ(interval(n), 200);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 1);  // the tee was announced once

    // A new height alone keeps the frame's memory; a new width does not.
    set(n, {{"height", 480}});
    EXPECT_EQ(frameOf(n).virt_addr[0], memory);
    set(n, {{"width", 640}});
    EXPECT_NE(frameOf(n).virt_addr[0], memory);
    EXPECT_EQ(frameOf(n).width, 320u);  // the picture's own size
    EXPECT_EQ(eventsOf("img", "infoV").size(), 1);
}

TEST_F(Image, RefusedRateAndUndecodableFilesKeepTheLastPictureGoing)
{
    const QString path = onBoard("color.jpg", media("color.jpg"));
    VeskInputImage* n = make<VeskInputImage>(
        "img", {{"path", path}, {"width", 320}, {"height", 240}, {"framerate", 50}});
    ASSERT_TRUE(n);
    const ot_video_frame before = frameOf(n);
    const int grp = group(n);

    platform().clearCalls();
    set(n, {{"framerate", 0}});
    EXPECT_TRUE(Log::has("[img] \"framerate\" 0 refused"));
    EXPECT_EQ(countCalls("hi_mpi_vdec_destroy_chn"), 0);
    EXPECT_EQ(interval(n), 20);
    const quint64 sent = framesTo(grp);
    EXPECT_TRUE(waitFor([&] { return framesTo(grp) >= sent + 3; }, 2000));

    set(n, {{"framerate", 50}, {"path", onBoard("junk.jpg", QByteArray(5000, 'x'))}});
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_GetImage"));
    set(n, {{"path", onBoard("cut.jpg", media("color.jpg").left(600))}});
    set(n, {{"path", "/vesk/pictures/missing.jpg"}});
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_SendStream"));
    const ot_video_frame after = frameOf(n);
    EXPECT_EQ(after.virt_addr[0], before.virt_addr[0]);
    EXPECT_EQ(after.width, before.width);
    EXPECT_NEAR_PIXEL(pixelAt(after, 10, 10), kY, kV, kU);
    const quint64 later = framesTo(grp);
    EXPECT_TRUE(waitFor([&] { return framesTo(grp) >= later + 3; }, 2000));
}

TEST_F(Image, PicturesLargerThanChannelOrFrameNeverOverrun)
{
    // Larger than the channel: the decoder refuses it.
    VeskInputImage* n = make<VeskInputImage>(
        "img",
        {{"path", onBoard("big.jpg", media("testsrc720.jpg"))}, {"width", 320}, {"height", 240}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_GetImage"));
    EXPECT_EQ(platform().vdecChn(inNode(n, [n] { return n->vdecChn; })).oversize, 1);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 0);

    // A taller channel on the same frame memory: the picture is cut at the
    // frame's end.
    set(n, {{"path", onBoard("color.jpg", media("color.jpg"))}});
    const uint64_t memory = frameOf(n).virt_addr[0];
    Log::clear();
    set(n, {{"height", 480}, {"path", onBoard("tall.jpg", media("tall.jpg"))}});
    EXPECT_TRUE(Log::has("picture 320x480 does not fit the frame made for 320x240: cut to 240"));
    const ot_video_frame f = frameOf(n);
    EXPECT_EQ(f.virt_addr[0], memory);
    EXPECT_EQ(f.height, 240u);
    const Pixel p = pixelAt(f, 100, 239);
    EXPECT_GT(p.v, 150);  // 0xC06030: red, so Cr is high
}

TEST_F(Image, AllDecoderChannelsBusyIsReportedAndRetried)
{
    ot_vdec_chn_attr attr{};
    attr.type = OT_PT_JPEG;
    attr.mode = OT_VDEC_SEND_MODE_FRAME;
    attr.pic_width = 64;
    attr.pic_height = 64;
    attr.stream_buf_size = 4096;
    attr.frame_buf_size = 64 * 64 * 2;
    attr.frame_buf_cnt = 1;
    for (int c = 0; c < OT_VDEC_MAX_CHN_NUM; ++c) ASSERT_EQ(hi_mpi_vdec_create_chn(c, &attr), 0);

    const QString path = onBoard("color.jpg", media("color.jpg"));
    VeskInputImage* n =
        make<VeskInputImage>("img", {{"path", path}, {"width", 320}, {"height", 240}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[img] all 64 decoder channels are in use"));
    EXPECT_TRUE(Log::has("[img] zr_mpi_vdec_create_chn"));
    EXPECT_EQ(inNode(n, [n] { return n->vdecChn; }), -1);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 0);

    ASSERT_EQ(hi_mpi_vdec_destroy_chn(17), 0);
    set(n, {{"framerate", 2}});
    EXPECT_EQ(inNode(n, [n] { return n->vdecChn; }), 17);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 1);
}

}  // namespace
