// Source node for anything FFmpeg opens: RTMP, HTTP, HLS, UDP/TS, RTSP.
// One packet is read per zero-length timer event; a timer shared by all
// instances, in a thread of its own, counts seconds without data so that a
// read blocked inside FFmpeg can be broken off. A dead stream is reopened
// every 3000 ms, for ever.
#pragma once

#include <QByteArray>
#include <QTimer>
#include <QVariant>
#include <atomic>
#include <cstdint>

#include "frame/VeskObject.h"
#include "input/VeskAvUtil.h"

struct AVFormatContext;
struct AVPacket;
class QThread;
class QTimerEvent;

class VeskInputNet : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "ready error timeout")
public:
    Q_INVOKABLE explicit VeskInputNet(QObject* parent = nullptr);
    ~VeskInputNet() override;

    // Bytes per second read since the previous call; 0 when that call is
    // more than 10 s ago.
    Q_INVOKABLE QVariant getSpeed();

    bool init();
    void closeNet();
    // FFmpeg's interrupt callback; `opaque` is the node. Breaks off a call
    // once the stream has been silent for longer than "timeout".
    static int interrupt_cb(void* opaque);

    static QThread* timerThread;
    static QTimer* timerTimeout;

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onStop() override;
    void reconnect();
    void onTimerTimeout();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    void readPacket();
    void handleAudio(AVPacket* pkt);
    void handleVideo(AVPacket* pkt);
    void refreshSettings();
    void logLine(const QString& text) const;

    QTimer timerRetry;
    int32_t timerId = -1;
    std::atomic<bool> gotData{false};
    std::atomic<int32_t> silentTicks{0};
    int32_t audioIndex = -1;
    int32_t videoIndex = -1;
    bool needKey = true;
    QByteArray extradata;
    int64_t now = 0;
    int32_t lengthPrefixed = 0;
    AVFormatContext* context = nullptr;
    int64_t byteCount = 0;
    int64_t lastSpeedTime = 0;
    std::atomic<int32_t> timeoutSeconds{10};
    bool driftControl = true;
    int32_t timestampMode = 0;

    // Offsets, drop and drift counters live in the clock mapping.
    VeskAv::NetClock clock;
    bool running = false;
    AVPacket* packet = nullptr;
    // Settings read on every packet, refreshed whenever `data` changes.
    bool syncOn = false;
    bool skipError = true;
    int64_t lastVideoP = 0;
    bool paceWarned = false;
};
