// Shared by the network and file source tests: the media of make_media.sh
// and what every video that leaves a source must pass.
#pragma once

#include <gtest/gtest.h>

#include <QDir>

#include "input/VeskInputFile.h"
#include "input/VeskInputNet.h"
#include "source_rig.h"

namespace rig {

using namespace srcrig;

inline QString media(const QString& name)
{
    static const bool made =
        QProcess::execute("bash", {NETFILE_MEDIA_SCRIPT, NETFILE_MEDIA_DIR}) == 0;
    EXPECT_TRUE(made) << "making the test media failed";
    // The graph creates nodes by class name only: naming the classes links
    // in the library that registers them.
    EXPECT_STRNE(VeskInputNet::staticMetaObject.className(),
                 VeskInputFile::staticMetaObject.className());
    return QDir(NETFILE_MEDIA_DIR).filePath(name);
}

inline bool rising(const QList<Unit>& u)
{
    return std::adjacent_find(u.begin(), u.end(),
                              [](auto& a, auto& b) { return a.pts >= b.pts; }) == u.end();
}

// Whole pictures a decoder takes without a complaint, the first a key frame,
// and every H.264 key frame with its SPS exactly once: missing, no decoder
// could start there; twice, parameter sets were put ahead of a frame that
// brought its own.
inline void expectClean(const QList<Unit>& video, const QString& codec, int frames)
{
    ASSERT_TRUE(!video.isEmpty() && video[0].frameType == 0) << "a key frame first";
    QByteArray stream;
    for (const Unit& u : video) {
        stream += u.bytes;
        const int sps = u.bytes.count(QByteArray("\0\0\1\x67", 4));
        EXPECT_TRUE(codec != "h264" || u.frameType != 0 || sps == 1) << sps << " SPS at " << u.pts;
    }
    EXPECT_EQ(pick(ffprobe(stream, codec).toVariantMap(), {"codec_name", "frames", "errors"}),
              QStringLiteral("%1 %2 ").arg(codec).arg(frames).toStdString());
}

}  // namespace rig
