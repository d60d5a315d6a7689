#include "host/VeskGraph.h"

#include <QMetaType>
#include <QThread>
#include <algorithm>

#include "host/VeskDispatcher.h"
#include "host/VeskHost.h"

VeskGraph::VeskGraph(QObject* parent)
    : QObject(parent), coalesceMs(qEnvironmentVariableIntValue("VESK_COALESCE_MS"))
{
    VeskHost::registerMetaTypes();
}

VeskGraph::~VeskGraph()
{
    shutdown();
}

QStringList VeskGraph::classes()
{
    // The library registers "<Class>*" for each of its node classes at load;
    // those are the only classes a graph may create.
    QStringList out;
    for (int id = QMetaType::User; QMetaType::isRegistered(id); ++id) {
        const QByteArray name = QMetaType::typeName(id);
        if (!name.endsWith('*')) continue;
        const QMetaObject* mo = QMetaType::metaObjectForType(id);
        if (!mo || mo == &VeskObject::staticMetaObject || mo->constructorCount() == 0) continue;
        if (!mo->inherits(&VeskObject::staticMetaObject)) continue;
        out << QString::fromLatin1(name.left(name.size() - 1));
    }
    out.removeDuplicates();
    std::sort(out.begin(), out.end());
    return out;
}

void VeskGraph::runIn(QObject* context, const std::function<void()>& fn)
{
    QThread* t = context->thread();
    if (t == QThread::currentThread() || !t || !t->isRunning()) {
        fn();
        return;
    }
    QMetaObject::invokeMethod(context, fn, Qt::BlockingQueuedConnection);
}

QThread* VeskGraph::threadFor(const QString& key, const QString& name)
{
    if (QThread* t = threads.value(key)) return t;
    auto* t = new QThread;
    t->setObjectName(name);
    t->setEventDispatcher(new VeskDispatcher(coalesceMs));
    t->start();
    // Lives in the thread so that work which must not run on a node itself
    // (destroying it) still runs there.
    auto* anchor = new QObject;
    anchor->moveToThread(t);
    threads.insert(key, t);
    anchors.insert(t, anchor);
    return t;
}

VeskObject* VeskGraph::create(const QString& className, const QString& name, const QString& thread,
                              QString* error)
{
    auto fail = [&](const QString& text) -> VeskObject* {
        if (error) *error = text;
        return nullptr;
    };
    if (name.isEmpty()) return fail(QStringLiteral("a node needs a name"));
    if (entries.contains(name))
        return fail(QStringLiteral("a node \"%1\" exists already").arg(name));
    const int id = QMetaType::type(className.toLatin1() + '*');
    const QMetaObject* mo = id ? QMetaType::metaObjectForType(id) : nullptr;
    if (!mo || !mo->inherits(&VeskObject::staticMetaObject)) {
        const QStringList known = classes();
        return fail(
            QStringLiteral("unknown class \"%1\" (known: %2)")
                .arg(className, known.isEmpty() ? QStringLiteral("none") : known.join(", ")));
    }
    QObject* made = mo->newInstance(Q_ARG(QObject*, nullptr));
    auto* node = qobject_cast<VeskObject*>(made);
    if (!node) {
        delete made;
        return fail(QStringLiteral("class \"%1\" cannot be created").arg(className));
    }
    node->setName(name);

    QThread* t = nullptr;
    if (!thread.isEmpty())
        t = threadFor(QStringLiteral("thread:") + thread, thread);
    else if (!node->shareName.isEmpty())
        t = threadFor(QStringLiteral("thread:") + node->shareName, node->shareName);
    else
        t = threadFor(QStringLiteral("node:") + name, name);

    connect(node, &VeskObject::raised, this,
            [this, name](const QString& event, const QVariant& value) {
                emit nodeEvent(name, event, value);
            });
    VeskHost::setMonitor(node, [this, name](const QString& event, const QVariant& value) {
        QMetaObject::invokeMethod(
            this, [this, name, event, value] { emit nodeEvent(name, event, value); },
            Qt::QueuedConnection);
    });
    node->moveToThread(t);
    entries.insert(name, Entry{node, t, false, {}});
    order << name;
    return node;
}

VeskObject* VeskGraph::node(const QString& name) const
{
    return entries.value(name).node;
}

QStringList VeskGraph::nodeNames() const
{
    return order;
}

bool VeskGraph::setData(const QString& name, const QVariantMap& data)
{
    VeskObject* n = node(name);
    if (!n) return false;
    runIn(n, [n, data] { n->setData(data); });
    return true;
}

bool VeskGraph::start(const QString& name)
{
    auto it = entries.find(name);
    if (it == entries.end()) return false;
    VeskObject* n = it->node;
    runIn(n, [n] { n->start(); });
    it->started = true;
    return true;
}

bool VeskGraph::stop(const QString& name)
{
    auto it = entries.find(name);
    if (it == entries.end()) return false;
    VeskObject* n = it->node;
    runIn(n, [n] { n->stop(); });
    it->started = false;
    return true;
}

QVariant VeskGraph::invoke(const QString& name, const QString& method, const QVariant& arg)
{
    VeskObject* n = node(name);
    return n ? n->invoke(method, arg) : QVariant();
}

void VeskGraph::startAll()
{
    for (const QString& name : qAsConst(order)) start(name);
    for (const QString& name : qAsConst(order))
        for (const auto& call : entries.value(name).calls) {
            const QVariant result = invoke(name, call.first, call.second);
            emit nodeEvent(name, QStringLiteral("invoke"),
                           QVariantMap{{QStringLiteral("method"), call.first},
                                       {QStringLiteral("result"), result}});
        }
}

void VeskGraph::stopAll()
{
    for (const QString& name : qAsConst(order))
        if (entries.value(name).started) stop(name);
}

int VeskGraph::parseKinds(const QStringList& words, QStringList* unknown)
{
    int kinds = 0;
    for (const QString& w : words) {
        if (w == QLatin1String("A"))
            kinds |= VeskHost::LinkA;
        else if (w == QLatin1String("V"))
            kinds |= VeskHost::LinkV;
        else if (w == QLatin1String("event"))
            kinds |= VeskHost::LinkEvent;
        else if (unknown)
            *unknown << w;
    }
    return kinds;
}

namespace {

QString missingNodes(const QString& from, const QString& to)
{
    if (!from.isEmpty() && !to.isEmpty() && from != to)
        return QStringLiteral("no nodes \"%1\" and \"%2\"").arg(from, to);
    return QStringLiteral("no node \"%1\"").arg(from.isEmpty() ? to : from);
}

}  // namespace

bool VeskGraph::link(const QString& from, const QString& to, int kinds, QString* error)
{
    VeskObject* a = node(from);
    VeskObject* b = node(to);
    if (!a || !b) {
        if (error) *error = missingNodes(a ? QString() : from, b ? QString() : to);
        return false;
    }
    VeskHost::link(a, b, kinds);
    return true;
}

bool VeskGraph::unlink(const QString& from, const QString& to, int kinds, QString* error)
{
    VeskObject* a = node(from);
    VeskObject* b = node(to);
    if (!a || !b) {
        if (error) *error = missingNodes(a ? QString() : from, b ? QString() : to);
        return false;
    }
    VeskHost::unlink(a, b, kinds);
    return true;
}

namespace {

QString typeOf(const QVariant& v)
{
    switch (v.userType()) {
        case QMetaType::QVariantMap:
            return QStringLiteral("an object");
        case QMetaType::QVariantList:
            return QStringLiteral("a list");
        case QMetaType::QString:
            return QStringLiteral("a string");
        case QMetaType::Bool:
            return QStringLiteral("a boolean");
        default:
            return v.isValid() ? QStringLiteral("a number") : QStringLiteral("null");
    }
}

}  // namespace

bool VeskGraph::build(const QVariantMap& description, QStringList* problems)
{
    QStringList found;
    const QVariant nodesValue = description.value(QStringLiteral("nodes"));
    if (nodesValue.isValid() && nodesValue.userType() != QMetaType::QVariantList)
        found << QStringLiteral("graph: \"nodes\" is %1, not a list").arg(typeOf(nodesValue));
    const QVariantList nodeList = nodesValue.toList();
    QList<QPair<QString, QVariantMap>> configs;
    for (int i = 0; i < nodeList.size(); ++i) {
        const QString where = QStringLiteral("graph: nodes[%1]").arg(i);
        if (nodeList[i].userType() != QMetaType::QVariantMap) {
            found << where +
                         QStringLiteral(" is %1, not an object, skipped").arg(typeOf(nodeList[i]));
            continue;
        }
        const QVariantMap n = nodeList[i].toMap();
        const QVariant name = n.value(QStringLiteral("name"));
        const QVariant cls = n.value(QStringLiteral("class"));
        if (name.userType() != QMetaType::QString || name.toString().isEmpty()) {
            found << where + QStringLiteral(": \"name\" must be a non-empty string, skipped");
            continue;
        }
        const QString label = QStringLiteral("graph: node \"%1\"").arg(name.toString());
        if (cls.userType() != QMetaType::QString) {
            found << label + QStringLiteral(": \"class\" must be a string, skipped");
            continue;
        }
        QVariantMap data;
        const QVariant dataValue = n.value(QStringLiteral("data"));
        if (dataValue.userType() == QMetaType::QVariantMap)
            data = dataValue.toMap();
        else if (dataValue.isValid())
            found << label + QStringLiteral(": \"data\" is %1, not an object, ignored")
                                 .arg(typeOf(dataValue));
        QString thread;
        const QVariant threadValue = n.value(QStringLiteral("thread"));
        if (threadValue.userType() == QMetaType::QString)
            thread = threadValue.toString();
        else if (threadValue.isValid())
            found << label + QStringLiteral(": \"thread\" is %1, not a string, ignored")
                                 .arg(typeOf(threadValue));
        QList<QPair<QString, QVariant>> calls;
        const QVariant invokeValue = n.value(QStringLiteral("invoke"));
        for (const QVariant& c : invokeValue.toList()) {
            const QVariantList call = c.toList();
            if (call.isEmpty() || call.size() > 2 || call[0].userType() != QMetaType::QString)
                found << label + QStringLiteral(
                                     ": an \"invoke\" entry is not [method] or "
                                     "[method, argument], ignored");
            else
                calls.append({call[0].toString(), call.value(1)});
        }
        if (invokeValue.isValid() && invokeValue.userType() != QMetaType::QVariantList)
            found << label + QStringLiteral(": \"invoke\" is %1, not a list, ignored")
                                 .arg(typeOf(invokeValue));
        QString error;
        if (!create(cls.toString(), name.toString(), thread, &error)) {
            found << label + QStringLiteral(": ") + error + QStringLiteral(", skipped");
            continue;
        }
        entries[name.toString()].calls = calls;
        configs.append({name.toString(), data});
    }
    for (const auto& c : qAsConst(configs)) setData(c.first, c.second);

    const QVariant linksValue = description.value(QStringLiteral("links"));
    if (linksValue.isValid() && linksValue.userType() != QMetaType::QVariantList)
        found << QStringLiteral("graph: \"links\" is %1, not a list").arg(typeOf(linksValue));
    const QVariantList linkList = linksValue.toList();
    for (int i = 0; i < linkList.size(); ++i) {
        const QString where = QStringLiteral("graph: links[%1]").arg(i);
        if (linkList[i].userType() != QMetaType::QVariantMap) {
            found << where +
                         QStringLiteral(" is %1, not an object, skipped").arg(typeOf(linkList[i]));
            continue;
        }
        const QVariantMap l = linkList[i].toMap();
        const QVariant from = l.value(QStringLiteral("from"));
        const QVariant to = l.value(QStringLiteral("to"));
        if (from.userType() != QMetaType::QString || to.userType() != QMetaType::QString) {
            found << where + QStringLiteral(": \"from\" and \"to\" must be strings, skipped");
            continue;
        }
        int kinds = VeskHost::LinkAll;
        const QVariant kindsValue = l.value(QStringLiteral("kinds"));
        if (kindsValue.isValid()) {
            QStringList words;
            bool wellFormed = true;
            if (kindsValue.userType() == QMetaType::QString) {
                words << kindsValue.toString();
            } else if (kindsValue.userType() == QMetaType::QVariantList) {
                for (const QVariant& w : kindsValue.toList()) {
                    if (w.userType() != QMetaType::QString) wellFormed = false;
                    words << w.toString();
                }
            } else {
                wellFormed = false;
            }
            QStringList unknown;
            kinds = parseKinds(words, &unknown);
            if (!wellFormed)
                found << where + QStringLiteral(
                                     ": \"kinds\" must be a list of \"A\", \"V\", \"event\"");
            if (!unknown.isEmpty())
                found << where +
                             QStringLiteral(": unknown kinds %1 ignored").arg(unknown.join(", "));
            if (!kinds) {
                found << where + QStringLiteral(": nothing to link, skipped");
                continue;
            }
        }
        QString error;
        if (!link(from.toString(), to.toString(), kinds, &error))
            found << where + QStringLiteral(" %1 -> %2: %3, skipped")
                                 .arg(from.toString(), to.toString(), error);
    }
    if (problems) *problems << found;
    return found.isEmpty();
}

void VeskGraph::shutdown()
{
    stopAll();
    for (const QString& name : qAsConst(order)) {
        VeskObject* n = entries.value(name).node;
        VeskHost::setMonitor(n, VeskHost::Monitor());
        disconnect(n, nullptr, this, nullptr);
        VeskHost::detach(n);
    }
    for (const QString& name : qAsConst(order)) {
        const Entry e = entries.value(name);
        VeskObject* n = e.node;
        runIn(anchors.value(e.thread), [n] { delete n; });
    }
    entries.clear();
    order.clear();
    for (QThread* t : qAsConst(threads)) {
        // Deferred deletes are carried out as the thread finishes.
        anchors.value(t)->deleteLater();
        t->quit();
        t->wait();
        delete t;
    }
    threads.clear();
    anchors.clear();
}
