// Base class of every node. The hosting process implements it; the library
// only derives from it, so every symbol declared here is resolved from the
// host when the library is loaded.
#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <QReadWriteLock>
#include <QString>
#include <QVariant>
#include <cstdint>

class VeskObjectPrivate;

class VeskObject : public QObject {
    Q_OBJECT
public:
    struct Packet {
        char* data = nullptr;
        int32_t len = 0;
        int64_t pts = 0;
        int64_t dts = -1;
        int32_t frameType = 0;
        int32_t reserved = 0;
    };

    struct StreamInfo {
        int32_t type = 0;
        QMap<QString, QVariant> params;
        int32_t opaque = 0;
    };

    enum Type {
        TypeFrames = 1,
        TypeRaw = 2,
        TypeFloat = 3,
        TypeH264 = 4,
        TypeH265 = 5,
        TypeMJPEG = 6,
        TypePCMA = 7,
        TypePCMU = 8,
        TypeG722 = 9,
        TypeAAC = 10,
        TypeMP2 = 11,
        TypeMPEG4 = 14,
        TypeMP3 = 15,
        TypeAC3 = 16,
        TypeOpus = 17,
    };

    explicit VeskObject(QObject* parent = nullptr);
    ~VeskObject() override;

    void setData(QMap<QString, QVariant> newData);
    void start();
    void stop();
    QVariant invoke(QString method, QVariant arg = QVariant());
    QString name() const;
    void setName(const QString& name);

    void sendEvent(QString event, QVariant value);
    void newEvent(QString event, QVariant value);
    void sendInfoA(StreamInfo info);
    void sendInfoV(StreamInfo info);
    void sendPacketA(Packet packet);
    void sendPacketV(Packet packet);
    char* bufferData(char* src, int len, int headroom);
    int bufferPacketA(Packet packet);

    QMap<QString, QVariant> data;
    StreamInfo infoA;
    StreamInfo infoV;
    // Host bookkeeping; nodes never touch it.
    VeskObjectPrivate* d = nullptr;
    StreamInfo keptInfoA;
    StreamInfo keptInfoV;
    // Taken for writing by whoever trims packetsA; bufferPacketA takes it too.
    QReadWriteLock lockA;
    QList<Packet> packetsA;
    QReadWriteLock lockV;
    QString shareName;
    int32_t shareDepth = 1;

signals:
    // Every event of the node, for the host and for listeners.
    void raised(QString name, QVariant value);

public slots:
    virtual void onNewPacketA(VeskObject::Packet packet);
    virtual void onNewPacketV(VeskObject::Packet packet);
    virtual void onUnVeskA(VeskObject::StreamInfo info);
    virtual void onUnVeskV(VeskObject::StreamInfo info);
    virtual void onNewEvent(QString event, QVariant value);
    virtual void onNewInfoA(VeskObject::StreamInfo info);
    virtual void onNewInfoV(VeskObject::StreamInfo info);
    virtual void onSetData(QMap<QString, QVariant> newData);
    virtual void onStart();
    virtual void onStop();
};

Q_DECLARE_METATYPE(VeskObject::Packet)
Q_DECLARE_METATYPE(VeskObject::StreamInfo)
