// What the RTSP control connection delivers, cut into its units: replies,
// read line by line until PLAY is answered, and interleaved `$` frames from
// then on. It owns no socket and no node, so that it can be fed from memory
// as well as from the connection; the RTSP node drives it from readyRead.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <cstdint>

// The bytes the reader pulls from, in the order they arrived.
class RtspByteSource {
public:
    virtual ~RtspByteSource() = default;
    virtual bool connected() const = 0;
    virtual int64_t available() const = 0;
    virtual bool canReadLine() const = 0;
    // At most max bytes, up to and including the next '\n' if it comes first.
    virtual QByteArray readLine(int64_t max) = 0;
    virtual int64_t read(char* to, int64_t max) = 0;
    virtual QByteArray readAll() = 0;
};

// The session behind the reader.
class RtspReaderClient {
public:
    virtual ~RtspReaderClient() = default;
    // Replies are read while this is at most 4, frames when it is 5.
    virtual uint32_t sessionStep() const = 0;
    // One whole reply; may end the session, which resets the reader.
    virtual void reply(const QMap<QString, QString>& msg) = 0;
    // Where a frame of len bytes is read to; null drops the frame.
    virtual char* frameBuffer(int len) = 0;
    // A frame on channel 3 (audio RTCP) began: the server wants a sign of life.
    virtual void keepAliveDue() = 0;
    // A whole frame, its RTP padding already taken off. buf is null for a
    // frame that arrived whole but could not be kept.
    virtual void frame(uint8_t channel, char* buf, int len) = 0;
    virtual void log(const QString& text) = 0;
};

class RtspReader {
public:
    enum Result {
        Done,      // everything that could be read was read
        BadFrame,  // a frame header without its '$'; the bytes stay unread
    };

    // A reply line or reply longer than this has no end in sight: it is
    // dropped instead of being held.
    static constexpr int kMaxLine = 64 * 1024;
    static constexpr int kMaxReply = 256 * 1024;
    // Interop mode: the largest body that is waited for and kept.
    static constexpr int kMaxBody = 256 * 1024;

    explicit RtspReader(RtspReaderClient& client) : client(client) {}

    Result read(RtspByteSource& in);
    // A new connection: the partial frame goes. The reply being read and
    // the frame header are deliberately kept: both outlive the session.
    void reset();

    QMap<QString, QString> msg;
    // A fixed array: a QByteArray here was freed and grown again per frame.
    char frameHeader[4] = {};
    int frameHeaderLen = 0;
    int32_t remaining = 0;
    char* frameBuf = nullptr;
    int32_t frameLen = 0;
    uint8_t frameChannel = 0;
    // Interop mode: a status line keeps its reason phrase, a header its
    // colons, header names are matched without regard to case, a body is
    // read as far as "Content-Length" says, across segments, and a reply in
    // the middle of the frames (to a keep-alive) is read as one.
    bool interop = false;

private:
    void readReplies(RtspByteSource& in);
    void takeLine(RtspByteSource& in, const QByteArray& line);
    Result readFrames(RtspByteSource& in);
    void finishFrame();
    void takeInteropLine(const QByteArray& line);
    void endOfHeaders();
    void deliver();
    // A frame header that is not one: a reply, or bytes to step over.
    bool strayHeader();

    RtspReaderClient& client;
    // Bytes of header lines in the reply being read.
    int replyBytes = 0;
    // The tail of an over-long line is still to be thrown away.
    bool skippingLine = false;
    // The current frame had no buffer: its bytes are read and discarded.
    bool discarding = false;
    // Interop mode: body bytes still to come, and those to throw away of a
    // body over kMaxBody; a reply begun in frame mode; its first bytes,
    // already taken as a frame header.
    int64_t bodyNeed = 0;
    int64_t bodySkip = 0;
    QByteArray body;
    bool inMessage = false;
    QByteArray carry;
    bool resyncLogged = false;
};
