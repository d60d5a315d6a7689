// Board video capture: one input of the SoC's video input unit behind a
// receiver chip, offered to the graph through a tee. Once a second the node
// asks the chip's driver what the input looks like and rebuilds the unit when
// that changed; while there is no signal the unit shows the stored no-signal
// picture instead, so downstream keeps its frames and its tee.
#pragma once

#include <QMap>
#include <QString>
#include <QTimer>
#include <QVariant>

#include "frame/VeskHi.h"
#include "frame/VeskObject.h"
#include "frame/hi_types.h"

class VeskInputVi : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "signal")
public:
    Q_INVOKABLE explicit VeskInputVi(QObject* parent = nullptr);
    ~VeskInputVi() override;

    bool initVi(int dev, bool interleaved);
    bool initChn(int chn, int width, int height, int srcFramerate, int dstFramerate,
                 bool interlace);
    void setMask(int dev, ot_vi_dev_attr* attr);
    int initMipi(int dev);
    void initPic();

    // ["function", argument] to the interface's driver.
    Q_INVOKABLE QVariant callFunc(QVariant arg);
    Q_INVOKABLE QVariant getReport();
    Q_INVOKABLE QVariant test();

    QTimer timer{this};
    int32_t dev = -1;
    int32_t chn = -1;
    int32_t devPair = 0;
    VeskTee* tee = nullptr;
    QMap<QString, QVariant> info;

    // One picture serves the whole input unit: the first node that loads it
    // settles it for every node of the process.
    static bool picInited;
    // The MIPI lane split is one setting of the whole receiver block, made
    // by the first node that brings up a MIPI or LVDS input.
    static bool mipiHsModeSet;

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onTimer();

private:
    void log(const QString& text) const;
    bool readPicture(const QString& path, const ot_video_frame& frame);
};
