// Host-side services around the node contract: the board description behind
// Vesk::getConfig, wiring between nodes, observation of what nodes announce,
// and the bookkeeping a test or a tool may want to read back.
#pragma once

#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>
#include <functional>

#include "frame/VeskHi.h"
#include "frame/VeskObject.h"

namespace VeskHost {

enum LinkKind { LinkA = 1, LinkV = 2, LinkEvent = 4, LinkAll = 7 };

// Registers the value types that cross threads in queued calls.
void registerMetaTypes();

// What Vesk::getConfig hands out from now on.
void setConfig(const QVariantMap& config);

// Wiring. Linking replays the stream that `from` announced last, so a node
// linked after its upstream started still learns the stream. Unlinking
// tells the downstream through onUnVeskA/onUnVeskV.
void link(VeskObject* from, VeskObject* to, int kinds);
void unlink(VeskObject* from, VeskObject* to, int kinds);
// Removes every link of the node, without notifying anyone.
void detach(VeskObject* node);
QList<VeskObject*> downstream(VeskObject* node, LinkKind kind);

// Called in the node's thread for every stream it announces, as the events
// "infoA" and "infoV" with streamInfoToVariant as value. An empty function
// removes the observer.
using Monitor = std::function<void(const QString& event, const QVariant& value)>;
void setMonitor(VeskObject* node, Monitor monitor);

// How many packets may wait for delivery to the node in one direction
// before further ones are dropped (see the delivery code for the reasoning).
int queueLimit(const VeskObject* node);
quint64 droppedPackets(const VeskObject* node, LinkKind kind);
int pendingPackets(const VeskObject* node, LinkKind kind);

QVariantMap streamInfoToVariant(const VeskObject::StreamInfo& info);

// The pairs bound through VeskHi::bind and VeskHi::bindFromTee, one entry
// a pair, oldest first.
struct Binding {
    ot_mpp_chn src{0, 0, 0};
    ot_mpp_chn dst{0, 0, 0};
    int teeId = 0;      // the tee whose channel (or whole) the pair goes with; 0: none
    int chnIndex = -1;  // that channel; -1: the tee itself
};
QList<Binding> bindings();
void clearBindings();

// JSON to QVariant with whole numbers turned into integers, so that values
// read from files compare and convert like the defaults nodes set.
QVariant fromJson(const QJsonValue& value);
// QVariant to JSON for any value a node may put into an event or a stream
// description; what JSON cannot express is written as text.
QJsonValue toJson(const QVariant& value);
QString toJsonText(const QVariant& value);

// Checks a board description read from JSON and returns the part that can
// be used. Problems with single entries go to `notes` and the entry is
// skipped; a description that is not an object at all fails with `error`.
QVariantMap boardFromJson(const QJsonValue& board, QStringList* notes, QString* error);

}  // namespace VeskHost
