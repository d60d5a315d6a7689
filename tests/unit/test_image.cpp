// Still pictures: JPEG files made by ffmpeg, decoded by the platform's
// decoder into the node's own frame and sent into a tee at the set rate.
#include <QDir>
#include <cstdlib>

#include "CaptureHarness.h"
#include "frame/hi_mpi.h"
#include "input/VeskInputImage.h"

using capture::inNode;
using capture::Log;

namespace {

QByteArray media(const QString& name)
{
    return capture::readHostFile(QDir(VESK_CAPTURE_MEDIA).filePath(name));
}

// Puts `bytes` on the board, or else the picture made under that name.
QString onBoard(const QString& name, QByteArray bytes = QByteArray())
{
    if (bytes.isEmpty()) bytes = media(name);
    EXPECT_FALSE(bytes.isEmpty()) << name.toStdString();
    vsim::Board::instance().writeFile("/vesk/pictures/" + name, bytes);
    return "/vesk/pictures/" + name;
}

// Full-range BT.601 Y, Cr, Cb of 0x3060C0 and of 0xC06030.
constexpr int kBlue[] = {93, 96, 184}, kRed[] = {119, 180, 88};

// Whether the sample at (x, y) of an NV21 frame is within 3 of `want`.
testing::AssertionResult pixelNear(const ot_video_frame& f, uint32_t x, uint32_t y,
                                   const int (&want)[3])
{
    const auto* luma = reinterpret_cast<const uint8_t*>(f.virt_addr[0]);
    const auto* vu =
        reinterpret_cast<const uint8_t*>(f.virt_addr[1]) + size_t(y / 2) * f.stride[1] + (x & ~1u);
    const int got[] = {luma[size_t(y) * f.stride[0] + x], vu[0], vu[1]};
    for (int i = 0; i < 3; ++i)
        if (std::abs(got[i] - want[i]) > 3)
            return testing::AssertionFailure()
                   << "Y Cr Cb " << got[0] << " " << got[1] << " " << got[2];
    return testing::AssertionSuccess();
}

class Image : public capture::GraphTest {
protected:
    ot_video_frame frameOf(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->frame.video_frame; });
    }
    int channel(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->vdecChn; });
    }
    int interval(VeskInputImage* n)
    {
        return inNode(n, [n] { return n->timer.isActive() ? n->timer.interval() : -1; });
    }
    // Whether `more` frames go out from now on.
    bool flowing(quint64 more = 3)
    {
        const quint64 from = platform().vpssFrameCount();
        return waitFor([&] { return platform().vpssFrameCount() >= from + more; }, 2000);
    }
};

TEST_F(Image, JpegIsDecodedIntoItsOwnFrameSentAtTheRateAndDecodedAgainOnEveryChange)
{
    VeskInputImage* n = make<VeskInputImage>(
        "img",
        {{"path", onBoard("color.jpg")}, {"width", 320}, {"height", 240}, {"framerate", 25}});
    ASSERT_TRUE(n);
    const ot_video_frame f = frameOf(n);
    ASSERT_EQ(f.width, 320u);
    ASSERT_EQ(f.height, 240u);
    EXPECT_TRUE(pixelNear(f, 0, 0, kBlue));
    EXPECT_TRUE(pixelNear(f, 319, 239, kBlue));

    const int chn = channel(n);
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
    EXPECT_EQ(info[0].value.toMap()["type"].toInt(), VeskObject::TypeFrames);
    const QVariantMap params = info[0].value.toMap()["params"].toMap();
    EXPECT_GT(params["tee"].toInt(), 0);
    EXPECT_EQ(params["width"].toInt(), 320);
    EXPECT_EQ(params["framerate"].toInt(), 25);

    // One frame into the tee's group, never copied again: only its time moves.
    EXPECT_EQ(interval(n), 40);
    const int grp = inNode(n, [n] { return n->teeChn ? n->teeChn->getChn().dev_id : -1; });
    ASSERT_TRUE(flowing(6));
    const auto sent = platform().vpssFrames();
    for (int i = 1; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].grp, grp);
        EXPECT_EQ(sent[i].timeRef, sent[i - 1].timeRef + 2);
        EXPECT_GE(sent[i].pts, sent[i - 1].pts);
        EXPECT_EQ(sent[i].virtAddr, sent[0].virtAddr);
        EXPECT_EQ(sent[i].lumaSum, sent[0].lumaSum);
    }
    EXPECT_NEAR(double(sent[0].lumaSum) / (320 * 240), kBlue[0], 3);

    // Any change decodes again through the same channel and restarts the timer.
    platform().clearCalls();
    set(n, {{"framerate", 5}});
    QStringList decoderCalls;
    for (const auto& c : platform().calls()) {
        if (!c.name.startsWith("hi_mpi_vdec")) continue;
        decoderCalls << c.name.mid(12);
        EXPECT_EQ(c.args.value(0).toInt(), chn);
    }
    EXPECT_EQ(decoderCalls,
              (QStringList{"stop_recv_stream", "destroy_chn", "create_chn", "start_recv_stream",
                           "send_stream", "get_frame", "release_frame"}));
    EXPECT_EQ(interval(n), 200);

    // A new height alone keeps the frame's memory; a new width does not.
    set(n, {{"height", 480}});
    EXPECT_EQ(frameOf(n).virt_addr[0], f.virt_addr[0]);
    set(n, {{"width", 640}});
    EXPECT_NE(frameOf(n).virt_addr[0], f.virt_addr[0]);
    EXPECT_EQ(frameOf(n).width, 320u);  // the picture's own size

    // Any subsampling comes out in the frame's layout.
    set(n, {{"path", onBoard("color422.jpg")}});
    EXPECT_TRUE(pixelNear(frameOf(n), 160, 121, kBlue));
    set(n, {{"path", onBoard("gray.jpg")}});
    EXPECT_TRUE(pixelNear(frameOf(n), 7, 9, {128, 128, 128}));
    EXPECT_EQ(eventsOf("img", "infoV").size(), 1);  // the tee was announced once
}

TEST_F(Image, RefusedOrUndecodablePicturesKeepTheLastGoingAndNoneOverruns)
{
    // Larger than the channel: the decoder refuses it, and there is nothing
    // to announce yet.
    VeskInputImage* n = make<VeskInputImage>(
        "img",
        {{"path", onBoard("testsrc720.jpg")}, {"width", 320}, {"height", 240}, {"framerate", 50}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_GetImage"));
    EXPECT_EQ(platform().vdecChn(channel(n)).oversize, 1);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 0);

    set(n, {{"path", onBoard("color.jpg")}});
    const ot_video_frame before = frameOf(n);
    Log::clear();
    platform().clearCalls();
    set(n, {{"framerate", 0}});
    EXPECT_TRUE(Log::has("[img] \"framerate\" 0 refused"));
    EXPECT_EQ(countCalls("hi_mpi_vdec_destroy_chn"), 0);
    EXPECT_EQ(interval(n), 20);
    EXPECT_TRUE(flowing());

    set(n, {{"framerate", 50}, {"path", onBoard("junk.jpg", QByteArray(5000, 'x'))}});
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_GetImage"));
    set(n, {{"path", onBoard("cut.jpg", media("color.jpg").left(600))}});
    set(n, {{"path", "/vesk/pictures/missing.jpg"}});
    EXPECT_TRUE(Log::has("[img] HI_MPI_VDEC_SendStream"));
    const ot_video_frame after = frameOf(n);
    EXPECT_EQ(after.virt_addr[0], before.virt_addr[0]);
    EXPECT_EQ(after.width, before.width);
    EXPECT_TRUE(pixelNear(after, 10, 10, kBlue));
    EXPECT_TRUE(flowing());

    // A taller channel on the same frame memory: the picture is cut at the
    // frame's end.
    set(n, {{"height", 480}, {"path", onBoard("tall.jpg")}});
    EXPECT_TRUE(Log::has("picture 320x480 does not fit the frame made for 320x240: cut to 240"));
    const ot_video_frame f = frameOf(n);
    EXPECT_EQ(f.virt_addr[0], before.virt_addr[0]);
    EXPECT_EQ(f.height, 240u);
    EXPECT_TRUE(pixelNear(f, 100, 239, kRed));
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

    VeskInputImage* n = make<VeskInputImage>(
        "img", {{"path", onBoard("color.jpg")}, {"width", 320}, {"height", 240}});
    ASSERT_TRUE(n);
    EXPECT_TRUE(Log::has("[img] all 64 decoder channels are in use"));
    EXPECT_TRUE(Log::has("[img] zr_mpi_vdec_create_chn"));
    EXPECT_EQ(channel(n), -1);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 0);

    ASSERT_EQ(hi_mpi_vdec_destroy_chn(17), 0);
    set(n, {{"framerate", 2}});
    EXPECT_EQ(channel(n), 17);
    EXPECT_EQ(eventsOf("img", "infoV").size(), 1);
}

}  // namespace
