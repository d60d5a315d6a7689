#include "input/AlsaResolver.h"

#include <fcntl.h>
#include <limits.h>

#include <QStringList>

#include "frame/Vesk.h"
#include "frame/VeskSys.h"

namespace AlsaResolver {

namespace {

// The kernel's entries are a line; anything longer is not one of them.
constexpr int kMaxEntry = 4096;

QString cardEntry(int n, const char* name)
{
    return QStringLiteral("/proc/asound/card%1/%2").arg(n).arg(QLatin1String(name));
}

// The file's text up to the first NUL, without line ends; empty if it
// cannot be read.
QString readEntry(const QString& path)
{
    const int fd = vsys::open(path.toLocal8Bit().constData(), O_RDONLY);
    if (fd < 0) return QString();
    QByteArray text;
    char buf[512];
    while (text.size() < kMaxEntry) {
        const ssize_t n = vsys::read(fd, buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, int(n));
    }
    vsys::close(fd);
    const int nul = text.indexOf('\0');
    if (nul >= 0) text.truncate(nul);
    QString s = QString::fromLocal8Bit(text);
    s.remove(QLatin1Char('\n'));
    s.remove(QLatin1Char('\r'));
    return s;
}

QString linkTarget(const QString& path)
{
    char buf[PATH_MAX];
    const ssize_t n = vsys::readlink(path.toLocal8Bit().constData(), buf, sizeof buf - 1);
    if (n <= 0) return QString();
    return QString::fromLocal8Bit(buf, int(n));
}

// The walk shared by the bus and the id: `match` decides on a card's text.
template <typename Match>
QString walkEntries(const QString& path, const char* entry, int32_t& card, Match match)
{
    QString result = path;
    card = -1;
    for (int n = 0; n < kCards; ++n) {
        const QString file = cardEntry(n, entry);
        if (!vsys::exists(file)) break;
        if (match(readEntry(file))) {
            result = QStringLiteral("hw:%1").arg(n);
            card = n;
            break;
        }
    }
    return result;
}

}  // namespace

QString busToPath(const QString& path, const QString& bus, int32_t& card)
{
    return walkEntries(path, "usbbus", card, [&](const QString& text) { return text == bus; });
}

QString idToPath(const QString& path, const QString& id, int32_t& card)
{
    return walkEntries(path, "usbid", card, [&](const QString& text) { return id.contains(text); });
}

QString lkToPath(const QString& path, const QString& lnk, int32_t& card)
{
    const QStringList wanted = lnk.split(QLatin1Char('|'));
    QString result = path;
    card = -1;
    for (int n = 0; n < kCards; ++n) {
        const QString entry = QStringLiteral("/sys/class/sound/card%1").arg(n);
        if (!vsys::exists(entry)) break;
        const QStringList parts = linkTarget(entry).split(QLatin1Char('/'));
        if (parts.size() < 4) break;
        // .../1-1.2/1-1.2:1.0/sound/card1: the port comes before the
        // interface, the class and the card.
        if (wanted.contains(parts.at(parts.size() - 4))) {
            result = QStringLiteral("hw:%1").arg(n);
            card = n;
        }
    }
    return result;
}

bool findAlsaDev(QMap<QString, QVariant>& data, int32_t& card)
{
    if (card != -1) return true;
    if (data.contains("bus"))
        data["path"] = busToPath(data["path"].toString(), data["bus"].toString(), card);
    if (data.contains("id"))
        data["path"] = idToPath(data["path"].toString(), data["id"].toString(), card);
    if (data.contains("lnk"))
        data["path"] = lkToPath(data["path"].toString(), data["lnk"].toString(), card);
    if (card != -1) return true;
    const QString path = data["path"].toString();
    if (path.isEmpty() || path == QLatin1String("-1")) return false;
    card = path.split(QLatin1Char(',')).first().remove(QStringLiteral("hw:")).toInt();
    return true;
}

void captureFormat(const QByteArray& stream0, QMap<QString, QVariant>& data)
{
    QByteArray raw = stream0;
    const int nul = raw.indexOf('\0');
    if (nul >= 0) raw.truncate(nul);
    QString text = QString::fromLocal8Bit(raw);
    text.remove(QLatin1Char('\n'));
    text.remove(QLatin1Char('\r'));
    // The first format of the capture side; without one, the text is taken
    // as it is.
    text = text.mid(text.indexOf(QLatin1String("Capture")));
    text.remove(QLatin1Char(' '));
    text.remove(QLatin1Char('\t'));
    const int ch = text.indexOf(QLatin1String("Channels"));
    const int rates = text.indexOf(QLatin1String("Rates"));
    data["channels"] = text.mid(ch + 9, 1).toInt();
    data["samplerate"] = text.mid(rates + 6, 5).toInt();
}

void applyInterface(QMap<QString, QVariant>& data)
{
    const QString iface = data.value("interface").toString();
    if (iface.isEmpty()) return;
    const QVariantMap entry = Vesk::getConfig().value("interfaceA").toMap().value(iface).toMap();
    if (entry.contains("alsa")) data["path"] = entry.value("alsa").toString();
    for (auto it = entry.begin(); it != entry.end(); ++it) data[it.key()] = it.value();
}

}  // namespace AlsaResolver
