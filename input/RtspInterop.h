// What the RTSP node's "interop" mode reads from a server and keeps for it:
// the Transport answer, challenges and their answers, track URLs against a
// base, RTCP reports both ways and the UDP packets put back in order. Plain
// values and functions on text and bytes, so that each can be fed from
// memory as well as from the session.
#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <cstdint>
#include <cstring>

namespace rtspinterop {

// The parts of a SETUP reply's "Transport" the session goes on with.
struct Transport {
    bool interleaved = false;
    int channel[2] = {-1, -1};        // interleaved=a-b
    uint16_t serverPort[2] = {0, 0};  // server_port=a-b
    bool hasSsrc = false;
    uint32_t ssrc = 0;
};
Transport parseTransport(const QString& value);

// "id;timeout=N": the id, and N in seconds (0 when not given).
QString sessionId(const QString& value, int* timeoutSeconds);

// One challenge of a "WWW-Authenticate" header: the scheme and its
// parameters, names lower-cased, quotes and escapes gone.
struct Challenge {
    QString scheme;
    QMap<QString, QString> params;
};
// Every challenge of the given header values ('\n' between headers; one
// header may also hold several challenges, separated by commas).
QList<Challenge> parseChallenges(const QString& headers);

// Authorization for a session: Digest (MD5, MD5-sess, qop "auth" with
// cnonce and nc) when offered, else Basic.
class Auth {
public:
    // Takes the server's challenges; false when none can be answered.
    // *stale is set when the server only renewed its nonce.
    bool challenge(const QString& headers, bool* stale);
    bool active() const { return scheme != None; }
    // The value of "Authorization" for one request.
    QString header(const QString& method, const QString& uri, const QString& user,
                   const QString& password);
    void reset() { *this = Auth(); }

private:
    enum Scheme { None, Basic, Digest } scheme = None;
    QString realm, nonce, opaque, algorithm;
    bool qopAuth = false;
    uint32_t nc = 0;
    QString cnonce;
};

// The track URL of an SDP control: an absolute one as given, "*" or none
// as the base, one from "/" on against the base's host, any other one
// appended to the base behind a "/" (a base's query stays where it is,
// which is what devices that send such a base expect).
QString resolveControl(const QString& control, const QString& base);

// The "a=control:" values of an SDP: the session's, and those of the first
// video and the first audio section. Absent ones are null strings.
struct SdpControls {
    QString session, video, audio;
    bool hasVideo = false, hasAudio = false;
};
SdpControls sdpControls(const QString& sdp);

// Reception figures of one RTP track, and the receiver report made of them.
class RtpStats {
public:
    void packet(const char* buf, int len, int64_t nowUs, int64_t clock);
    // Takes the sender reports of a compound RTCP packet.
    void rtcp(const char* buf, int len, int64_t nowUs);
    // A receiver report and a source description, as one compound packet.
    QByteArray report(uint32_t ourSsrc, const QByteArray& cname, int64_t nowUs);
    bool seen() const { return started; }

private:
    bool started = false;
    uint32_t ssrc = 0;
    uint16_t maxSeq = 0;
    uint32_t cycles = 0, baseSeq = 0, received = 0;
    uint32_t expectedPrior = 0, receivedPrior = 0;
    double jitter = 0;
    bool hasTransit = false;
    int64_t transit = 0;
    uint32_t lsr = 0;
    int64_t lsrAt = 0;
};

// UDP packets back in sequence order within kWindow packets or kHoldUs,
// duplicates dropped. A packet that comes in order leaves at once and in
// place; only those that overtook a gap are copied, into ring of their own.
class RtpReorder {
public:
    static constexpr int kWindow = 64;
    static constexpr int64_t kHoldUs = 100000;

    // deliver(char* buf, int len, bool held): held packets point into this
    // object and must be copied before anything else is pushed.
    template <class F>
    void push(char* buf, int len, int64_t nowUs, F&& deliver);
    // Gives up on gaps older than kHoldUs.
    template <class F>
    void expire(int64_t nowUs, F&& deliver);
    // Microseconds until expire has something to do; -1 when nothing waits.
    int64_t due(int64_t nowUs) const;
    void reset();
    uint32_t dropped = 0;  // duplicates and packets behind the window

private:
    struct Slot {
        bool used = false;
        uint16_t seq = 0;
        int64_t at = 0;
        QByteArray bytes;
    };
    template <class F>
    void drain(F& deliver);
    template <class F>
    void skipGap(F& deliver);
    static uint16_t seqOf(const char* buf)
    {
        return uint16_t(uint8_t(buf[2]) << 8 | uint8_t(buf[3]));
    }

    Slot ring[kWindow];
    int count = 0;
    bool started = false;
    uint16_t next = 0;
};

template <class F>
void RtpReorder::drain(F& deliver)
{
    for (Slot* s = &ring[next % kWindow]; s->used && s->seq == next; s = &ring[next % kWindow]) {
        s->used = false;
        --count;
        ++next;
        deliver(s->bytes.data(), int(s->bytes.size()), true);
    }
}

// The nearest held packet becomes the next one: what lies before it is lost.
template <class F>
void RtpReorder::skipGap(F& deliver)
{
    int best = kWindow;
    for (const Slot& s : ring)
        if (s.used) best = qMin(best, int(uint16_t(s.seq - next)));
    if (best == kWindow) return;
    next = uint16_t(next + best);
    drain(deliver);
}

template <class F>
void RtpReorder::push(char* buf, int len, int64_t nowUs, F&& deliver)
{
    if (len < 12) {
        deliver(buf, len, false);
        return;
    }
    const uint16_t seq = seqOf(buf);
    if (!started) {
        started = true;
        next = uint16_t(seq + 1);
        deliver(buf, len, false);
        return;
    }
    const int d = int16_t(uint16_t(seq - next));
    if (d == 0) {
        ++next;
        deliver(buf, len, false);
        drain(deliver);
    } else if (d < 0 && d > -kWindow) {
        ++dropped;  // a duplicate, or later than its turn
    } else if (d < 0 || d >= kWindow) {
        // A jump no window covers (a restarted sender): what waits goes
        // first, then the stream goes on from here.
        while (count > 0) skipGap(deliver);
        next = uint16_t(seq + 1);
        deliver(buf, len, false);
    } else {
        Slot& s = ring[seq % kWindow];
        if (s.used) {
            ++dropped;
        } else {
            s.used = true;
            s.seq = seq;
            s.at = nowUs;
            s.bytes = QByteArray(buf, len);
            ++count;
        }
    }
    expire(nowUs, deliver);
}

template <class F>
void RtpReorder::expire(int64_t nowUs, F&& deliver)
{
    while (count > 0) {
        int64_t oldest = INT64_MAX;
        for (const Slot& s : ring)
            if (s.used) oldest = qMin(oldest, s.at);
        if (nowUs - oldest < kHoldUs) return;
        skipGap(deliver);
    }
}

}  // namespace rtspinterop
