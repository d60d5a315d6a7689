// Media half of the native RTSP client: reads the SDP, depacketises RTP into
// Annex B units and maps stream time to the host clock. It knows nothing of
// sockets or of the node; whoever owns it feeds it payloads and routes what it
// produces through an RtspMediaSink.
#pragma once

#include <QString>
#include <cstdint>
#include <memory>

#include "frame/VeskObject.h"

// What the media half needs from its owner. The RTSP node implements it by
// forwarding to bufferData, sendInfoV/A, sendPacketV/A and VeskHi::getPTS.
class RtspMediaSink {
public:
    virtual ~RtspMediaSink() = default;
    // A pool buffer of len bytes with headroom free bytes in front, filled
    // from src unless src is null. May return null when the pool is dry.
    virtual char* buffer(const char* src, int len, int headroom) = 0;
    virtual void sendInfo(bool video, const VeskObject::StreamInfo& info) = 0;
    virtual void sendPacket(bool video, const VeskObject::Packet& packet) = 0;
    // Host time in microseconds, the clock that packet pts is mapped onto.
    virtual int64_t now() = 0;
    // Put in brackets at the start of log lines; empty for none.
    virtual QString logName() const { return QString(); }
};

// Bit readers over one NAL unit, most significant bit first. Bits past
// len bytes read as 0 and set *overrun, so a damaged unit can be refused
// without anything being read outside it.
uint32_t u(unsigned n, const unsigned char* data, unsigned len, unsigned& pos,
           bool* overrun = nullptr);
uint32_t Ue(const unsigned char* data, unsigned len, unsigned& pos, bool* overrun = nullptr);
int64_t Se(const unsigned char* data, unsigned len, unsigned& pos, bool* overrun = nullptr);

// Drops the 3 of every 0,0,3 in place and shortens *len to match.
void de_emulation_prevention(unsigned char* data, unsigned* len);

// Picture size from an SPS, the NAL header included. Both change data in
// place. width/height are left alone when the unit ends too early.
int h264_decode_sps(unsigned char* data, unsigned len, int& width, int& height);
int h265_decode_sps(unsigned char* data, unsigned len, int& width, int& height);

// Maps stream time s onto host time now without following every jitter:
// a 50 ms band, a jump beyond 5 s, and past ten stray packets a slew of at
// most 5 ms per packet. offset and count are the medium's own state.
int64_t mapClock(int64_t s, int64_t now, int64_t& offset, int32_t& count);

// Length of an RTP packet without its padding (the last byte counts it when
// the first has 0x20). Can come out short or negative; parseV/parseA drop
// such packets.
int rtpUnpaddedLength(const char* buf, int len);

class RtspMedia {
public:
    static constexpr int kFuBufSize = 1024000;

    explicit RtspMedia(RtspMediaSink& sink);
    RtspMedia(const RtspMedia&) = delete;
    RtspMedia& operator=(const RtspMedia&) = delete;

    // Fills the members below from a CRLF SDP and announces both streams.
    // Relative track controls are resolved against url.
    void parseSDP(const QString& sdp, const QString& url);
    // One whole RTP packet, padding removed. Changed in place; parseA keeps
    // pointing into buf, so buf must come from the sink's pool.
    void parseV(char* buf, int len);
    void parseA(char* buf, int len);
    // nal begins with a 4-byte start code; ts is the RTP timestamp field.
    void videoReady(char* nal, int len, const char* ts);
    // What a stopped session forgets; clocks, types and params survive.
    void reset();

    VeskObject::StreamInfo infoA;
    VeskObject::StreamInfo infoV;
    QString controlA, controlV;
    int32_t payloadA = 0, payloadV = 0;
    int64_t clockA = 0, clockV = 0;
    QString fmtpA, fmtpV;
    // "auto" maps stream time onto the host clock; anything else passes it.
    QString timestampMode = QStringLiteral("auto");
    // Every unit of an aggregation packet (H.264 STAP-A, H.265 AP) goes
    // out, in order; otherwise the settled walk below.
    bool interop = false;

    std::unique_ptr<char[]> fuBuf;
    int32_t fuLen = 4;
    int64_t ptsOffsetA = -1, ptsOffsetV = -1;
    int32_t driftCountA = 0, driftCountV = 0;

private:
    void singleNal(char* buf, int len);
    void aggregate(char* buf, int len);
    void aggregateAll(char* buf, int len, int first);
    void fragment(char* buf, int len, int fuHeader, int h);
    bool appendFragment(const char* src, int n);
    int64_t streamTime(const char* ts, int64_t clock) const;
    void log(const QString& text) const;

    RtspMediaSink& sink;
    // Set when a unit outgrew fuBuf: its remaining fragments are thrown away.
    bool fuDropping = false;
};
