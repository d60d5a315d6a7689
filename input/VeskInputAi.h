// Board audio capture: one channel (or a pair of mono channels) of the SoC's
// audio input unit, behind a codec or an HDMI receiver, turned into PCM
// packets. While the unit delivers nothing the node sends silence, so the
// graph never sees a gap; it follows the rate the receiver reports, and may
// hold the stream back by a time or a number of packets.
#pragma once

#include <QMap>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>
#include <QVariant>

#include "frame/VeskObject.h"

class VeskInputAi : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskInputAi(QObject* parent = nullptr);

    void initAi();
    // A map of settings to the interface's driver; true when it has one.
    Q_INVOKABLE QVariant setDrvData(QVariant data);

    QSocketNotifier* notifier = nullptr;
    QTimer timer{this};
    QTimer timerAlive{this};
    bool gotFrame = true;
    int64_t silenceStart = 0;
    int64_t silenceSent = 0;
    char* silenceBuf = nullptr;
    int32_t dev = -1;
    int32_t chn = -1;
    int32_t chn2 = -1;
    int32_t delayUs = 0;
    int32_t delayPackets = 0;
    int32_t track = 0;
    uint32_t lastSeq = 0;

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onRead(int);
    void onTimer();
    void onTimerAlive();

private:
    void log(const QString& text) const;
    bool timerConnected = false;
    bool aliveConnected = false;
};
