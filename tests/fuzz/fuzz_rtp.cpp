// parseV and parseA on a run of packets. Input layout:
//   byte 0: bit 0 H.265 (else H.264), bits 1-2 audio type (AAC, PCMA, MP3,
//           none), bit 3 stream time untouched (else mapped), bit 4 clock 0
//   then records: flags (bit 0 audio, bit 1 strip padding, bit 2 repeat),
//   repeat count, 16-bit length, payload. With bit 2 a record is fed
//   1 + repeat times, which lets small inputs grow a fragmented unit past the
//   reassembly buffer; without it, once. (Repeating every record by its
//   count made the average input hundreds of packets, nearly all of them
//   dropped again and again.)
#include "tests/fuzz/FuzzSink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    static FuzzSink sink;
    RtspMedia& media = freshMedia(sink);
    const uint8_t mode = data[0];
    static const int audioTypes[] = {VeskObject::TypeAAC, VeskObject::TypePCMA, VeskObject::TypeMP3,
                                     0};
    media.infoV.type = mode & 1 ? VeskObject::TypeH265 : VeskObject::TypeH264;
    media.infoA.type = audioTypes[(mode >> 1) & 3];
    media.timestampMode = mode & 8 ? QStringLiteral("none") : QStringLiteral("auto");
    media.clockV = media.clockA = mode & 16 ? 0 : 90000;

    size_t at = 1;
    while (at + 4 <= size) {
        const uint8_t flags = data[at];
        const int repeat = flags & 4 ? data[at + 1] : 0;
        size_t len = size_t(data[at + 2]) << 8 | data[at + 3];
        at += 4;
        if (len > size - at) len = size - at;
        for (int i = 0; i <= repeat; ++i) {
            // Like the node: each packet in a pool buffer of its own size.
            char* buf = sink.buffer(reinterpret_cast<const char*>(data + at), int(len), 20);
            int n = int(len);
            if (flags & 2) n = rtpUnpaddedLength(buf, n);
            if (flags & 1)
                media.parseA(buf, n);
            else
                media.parseV(buf, n);
            if (sink.held > 64) sink.release();
        }
        at += len;
    }
    return 0;
}
