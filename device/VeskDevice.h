// The board as a whole: front-panel keys and infra-red codes as events,
// temperature, boot mode and power-off through the front-panel
// microcontroller, and the media clock set from wall time.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include "frame/VeskObject.h"

class QSocketNotifier;

class VeskDevice : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "keyPress IR")
public:
    Q_INVOKABLE explicit VeskDevice(QObject* parent = nullptr);

    QSocketNotifier* irNotifier = nullptr;
    int irFd = -1;

    // Set once the platform's clock got its base from wall time.
    static bool inited;

public slots:
    QVariant getTemperature();
    void onKeyPress(QString key, QString act);
    QVariant poweroff();
    QVariant setBootMode(QVariant mode);
    QVariant setTally(QVariant);
    QVariant enableIR();
    QVariant syncRTC();
    QVariant syncRTC2();
    void onReadIR(int fd);
    void onNewEvent(QString type, QVariant info) override;
    QVariant writeSYMC(QVariant args);
    QVariant writeOTP(QVariant);
    QVariant readOTP(QVariant);
    void onStart() override;

private:
    void log(const QString& text) const;
};
