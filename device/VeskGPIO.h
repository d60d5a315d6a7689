// The board's GPIO lines by name ("GPIO1_0": group 1, pin 0). Levels are set
// and read through sysfs; watched lines come through the GPIO character
// device, whose kernel time stamps drive the debounce and the click.
#pragma once

#include <QList>
#include <QMap>
#include <QString>

#include "frame/VeskObject.h"

// One accepted edge of a watched line.
struct gpio_state {
    bool value = false;  // level after the edge: true for rising
    int time = 0;        // kernel time stamp in ms, low 32 bits
};
Q_DECLARE_METATYPE(gpio_state)

class VeskGPIO : public VeskObject {
    Q_OBJECT
    // Every event name this class passes to sendEvent or newEvent, for
    // `veskhost inspect`; a test holds it to the source.
    Q_CLASSINFO("events", "up down click")
public:
    Q_INVOKABLE explicit VeskGPIO(QObject* parent = nullptr);

    // Watches a line; true once its events flow, false when it is already
    // watched or cannot be.
    Q_INVOKABLE QVariant registEvent(QVariant info);
    // [name, level]; false unless given exactly two entries.
    Q_INVOKABLE QVariant setGPIO(QVariant info);
    // The line's level; reading turns the line into an input.
    Q_INVOKABLE QVariant getGPIO(QVariant info);

    QMap<int, gpio_state> states;  // last accepted edge, per event descriptor
    QMap<int, QString> names;      // line name as the caller gave it, per event descriptor
    QList<QString> registered;     // lower-case names of the watched lines

public slots:
    void onSetData(QMap<QString, QVariant> newData) override;
    void onStart() override;
    void onRead(int fd);
    void onGPIO(int fd, gpio_state state);

private:
    // group * 8 + pin, each part 0 where it does not parse; false (logged)
    // for a name whose number would not fit an int.
    bool sysfsNumber(const QString& line, int* number) const;
    void log(const QString& text) const;
};
