// Drives one video output of the board (HDMI or DVI, VGA, CVBS, BT.1120,
// BT.656, MIPI): picks a timing from the text of "output", brings up the
// display device, its video layer and channel, the HDMI transmitter, the
// graphics plane and the write-back, and binds the channel to the tee an
// upstream node announces. Frames never pass through the node itself.
//
// Every configuration change tears the device down and builds all of it
// again; only a change of "type" or "output" also restarts the transmitter,
// which the sink sees as a new connection.
#pragma once

#include <QList>
#include <QTimer>

#include "frame/VeskHi.h"
#include "frame/VeskObject.h"

class VeskOutputVo : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskOutputVo(QObject* parent = nullptr);

    // One row of the timing table.
    struct MyInf {
        int32_t width;
        int32_t height;
        int32_t framerate;
        bool interlaced;
        int32_t intfSync;    // timing code of the display device
        int32_t hdmiFormat;  // video format code of the transmitter
    };

    QList<MyInf> modes;
    int32_t teeId = -1;
    VeskTee* wbcTee = nullptr;
    VeskTeeChn* teeChn = nullptr;
    int32_t width = -1;
    int32_t height = -1;
    int32_t framerate = 0;
    bool interlaced = false;
    int32_t vid = -1;  // -1 while the device is down
    bool hdmiStarted = false;
    MyInf info{};
    QTimer timer;

    // The very first start in the process brings the display up twice,
    // whichever instance gets there first.
    static bool firstRun;

    MyInf findInf(QString name);
    void initFB(int width, int height, int devId);
    void initMipi();
    void startHDMI();

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onStop() override;
    void onNewInfoV(VeskObject::StreamInfo info) override;
    QVariant show();
    QVariant hide();
    void onTimer();
    QVariant saveEDID(QVariant path);

private:
    void log(const QString& text) const;
    int layerId() const;
    // Sizes the tee channel to the part of the output it fills, in the
    // orientation before the display channel rotates it.
    void resizeTeeChn();
    bool setUpWbc();
    void forgetDeadChn();
};
