// The front-panel microcontroller on its serial line: JSON objects ended by
// "#####". The line exists once for the process and belongs to the first
// instance whose init runs; every instance (one per board interface)
// publishes the status the microcontroller reports for its own input.
#pragma once

#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QVariant>

#include "driver/DriverBase.h"
#include "driver/mcu/McuLine.h"

class QSerialPort;
class QTimer;

class DriverVesk : public DriverBase {
    Q_OBJECT
public:
    explicit DriverVesk(QObject* parent = nullptr);

    // Connects keyPress to the slot onKeyPress(QString, QString) of `dev`.
    void registDev(QObject* dev);

    static QSerialPort* com;
    static DriverVesk* instance;
    static QMutex mutex;
    static QMap<QString, QVariant> infoMap;
    static QTimer* timer;
    static bool alive;
    static int tempVal;

    // Wanted power-on mode; written by the device node, empty until then.
    QString bootMode;
    QList<int> rates, widths, heights;

signals:
    void keyPress(QString key, QString act);

public slots:
    void init() override;
    void onCheck() override;
    void sendCmd(QMap<QString, QVariant> cmd);
    void onRead();
    void onTimer();

    // One slot per message "Cmd"; found by name when a frame arrives.
    void res_info(QVariantMap msg);
    void debug(QVariantMap msg);
    void temp(QVariantMap msg);
    void key(QVariantMap msg);
    void cfg_info(QVariantMap msg);
    void Version(QVariantMap msg);

private:
    // Plain methods only: anything in the meta-object can be called by name
    // from the line.
    static bool setLine();
    void reopen();
    void writeLine(const QByteArray& bytes);

    McuFramer received;
};
