// A USB camera of the virtual board: a Video4Linux2 capture device at
// "/dev/NAME" ("video0" is on every fresh board) with memory-mapped buffers,
// pan/tilt/zoom controls and a vendor extension unit of mode settings.
//
// Timing: from VIDIOC_STREAMON on, a frame is due every 1/rate seconds. The
// descriptor polls readable while a frame is due and a buffer is queued;
// VIDIOC_DQBUF on the (blocking) descriptor waits for the next one otherwise.
// A frame that finds no queued buffer is lost, as on the wire.
//
// Pictures: a test pattern (colour bars over a bar that moves one step a
// frame) or the first frames of a video file, made once per size and cycled.
// Every MJPEG frame carries a comment "frame N" (N its sequence number, from
// 0 at STREAMON) just ahead of its scan, so a test can tell frames apart.
//
// Scenario steps, each with "camera": NAME (a new name plugs a new camera):
//   "plug": BOOL         false: the device node vanishes and every open
//                        descriptor fails with ENODEV; true: back again
//   "format": TEXT       what the camera offers alone: "mjpeg", "mjpeg-nodht"
//                        (MJPEG without Huffman tables), "h264", "yuyv";
//                        "all" (the default) offers MJPEG, H.264 and YUYV
//   "source": TEXT       "testsrc" or a video file (a board path or not)
//   "buffers": N         at most N buffers granted (default 8)
//   "rates": [FPS, ...]  frame rates the camera knows (default 30, 25, 15,
//                        10, 5); it runs at the fastest not above the asked
//   "dhtAt": N           MJPEG tables start at byte N of each frame (a
//                        comment pads the gap); -1 leaves them where the
//                        encoder put them
//   "fail": NAME | [...] these requests fail with EIO from now on ("open",
//                        "mmap", or a request name: "VIDIOC_S_FMT", ...;
//                        empty: none)
//   "fault": TEXT        the next "count" (default 1) frames come out wrong:
//                        "badIndex" (an index past the buffers, no buffer
//                        taken), "empty" (0 bytes used), "oversize" (more
//                        bytes used than the buffer holds)
//   "extension": BOOL    whether the extension unit answers (default true)
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <cstdint>
#include <memory>

#include "sim/VirtualBoard.h"

namespace vsim {

class UsbCamera : public Device {
public:
    UsbCamera();
    ~UsbCamera() override;

    // The camera of that name ("video0"), null if the board has none.
    static std::shared_ptr<UsbCamera> find(const QString& name);

    int makeFd() override;
    uint64_t cookieFor(int fd) override;
    void release(uint64_t cookie) override;
    long ioctl(uint64_t& cookie, unsigned long request, void* arg, unsigned long iarg) override;
    void* mmap(uint64_t& cookie, void* addr, size_t len, int prot, int flags,
               off_t offset) override;

    bool applyStep(const QVariantMap& step, QString* error);

    // What the camera was asked and what it holds, for tests.
    int control(uint32_t id) const;
    void setControl(uint32_t id, int value);
    QByteArray extension(uint8_t selector) const;
    void setExtension(uint8_t selector, const QByteArray& bytes);
    // Every request by name, in order, but for the per-frame QBUF/DQBUF.
    QStringList requests() const;
    quint64 framesDelivered() const;
    bool streaming() const;
    bool plugged() const;

    struct Impl;

private:
    std::unique_ptr<Impl> d;
};

}  // namespace vsim
