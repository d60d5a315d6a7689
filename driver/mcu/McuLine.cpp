#include "driver/mcu/McuLine.h"

#include <QDebug>
#include <QMetaMethod>
#include <QMetaObject>
#include <QMutex>
#include <QMutexLocker>
#include <cstring>

#include "frame/Vesk.h"

namespace {
const QString kDelimiter = QStringLiteral("#####");
}

void McuFramer::append(const QByteArray& block)
{
    const char* nul = static_cast<const char*>(std::memchr(block.constData(), 0, block.size()));
    const int len = nul ? int(nul - block.constData()) : block.size();
    buffer += QString::fromUtf8(block.constData(), len);
}

bool McuFramer::next(QString* text, QString* raw)
{
    const int at = buffer.indexOf(kDelimiter);
    if (at < 0) {
        if (buffer.size() > kCap) {
            // Keep the newest text: the start of the frame that ends next.
            const int drop = buffer.size() - kCap / 2;
            qDebug() << "mcu: no \"#####\" in" << buffer.size()
                     << "characters from the line, dropped the oldest" << drop;
            buffer.remove(0, drop);
            mcu::observe(QStringLiteral("dropped"), drop);
        }
        return false;
    }
    *text = buffer.left(at);
    // One "#" of the delimiter stays at the head of the next frame; the
    // brace search below takes it away, and the peer relies on that.
    buffer.remove(0, at + kDelimiter.size() - 1);
    if (raw) *raw = *text;
    int brace = text->indexOf(QLatin1Char('{'));
    const int bracket = text->indexOf(QLatin1Char('['));
    if (brace < 0 || (bracket >= 0 && bracket < brace)) brace = bracket;
    if (brace > 0) text->remove(0, brace);
    return true;
}

namespace mcu {

QVariantMap dispatch(QObject* target, const QString& text, bool* handled)
{
    const QVariantMap msg = Json::decode(text).toMap();
    const QString cmd = msg.value(QStringLiteral("Cmd")).toString();
    bool ok = false;
    if (!cmd.isEmpty()) {
        const QByteArray name = cmd.toUtf8();
        const QMetaObject* mo = target->metaObject();
        for (int i = 0; i < mo->methodCount(); ++i) {
            if (mo->method(i).name() != name) continue;
            // Called by name with the message as its one argument. A method of
            // that name without such a parameter list is not called, and the
            // frame goes without a word (Qt's own complaint included).
            const int fit = mo->indexOfMethod(
                QMetaObject::normalizedSignature(name + "(QVariantMap)").constData());
            if (fit >= 0)
                ok = mo->method(fit).invoke(target, Qt::DirectConnection, Q_ARG(QVariantMap, msg));
            break;
        }
    }
    if (handled) *handled = ok;
    return msg;
}

namespace {
QMutex observerLock;
Observer& current()
{
    static Observer o;
    return o;
}
}  // namespace

void setObserver(Observer observer)
{
    QMutexLocker lock(&observerLock);
    current() = std::move(observer);
}

void observe(const QString& event, const QVariant& value)
{
    Observer o;
    {
        QMutexLocker lock(&observerLock);
        o = current();
    }
    if (o) o(event, value);
}

}  // namespace mcu
