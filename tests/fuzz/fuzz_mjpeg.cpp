// The USB camera's MJPEG handover: frames of one opening, each in a buffer
// with exactly the headroom the node asks for, through the table scan and
// the table put ahead of a frame.
// Input: one byte for the state the opening starts in (-1, 0 or 1), then
// frames as a 16-bit length (most significant byte first) and that many bytes.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "input/VeskInputV4l2.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    int32_t hasDHT = int32_t(data[0] % 3) - 1;
    const int32_t first = hasDHT;
    size_t at = 1;
    while (at + 2 <= size) {
        size_t len = size_t(data[at]) << 8 | data[at + 1];
        at += 2;
        if (len > size - at) len = size - at;
        // Exactly sized, so that a read or write past either end shows.
        std::unique_ptr<char[]> block(new char[v4l2frame::kDhtHeadroom + len + 1]);
        char* frame = block.get() + v4l2frame::kDhtHeadroom;
        if (len) std::memcpy(frame, data + at, len);
        at += len;

        const int32_t before = hasDHT;
        int32_t outLen = int32_t(len);
        char* out = v4l2frame::mjpegUnit(frame, &outLen, &hasDHT);
        if (hasDHT != 0 && hasDHT != 1) std::abort();
        if (before != -1 && hasDHT != before) std::abort();  // settled once an opening
        if (before == -1 && first == -1 &&
            hasDHT != int32_t(v4l2frame::findDHT(reinterpret_cast<unsigned char*>(frame), len)))
            std::abort();
        if (hasDHT == 1 && (out != frame || outLen != int32_t(len))) std::abort();
        if (hasDHT == 0) {
            if (out != block.get() || outLen != int32_t(len) + v4l2frame::kDhtHeadroom)
                std::abort();
            if (std::memcmp(out, myDHT, sizeof myDHT) != 0) std::abort();
            if (len && std::memcmp(out + sizeof myDHT, data + at - len, len) != 0) std::abort();
        }
    }
    return 0;
}
