// Plays 16-bit PCM packets on a USB sound card through ALSA. The card is
// found as the capture node finds it (AlsaResolver); a card that takes only
// 24 bits in three bytes gets the samples widened. Any failed write opens
// the device anew, and a card that went away is opened again when it is
// back, maybe under another number.
#pragma once

#include <QMap>
#include <QString>
#include <QTimer>
#include <QVariant>
#include <vector>

#include "frame/VeskObject.h"

typedef struct _snd_pcm snd_pcm_t;

class VeskOutputAlsa : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskOutputAlsa(QObject* parent = nullptr);
    ~VeskOutputAlsa() override;

    bool findAlsaDev();
    QString busToPath(QString bus);
    QString idToPath(QString id);
    QString lkToPath(QString lnk);
    void init();
    void closeAlsa();

    snd_pcm_t* handle = nullptr;
    int32_t rate = 0;
    int32_t channels = 0;
    int32_t periodFrames = 0;
    std::vector<char> buffer;
    bool packed24 = false;
    int32_t delayPackets = 0;
    bool opened = false;
    int32_t card = -1;
    QTimer retryTimer{this};

public slots:
    void onStart() override;
    void onStop() override;
    void onSetData(QMap<QString, QVariant> newData) override;
    void onNewInfoA(VeskObject::StreamInfo info) override;
    void onNewPacketA(VeskObject::Packet packet) override;
    void doSend();
    void onTimerRetry();

private:
    void log(const QString& text) const;
    // Channels the device was set up with; a later announcement may differ.
    int32_t deviceChannels = 0;
    bool clampWarned = false;
};
