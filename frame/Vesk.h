// Global services of the hosting process.
#pragma once

#include <QString>
#include <QVariant>
#include <QVariantMap>

namespace Vesk {
// The board description: "interfaceV" and "interfaceA", each a map from
// interface name to that interface's map. A copy the caller may change.
QVariantMap getConfig();
extern bool debug;
}  // namespace Vesk

class Json {
public:
    static QString encode(QVariant value, bool pretty);
    static QVariant decode(const QString& text);
};
