// parseSDP on arbitrary text, twice on one object so that what the first SDP
// left behind meets the second.
#include <QString>

#include "tests/fuzz/FuzzSink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FuzzSink sink;
    RtspMedia& media = freshMedia(sink);
    const QString sdp = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    media.parseSDP(sdp, QStringLiteral("rtsp://127.0.0.1:554/live"));
    media.parseSDP(sdp.mid(int(size / 2)), QStringLiteral("rtsp://127.0.0.1:554/live"));
    return 0;
}
