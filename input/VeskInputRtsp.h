// Source node with an RTSP/1.0 client of its own, light enough for the
// board's CPU: OPTIONS, DESCRIBE, SETUP per track, PLAY over one TCP
// connection, then RTP interleaved on that connection or on UDP port pairs.
// Every assembled video unit and audio frame goes to the graph on the host
// clock. A session that fails or falls silent is rebuilt 3000 ms later, for
// ever. The media half (SDP, depacketising, clock) is RtspMedia.
// With "interop" set, a session is what field cameras and servers need
// instead (VeskInputRtspInterop.cpp, RtspInterop.h); without it nothing of
// that mode runs.
#pragma once

#include <QHostAddress>
#include <QMap>
#include <QString>
#include <QTcpSocket>
#include <QTimer>
#include <QUdpSocket>
#include <cstdint>
#include <memory>

#include "frame/VeskObject.h"
#include "input/RtpMedia.h"
#include "input/RtspInterop.h"
#include "input/RtspReader.h"

class VeskInputRtsp : public VeskObject, private RtspMediaSink, private RtspReaderClient {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "ready error timeout")
public:
    using Message = QMap<QString, QString>;

    Q_INVOKABLE explicit VeskInputRtsp(QObject* parent = nullptr);
    ~VeskInputRtsp() override;

    Message newMsg(const QString& method, const QString& uri);
    void sendMsg(Message msg);
    // SETUP of one track: UDP port pair or interleaved channel pair.
    void sendSetup(const QString& control, const QUdpSocket& rtp, const QUdpSocket& rtcp,
                   const QString& channels);
    void handleMsg(Message msg);
    void init();
    static QString md5(const QString& text);

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onStop() override;
    void onTimerRetry();
    void onTimerAlive();
    void onConnected();
    void onDisconnected();
    void onReadTCP();
    void onReadUdpA();
    void onReadUdpV();
    void onReadUdpRtcpA();
    void onReadUdpRtcpV();
    void onTimerKeepAlive();
    void onTimerUdpWatch();
    void onTimerReorder();

private:
    // RtspMediaSink
    char* buffer(const char* src, int len, int headroom) override;
    void sendInfo(bool video, const VeskObject::StreamInfo& info) override;
    void sendPacket(bool video, const VeskObject::Packet& packet) override;
    int64_t now() override;
    QString logName() const override { return name(); }

    // RtspReaderClient
    uint32_t sessionStep() const override { return step; }
    void reply(const Message& msg) override { handleMsg(msg); }
    char* frameBuffer(int len) override;
    void keepAliveDue() override;
    void frame(uint8_t channel, char* buf, int len) override;
    void log(const QString& text) override;

    // What onStop does to a session; also every failure path's clean-up.
    // announce false: a session that never reported "ready" is replaced.
    void endSession(bool announce = true);
    bool bindUdp();
    void readUdp(QUdpSocket& socket, bool video);
    // The next datagram of `socket` in a pool buffer (*out), padding cut:
    // its length, or kNoMore (nothing more to read now) or kDropped (logged).
    static constexpr int kNoMore = -1, kDropped = -2;
    int takeDatagram(QUdpSocket& socket, bool video, char** out);
    void answerRtcp(QUdpSocket& socket);
    void sendReady();
    void refreshSettings();

    // The "interop" mode of a session.
    void handleInterop(const Message& msg);
    void sendInteropStep();
    void takeTrackTransport(const Message& msg, bool video);
    void failInterop(const QString& why);
    void sendTeardown();
    void readUdpInterop(QUdpSocket& socket, bool video);
    void readRtcpInterop(QUdpSocket& socket, bool video);
    void sendReports();
    void armReorder();
    void deliverUdp(bool video, char* buf, int len, bool held);

    QTcpSocket tcp;
    QUdpSocket udpA, udpRtcpA, udpV, udpRtcpV;
    QHostAddress host;
    uint16_t port = 554;
    QString user, password;
    QString url;
    int32_t cseq = 1;
    uint32_t step = 0;
    bool needAuth = false;
    QByteArray keepAlive;
    QString authScheme, authParams, nonce, realm;
    QString sdp;
    QString session;
    bool started = false;
    int32_t ssrcA = 0, ssrcV = 0;
    bool alive = false;
    QTimer timerRetry, timerAlive;

    RtspMedia media;
    RtspReader reader;
    // Where video and RTCP frames are read to: their bytes are copied on
    // (or not used at all) before the next frame starts, so a pool buffer,
    // with the host's lock taken for it, would be wasted on each. Taken on
    // the first such frame, as a UDP session never needs it.
    std::unique_ptr<char[]> frameScratch;
    // Set by start, cleared by a stop from outside; the session's own
    // failures leave it set, which is what keeps the retries going.
    bool running = false;
    // Depth of handleMsg feeding a reply to itself to skip a track.
    int reentry = 0;
    bool keepAliveBacklogLogged = false;

    // Interleaved channels of video and audio RTP: the fixed ones, or in
    // interop mode those of the SETUP replies.
    uint8_t channelV = 0, channelA = 2;

    // Interop mode, taken from "interop" when a session begins.
    bool interop = false;
    bool udpNow = false;          // the transport this session runs
    bool transportFixed = false;  // a fallback chose it; kept until a stop
    QString base, playUrl;        // Content-Base (or the URL); aggregate control
    bool getParameter = false;    // OPTIONS listed GET_PARAMETER
    int sessionTimeout = 0;
    rtspinterop::Auth auth;
    int authFailures = 0;
    rtspinterop::Transport transportV, transportA;
    rtspinterop::RtpStats statsV, statsA;
    rtspinterop::RtpReorder reorderV, reorderA;
    uint32_t ourSsrc = 0;
    bool udpSeen = false;
    QTimer timerKeepAlive, timerUdpWatch, timerReorder;
};
