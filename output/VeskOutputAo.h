// Plays one stream of 16-bit PCM packets on an audio output device of the
// board: the packets wait in the node's audio queue, which keeps a fixed
// number of them back for a steady latency, and go to the device one frame
// at a time through two frame blocks taken once for the node's life.
#pragma once

#include "frame/VeskObject.h"
#include "frame/hi_types.h"

class VeskOutputAo : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskOutputAo(QObject* parent = nullptr);

    int32_t devId = -1;
    int32_t chnId = -1;
    ot_audio_frame frame{};
    bool started = false;
    int32_t delayPackets = 0;
    int32_t busyCount = 0;
    int32_t timeoutMs = 0;
    int32_t channels = 1;

public slots:
    void onNewPacketA(VeskObject::Packet packet) override;
    void onNewInfoA(VeskObject::StreamInfo info) override;
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onStop() override;
    void doSend();

private:
    void log(const QString& text) const;
    void lockQueue();
    int packetsFor(int delayMs) const;
    // Puts the packet's samples into the frame blocks; false when they would
    // not fit.
    bool fill(const Packet& packet);

    bool blocksMapped = false;
};
