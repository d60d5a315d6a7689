// The byte side of the microcontroller line: cutting what arrives into frame
// texts, handing a frame to the slot its "Cmd" names, and a tap through which
// a monitor can watch the line without touching the driver's meta-object
// (every method there is reachable by name from the peer).
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QVariant>
#include <functional>

class McuFramer {
public:
    // A frame of several kilobytes is normal; a peer that never ends its
    // frames must not make the buffer grow for ever.
    static constexpr int kCap = 64 * 1024;

    // One block as read from the port: UTF-8 up to its first NUL, the rest
    // of the block is lost.
    void append(const QByteArray& block);
    // The next whole frame's text, from its first "{" or "[" on when there is
    // one. `raw` gets the text as it stood before that.
    bool next(QString* text, QString* raw = nullptr);
    const QString& pending() const { return buffer; }

private:
    QString buffer;
};

namespace mcu {

// Decodes one frame's text and, if `target` has a method named by its "Cmd",
// calls it by that name with the whole map, directly. When no method of that
// name takes such a map, nothing is called and nothing is said. Returns the
// decoded map (empty for text that is not a JSON object).
QVariantMap dispatch(QObject* target, const QString& text, bool* handled = nullptr);

// Events: "read" (bytes of one block), "frame" ({"raw","message","handled"}),
// "sent" (the frame text), "alive" and "timeout" (watchdog ticks),
// "dropped" (characters cut from an unending buffer).
using Observer = std::function<void(const QString& event, const QVariant& value)>;
void setObserver(Observer observer);
void observe(const QString& event, const QVariant& value);

}  // namespace mcu
