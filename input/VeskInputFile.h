// Plays a media file into the graph. Setting "path" opens the file and
// starts it at once; a 5 ms timer reads one packet a tick and, with "sync",
// holds packets until the host clock has caught up with the file's time.
// At the end of the file "EOF" goes out and "path" is cleared, so that
// setting the same path again replays it.
#pragma once

#include <QByteArray>
#include <QVariant>
#include <cstdint>

#include "frame/VeskObject.h"
#include "input/VeskAvStream.h"

struct AVFormatContext;
struct AVPacket;
class QTimerEvent;

class VeskInputFile : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "EOF")
public:
    Q_INVOKABLE explicit VeskInputFile(QObject* parent = nullptr);
    ~VeskInputFile() override;

    // Milliseconds into the file; the next packets come out with times just
    // behind the last ones sent. Needs a video stream. False: no file open.
    Q_INVOKABLE QVariant seek(QVariant milliseconds);
    Q_INVOKABLE QVariant pause(QVariant paused);
    // Stream time of the last video packet, milliseconds.
    Q_INVOKABLE QVariant getPosition();
    // Duration of any file in milliseconds, 0 when it cannot be read.
    Q_INVOKABLE QVariant getDuration(QVariant path);

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onStop() override;

protected:
    void timerEvent(QTimerEvent* event) override;

private:
    void closeFile();
    void handleAudio(AVPacket* pkt);
    void handleVideo(AVPacket* pkt);
    void logLine(const QString& text) const;

    AVFormatContext* context = nullptr;
    int32_t audioIndex = -1;
    int32_t videoIndex = -1;
    int32_t timerId = -1;
    bool paused = false;
    QByteArray extradata;
    int64_t now = 0;
    int64_t startTime = -1;
    int64_t position = -1;
    int64_t firstPts = -1;
    int64_t lastPts = -1;
    int64_t seekOffset = 0;
    int64_t hostOffset = 0;

    AVPacket* packet = nullptr;
    bool syncOn = true;
    int64_t lastAudioT = 0;
    // A "path" may name anything FFmpeg opens, a stalled network URL too.
    VeskAv::Deadline deadline;
};
