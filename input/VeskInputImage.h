// A JPEG file as a steady video source: decoded once by the hardware
// decoder, copied into a frame of the node's own, and sent from then on into
// a tee's processing channel at the configured rate.
#pragma once

#include <QTimer>

#include "frame/VeskHi.h"
#include "frame/VeskObject.h"
#include "frame/hi_types.h"

class VeskInputImage : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "")
public:
    Q_INVOKABLE explicit VeskInputImage(QObject* parent = nullptr);
    ~VeskInputImage() override;

    // The first decoder channel nobody uses, or -1 when all are taken.
    int requestID();

    int32_t vdecChn = -1;
    VeskTee* tee = nullptr;
    VeskTeeChn* teeChn = nullptr;
    QTimer timer{this};
    ot_video_frame_info frame{};

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onTimer();

private:
    void log(const QString& text) const;

    // The frame as the host made it: the memory every later picture has to
    // fit into, whatever size `frame` now claims.
    ot_video_frame_info made{};
};
