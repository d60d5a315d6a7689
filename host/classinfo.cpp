#include "host/classinfo.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>
#include <QMetaType>
#include <cstdio>
#include <memory>

#include "frame/VeskObject.h"
#include "host/VeskGraph.h"
#include "host/VeskHost.h"
#include "host/usage.h"

namespace {

void out(const QString& text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

QJsonObject methodJson(const QMetaMethod& m)
{
    QJsonArray args;
    const QList<QByteArray> types = m.parameterTypes();
    const QList<QByteArray> names = m.parameterNames();
    for (int i = 0; i < types.size(); ++i)
        args.append(QJsonObject{{"type", QString::fromLatin1(types[i])},
                                {"name", QString::fromLatin1(names.value(i))}});
    return {{"name", QString::fromLatin1(m.name())},
            {"kind", m.methodType() == QMetaMethod::Slot ? "slot" : "invokable"},
            {"returns", QString::fromLatin1(m.typeName())},
            {"arguments", args}};
}

// The class as the host sees it: its meta-object for methods and events, a
// node made by the invokable constructor, as the host makes one, for `data`
// and the sharing members. The node is never started.
bool describe(const QString& className, QJsonObject* result, QString* why)
{
    const int id = QMetaType::type(className.toLatin1() + '*');
    const QMetaObject* mo = id ? QMetaType::metaObjectForType(id) : nullptr;
    if (!mo || !mo->inherits(&VeskObject::staticMetaObject) || mo->constructorCount() == 0) {
        *why = QStringLiteral("no node class \"%1\" (veskhost inspect lists them)").arg(className);
        return false;
    }
    std::unique_ptr<QObject> made(mo->newInstance(Q_ARG(QObject*, nullptr)));
    auto* node = qobject_cast<VeskObject*>(made.get());
    if (!node) {
        *why = QStringLiteral("%1: its constructor made nothing").arg(className);
        return false;
    }

    QJsonObject data;
    for (auto it = node->data.constBegin(); it != node->data.constEnd(); ++it)
        data.insert(it.key(), QJsonObject{{"type", QString::fromLatin1(it.value().typeName())},
                                          {"default", VeskHost::toJson(it.value())}});

    // What the class adds to VeskObject: the base's hooks are every node's.
    QJsonArray methods;
    for (int i = VeskObject::staticMetaObject.methodCount(); i < mo->methodCount(); ++i) {
        const QMetaMethod m = mo->method(i);
        // A default argument gives moc a shortened copy of the same method.
        if (m.attributes() & QMetaMethod::Cloned) continue;
        if (m.methodType() == QMetaMethod::Method || m.methodType() == QMetaMethod::Slot)
            methods.append(methodJson(m));
    }

    const int info = mo->indexOfClassInfo("events");
    QJsonValue events = QJsonValue::Null;
    if (info >= 0) {
        QJsonArray list;
        for (const QString& e : QString::fromLatin1(mo->classInfo(info).value())
                                    .split(QLatin1Char(' '), Qt::SkipEmptyParts))
            list.append(e);
        events = list;
    }

    *result = QJsonObject{
        {"class", className}, {"shareName", node->shareName}, {"shareDepth", node->shareDepth},
        {"data", data},       {"methods", methods},           {"events", events}};
    return true;
}

QString signature(const QJsonObject& m)
{
    QStringList args;
    for (const QJsonValue& a : m["arguments"].toArray()) {
        const QString name = a["name"].toString();
        args << (name.isEmpty() ? a["type"].toString() : a["type"].toString() + ' ' + name);
    }
    return QStringLiteral("%1 %2(%3)")
        .arg(m["returns"].toString(), m["name"].toString(), args.join(QStringLiteral(", ")));
}

QString eventsText(const QJsonValue& events)
{
    if (events.isNull()) return QStringLiteral("(not declared)");
    QStringList names;
    for (const QJsonValue& e : events.toArray()) names << e.toString();
    return names.isEmpty() ? QStringLiteral("(none)") : names.join(QLatin1Char(' '));
}

void printClass(const QJsonObject& c)
{
    out(c["class"].toString());
    const QString share = c["shareName"].toString();
    out(QStringLiteral("  shareName   %1")
            .arg(share.isEmpty() ? QStringLiteral("\"\" (not set)") : '"' + share + '"'));
    out(QStringLiteral("  shareDepth  %1").arg(c["shareDepth"].toInt()));

    const QJsonObject data = c["data"].toObject();
    int keyWidth = 0, typeWidth = 0;
    for (auto it = data.begin(); it != data.end(); ++it) {
        keyWidth = qMax(keyWidth, it.key().size());
        typeWidth = qMax(typeWidth, it.value()["type"].toString().size());
    }
    out(QStringLiteral("  data (key, type, default):"));
    if (data.isEmpty()) out(QStringLiteral("    (none)"));
    for (auto it = data.begin(); it != data.end(); ++it) {
        const QJsonValue def = it.value()["default"];
        out(QStringLiteral("    %1  %2  %3")
                .arg(it.key(), -keyWidth)
                .arg(it.value()["type"].toString(), -typeWidth)
                .arg(VeskHost::toJsonText(def.toVariant())));
    }

    for (const char* kind : {"invokable", "slot"}) {
        out(qstrcmp(kind, "slot") == 0
                ? QStringLiteral("  slots (also reached by invoke; the host calls the on* hooks):")
                : QStringLiteral("  invokable methods (invoke NAME ARG):"));
        int n = 0;
        for (const QJsonValue& m : c["methods"].toArray())
            if (m["kind"].toString() == QLatin1String(kind)) {
                out(QStringLiteral("    ") + signature(m.toObject()));
                ++n;
            }
        if (!n) out(QStringLiteral("    (none)"));
    }
    out(QStringLiteral("  events:"));
    out(QStringLiteral("    ") + eventsText(c["events"]));
}

QString summary(const QJsonObject& c)
{
    QStringList invokable;
    for (const QJsonValue& m : c["methods"].toArray())
        if (m["kind"].toString() == QLatin1String("invokable")) invokable << m["name"].toString();
    return QStringLiteral("%1 data keys; events: %2; invoke: %3")
        .arg(c["data"].toObject().size())
        .arg(eventsText(c["events"]),
             invokable.isEmpty() ? QStringLiteral("(none)") : invokable.join(QLatin1Char(' ')));
}

}  // namespace

int veskInspect(const QStringList& args)
{
    bool json = false;
    QString className;
    for (const QString& a : args) {
        if (a == QLatin1String("--json")) {
            json = true;
        } else if (!a.startsWith(QLatin1Char('-')) && className.isEmpty()) {
            className = a;
        } else {
            return veskUsageError("inspect", QStringLiteral("unexpected argument \"%1\"").arg(a));
        }
    }

    QString why;
    if (!className.isEmpty()) {
        QJsonObject c;
        if (!describe(className, &c, &why)) {
            std::fprintf(stderr, "veskhost: %s\n", qPrintable(why));
            return 2;
        }
        if (json)
            out(QString::fromUtf8(QJsonDocument(c).toJson(QJsonDocument::Compact)));
        else
            printClass(c);
        return 0;
    }

    QJsonObject all;
    int width = 0;
    for (const QString& name : VeskGraph::classes()) {
        QJsonObject c;
        if (!describe(name, &c, &why)) {
            std::fprintf(stderr, "veskhost: %s\n", qPrintable(why));
            continue;
        }
        all.insert(name, c);
        width = qMax(width, name.size());
    }
    if (json) {
        out(QString::fromUtf8(QJsonDocument(all).toJson(QJsonDocument::Compact)));
        return 0;
    }
    for (auto it = all.begin(); it != all.end(); ++it)
        out(QStringLiteral("%1  %2").arg(it.key(), -width).arg(summary(it.value().toObject())));
    return 0;
}
