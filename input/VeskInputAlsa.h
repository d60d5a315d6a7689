// Capture from a USB sound card through FFmpeg's "alsa" input. The card is
// named by its USB bus, id or port (see AlsaResolver), since its number
// changes from boot to boot; a card that goes away is closed within two
// seconds and opened again, maybe under another number, when it is back.
// Packets may be held back by a time added to their stamps and by a number
// of reads.
#pragma once

#include <QMap>
#include <QString>
#include <QTimer>
#include <QVariant>

#include "frame/VeskObject.h"

struct AVFormatContext;

class VeskInputAlsa : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskInputAlsa(QObject* parent = nullptr);
    ~VeskInputAlsa() override;

    bool findAlsaDev();
    QString busToPath(QString bus);
    QString idToPath(QString id);
    QString lkToPath(QString lnk);
    void init();
    void closeAlsa();

    int32_t timerId = -1;
    AVFormatContext* ctx = nullptr;
    int32_t card = -1;
    bool opened = false;
    QTimer retryTimer{this};
    int32_t delayUs = 0;
    int32_t delayPackets = 0;

public slots:
    void onStart() override;
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStop() override;
    void onTimerRetry();

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    void log(const QString& text) const;
    void trimQueue();
};
