// The interface of a board integrator's own receiver driver, and its empty
// implementation. A plug-in is a shared object built against this header
// that exports the unmangled function
//     extern "C" VeskDriverCustom* create();
// and is named on a video interface of the board description with
// "chip": "custom" and "path": the shared object's file. The library calls
// `start` once with the interface's settings, then `getState` about once a
// second from the thread of the capture node, and publishes its map as the
// interface's signal: "avalible", "width", "height", "framerate",
// "interlace", as every driver does. The plug-in is never unloaded.
#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class VeskDriverCustom : public QObject {
    Q_OBJECT
public:
    explicit VeskDriverCustom(QObject* parent = nullptr);

public slots:
    // The interface's settings from the board description. Does nothing.
    virtual void start(QMap<QString, QVariant> data);
    // The signal now. Reports "avalible" false.
    virtual QMap<QString, QVariant> getState();
};

extern "C" {
typedef VeskDriverCustom* (*VeskDriverCustomCreate)();
}
