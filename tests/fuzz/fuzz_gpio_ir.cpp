// The device nodes on whatever their kernel devices could hand them. GPIO:
// up to three watched lines, by names well-formed or not, each event
// descriptor answering its reads with edge records (time stamps and ids of
// any value), short reads, EAGAIN, EINTR, errors and the end; the line's
// sysfs value file for getGPIO. Infra-red: "/dev/OT_IR", "/dev/Hi_IR" or
// neither, answering reads of 48 bytes with blocks of any length, errors and
// the end. The reads are delivered as the event loop would, through the
// node's own socket notifiers while they are enabled.
// Input (read with FuzzedDataProvider): the lines, their reads, the value
// file, then the infra-red device and its reads.
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/gpio.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "device/VeskDevice.h"
#include "device/VeskGPIO.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/FuzzSys.h"

namespace {

// A read that is not a whole answer: a short or odd block, a retry, an
// error that ends the descriptor.
fuzzsys::Read odd(FuzzedDataProvider& in, uint8_t kind)
{
    switch (kind % 4) {
        case 0:
            return {bytes(in, 60), 0};
        case 1:
            return {QByteArray(), EAGAIN};
        case 2:
            return {QByteArray(), EINTR};
        default:
            return {QByteArray(), EIO};
    }
}

// Delivers readiness to every enabled notifier of `node`, round after round,
// until none is left enabled or the reads must have run out.
void deliver(QObject& node)
{
    for (int round = 0; round < 64; ++round) {
        bool any = false;
        for (QSocketNotifier* n : node.findChildren<QSocketNotifier*>()) {
            if (!n->isEnabled()) continue;
            any = true;
            QEvent ready(QEvent::SockAct);
            QCoreApplication::sendEvent(n, &ready);
        }
        if (!any) return;
    }
}

void gpio(FuzzedDataProvider& in)
{
    VeskGPIO node;
    struct Seen {
        QString line;
        bool up;
        bool click;
    };
    QList<Seen> seen;
    QObject::connect(&node, &VeskObject::raised, [&](QString event, QVariant value) {
        if (event != "up" && event != "down" && event != "click") std::abort();
        seen.append({value.toString(), event != "down", event == "click"});
    });

    for (int g = 0; g < 10; ++g) fuzzsys::putDevice(QStringLiteral("/dev/gpiochip%1").arg(g));
    QStringList names;
    QList<QList<fuzzsys::Read>> lines;
    const int count = in.ConsumeIntegralInRange(0, 3);
    for (int l = 0; l < count; ++l) {
        QString name;
        if (in.ConsumeBool()) {
            const int group = in.ConsumeIntegralInRange(0, 9);
            const int pin = in.ConsumeIntegralInRange(0, 15);
            name = QStringLiteral("%1%2_%3")
                       .arg(in.ConsumeBool() ? "GPIO" : "gpio")
                       .arg(group)
                       .arg(pin);
            fuzzsys::putFile(QStringLiteral("/sys/class/gpio/gpio%1/value").arg(group * 8 + pin),
                             bytes(in, 80));
        } else {
            name = QString::fromLatin1(bytes(in, 16));
        }
        names << name;
        QList<fuzzsys::Read> reads;
        uint64_t ns = in.ConsumeIntegral<uint32_t>() * uint64_t(1000000);
        const int n = in.ConsumeIntegralInRange(0, 30);
        for (int r = 0; r < n; ++r) {
            const uint8_t kind = in.ConsumeIntegral<uint8_t>();
            if (kind < 200) {
                // Mostly edges a few to a few hundred ms apart, so that the
                // bounce and click windows are met; now and then any time.
                gpioevent_data e{};
                ns = kind & 1 ? in.ConsumeIntegral<uint64_t>()
                              : ns + in.ConsumeIntegralInRange<uint64_t>(0, 800) * 1000000;
                e.timestamp = ns;
                e.id = kind & 2 ? in.ConsumeIntegral<uint32_t>() : (kind & 4 ? 1 : 2);
                reads.append({QByteArray(reinterpret_cast<const char*>(&e), sizeof e), 0});
            } else {
                reads.append(odd(in, kind));
            }
        }
        lines << reads;
    }
    fuzzsys::queueLineEvents(lines);
    for (const QString& name : names) node.registEvent(name);
    if (!names.isEmpty() && node.registEvent(names.first()).toBool()) std::abort();
    deliver(node);

    // Per line: the levels alternate, and a click follows an up at once.
    QMap<QString, bool> level;
    for (int i = 0; i < seen.size(); ++i) {
        const Seen& s = seen.at(i);
        if (s.click) {
            if (i == 0 || seen.at(i - 1).click || !seen.at(i - 1).up ||
                seen.at(i - 1).line != s.line)
                std::abort();
            continue;
        }
        if (level.contains(s.line) && level.value(s.line) == s.up) std::abort();
        level[s.line] = s.up;
    }

    for (const QString& name : names)
        if (node.getGPIO(name).userType() != QMetaType::Bool) std::abort();
    QVariantList args;
    const int n = in.ConsumeIntegralInRange(0, 3);
    for (int i = 0; i < n; ++i) args << QString::fromLatin1(bytes(in, 16));
    node.setGPIO(args);
}

void infraRed(FuzzedDataProvider& in)
{
    const uint8_t where = in.ConsumeIntegral<uint8_t>();
    QList<fuzzsys::Read> reads;
    const int n = in.ConsumeIntegralInRange(0, 30);
    for (int r = 0; r < n; ++r) {
        const uint8_t kind = in.ConsumeIntegral<uint8_t>();
        reads.append(kind < 200 ? fuzzsys::Read{bytes(in, 60), 0} : odd(in, kind));
    }
    if (where & 1) fuzzsys::putDevice("/dev/OT_IR", reads);
    if (where & 2) fuzzsys::putDevice("/dev/Hi_IR", reads);

    // What the node must send: one event per read of 12 bytes or more (of
    // which it reads 48 at most), up to the read that ends the device.
    QList<QVariantMap> wanted;
    if (where & 3) {
        for (const fuzzsys::Read& r : reads) {
            if (r.err == EAGAIN || r.err == EINTR) continue;
            if (r.err || r.bytes.isEmpty()) break;
            if (r.bytes.size() < 12) continue;
            uint32_t w[3];
            std::memcpy(w, r.bytes.constData(), sizeof w);
            wanted.append({{"high", qint64(w[0])}, {"low", qint64(w[1])}, {"state", qint64(w[2])}});
        }
    }

    VeskDevice node;
    QList<QVariantMap> seen;
    QObject::connect(&node, &VeskObject::raised, [&](QString event, QVariant value) {
        if (event != "IR") std::abort();
        seen.append(value.toMap());
    });
    node.enableIR();
    deliver(node);
    if (seen != wanted) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    silenceQtLog();
    // Notifiers deliver through the application's event handling.
    new QCoreApplication(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    fuzzsys::reset();
    gpio(in);
    fuzzsys::reset();
    infraRed(in);
    fuzzsys::reset();
    return 0;
}
