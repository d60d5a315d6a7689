#include "frame/Vesk.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QMutexLocker>
#include <cmath>

#include "host/VeskHost.h"

namespace {

QMutex configMutex;
QVariantMap boardConfig;

}  // namespace

namespace Vesk {

bool debug = false;

QVariantMap getConfig()
{
    QMutexLocker lock(&configMutex);
    return boardConfig;
}

}  // namespace Vesk

namespace VeskHost {

void setConfig(const QVariantMap& config)
{
    QMutexLocker lock(&configMutex);
    boardConfig = config;
}

QVariant fromJson(const QJsonValue& value)
{
    switch (value.type()) {
        case QJsonValue::Bool:
            return value.toBool();
        case QJsonValue::Double: {
            const double v = value.toDouble();
            double whole = 0;
            if (std::modf(v, &whole) == 0.0 && std::fabs(v) < 9007199254740992.0) {
                if (v >= -2147483648.0 && v <= 2147483647.0) return static_cast<int>(v);
                return static_cast<qlonglong>(v);
            }
            return v;
        }
        case QJsonValue::String:
            return value.toString();
        case QJsonValue::Array: {
            QVariantList list;
            for (const QJsonValue& item : value.toArray()) list << fromJson(item);
            return list;
        }
        case QJsonValue::Object: {
            QVariantMap map;
            const QJsonObject o = value.toObject();
            for (auto it = o.begin(); it != o.end(); ++it)
                map.insert(it.key(), fromJson(it.value()));
            return map;
        }
        default:
            return QVariant();
    }
}

QJsonValue toJson(const QVariant& value)
{
    const int type = value.userType();
    if (!value.isValid()) return QJsonValue();
    if (type == qMetaTypeId<VeskObject::StreamInfo>())
        return toJson(streamInfoToVariant(value.value<VeskObject::StreamInfo>()));
    if (type == qMetaTypeId<VeskObject::Packet>()) {
        const auto p = value.value<VeskObject::Packet>();
        return QJsonObject{{"len", p.len},
                           {"pts", static_cast<double>(p.pts)},
                           {"dts", static_cast<double>(p.dts)},
                           {"frameType", p.frameType}};
    }
    switch (type) {
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash: {
            QJsonObject o;
            const QVariantMap map = value.toMap();
            for (auto it = map.begin(); it != map.end(); ++it)
                o.insert(it.key(), toJson(it.value()));
            return o;
        }
        case QMetaType::QVariantList:
        case QMetaType::QStringList: {
            QJsonArray a;
            for (const QVariant& item : value.toList()) a.append(toJson(item));
            return a;
        }
        case QMetaType::Bool:
            return value.toBool();
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::Long:
        case QMetaType::ULong:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Char:
        case QMetaType::SChar:
        case QMetaType::UChar:
            return static_cast<double>(value.toLongLong());
        case QMetaType::Double:
        case QMetaType::Float:
            return value.toDouble();
        case QMetaType::QByteArray: {
            const QByteArray bytes = value.toByteArray();
            const QString text = QString::fromUtf8(bytes);
            return text.toUtf8() == bytes ? text : QString::fromLatin1(bytes.toHex());
        }
        default:
            if (value.canConvert<QString>()) return value.toString();
            return QString::fromLatin1(value.typeName());
    }
}

QString toJsonText(const QVariant& value)
{
    // QJsonDocument holds only objects and arrays: a lone value travels in
    // an array and is cut out again.
    const QByteArray text = QJsonDocument(QJsonArray{toJson(value)}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(text.mid(1, text.size() - 2));
}

QVariantMap boardFromJson(const QJsonValue& board, QStringList* notes, QString* error)
{
    if (!board.isObject()) {
        if (error) *error = QStringLiteral("board: the description is not a JSON object");
        return QVariantMap();
    }
    const QJsonObject top = board.toObject();
    QVariantMap out = fromJson(top).toMap();
    for (const QString& side : {QStringLiteral("interfaceV"), QStringLiteral("interfaceA")}) {
        if (!top.contains(side)) continue;
        const QJsonValue section = top.value(side);
        QVariantMap interfaces;
        if (!section.isObject()) {
            if (notes) *notes << QStringLiteral("board: %1 is not an object, ignored").arg(side);
            out.insert(side, interfaces);
            continue;
        }
        const QJsonObject o = section.toObject();
        for (auto it = o.begin(); it != o.end(); ++it) {
            const QString where = side + QLatin1Char('.') + it.key();
            if (!it.value().isObject()) {
                if (notes)
                    *notes << QStringLiteral("board: %1 is not an object, skipped").arg(where);
                continue;
            }
            QVariantMap entry = fromJson(it.value()).toMap();
            const QJsonValue chip = it.value().toObject().value(QStringLiteral("chip"));
            if (chip.isUndefined()) {
                if (side == QLatin1String("interfaceV") && notes)
                    *notes << QStringLiteral("board: %1 has no \"chip\": it has no signal check")
                                  .arg(where);
            } else if (!chip.isString()) {
                // Drivers are picked by comparing text; a number would never match.
                if (notes)
                    *notes << QStringLiteral("board: %1: \"chip\" is not a string, read as \"%2\"")
                                  .arg(where, entry.value(QStringLiteral("chip")).toString());
                entry.insert(QStringLiteral("chip"),
                             entry.value(QStringLiteral("chip")).toString());
            }
            interfaces.insert(it.key(), entry);
        }
        out.insert(side, interfaces);
    }
    return out;
}

}  // namespace VeskHost

QString Json::encode(QVariant value, bool pretty)
{
    const QJsonValue v = VeskHost::toJson(value);
    if (v.isObject())
        return QString::fromUtf8(
                   QJsonDocument(v.toObject())
                       .toJson(pretty ? QJsonDocument::Indented : QJsonDocument::Compact))
            .trimmed();
    if (v.isArray())
        return QString::fromUtf8(
                   QJsonDocument(v.toArray())
                       .toJson(pretty ? QJsonDocument::Indented : QJsonDocument::Compact))
            .trimmed();
    return VeskHost::toJsonText(value);
}

QVariant Json::decode(const QString& text)
{
    QJsonParseError err;
    QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8(), &err);
    if (err.error == QJsonParseError::NoError) {
        if (doc.isObject()) return VeskHost::fromJson(doc.object());
        return VeskHost::fromJson(doc.array());
    }
    // A lone value such as 3 or "text" is valid JSON too.
    doc = QJsonDocument::fromJson("[" + text.toUtf8() + "]", &err);
    if (err.error == QJsonParseError::NoError && doc.array().size() == 1)
        return VeskHost::fromJson(doc.array().first());
    return QVariant();
}
