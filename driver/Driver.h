// Registry from interface name to chip driver. All state is static; capture
// nodes reach their driver only through these operations and a name.
#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class DriverBase;

class Driver : public QObject {
    Q_OBJECT
public:
    Driver();

    static void initV();
    static void initA();
    // What initV and initA do once, for the board description given: the
    // drivers of its "interfaceV" (shared into the audio map where the audio
    // entry has a chip) or of its "interfaceA".
    static void buildV(const QVariantMap& config);
    static void buildA(const QVariantMap& config);
    static QMap<QString, QVariant> getInfoV(QString name);
    static QMap<QString, QVariant> getInfoA(QString name);
    static int getSamplerate(QString name);
    static QMap<QString, QVariant> getDiagnosticsV(QString name);
    static QMap<QString, QVariant> getDiagnosticsA(QString name);
    static QVariant callFuncV(QString name, QString func, QVariant arg);
    static QVariant callFuncA(QString name, QString func, QVariant arg);
    static bool setDataV(QString name, QMap<QString, QVariant> map);
    static bool setDataA(QString name, QMap<QString, QVariant> map);

    static QMap<QString, DriverBase*> driverMapV;
    static QMap<QString, DriverBase*> driverMapA;

    // Chip word to driver; "video" and "audio" use the tables of their side.
    static DriverBase* createV(const QString& chip);
    static DriverBase* createA(const QString& chip);
};
