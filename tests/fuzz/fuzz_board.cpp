// The board description on whatever a board file could say: JSON of any
// shape through the host's check (VeskHost::boardFromJson), then the driver
// registry building and bringing up a driver for every interface (on a board
// whose buses answer nothing), each driver asked for its signal, rate and
// diagnostics, and the nodes that merge their interface's entry into their
// own settings: VeskInputVi (start, one poll of its driver, stop),
// VeskInputAi (start, one poll, stop), VeskOutputAo (a stream, start, a
// packet, stop) and the sound card resolver. Values may be
// of any type, keys missing, numbers huge. Input: JSON text (board.dict holds
// the words it is made of).
#include <dlfcn.h>
#include <sanitizer/lsan_interface.h>

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSerialPort>
#include <QSet>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#include "driver/Driver.h"
#include "driver/DriverBase.h"
#include "driver/mcu/DriverVesk.h"
#include "host/VeskHost.h"
#include "input/AlsaResolver.h"
#include "input/VeskInputAi.h"
#include "input/VeskInputVi.h"
#include "output/VeskOutputAo.h"
#include "tests/fuzz/FuzzInput.h"
#include "tests/fuzz/FuzzSys.h"

namespace {

// Nodes per side: enough to meet shared drivers and names twice.
constexpr int kNodes = 3;

// True when an object of the text may name a key twice: keys are compared
// as written, and one with an escape, a control character or a byte beyond
// ASCII (which Qt decodes, and may decode alike) counts as a repeat. Qt's
// parser loses memory on an object with a key twice: the loss is Qt's, and
// the fuzzer, which counts allocations, would look for leaks after every
// such input, at a sixteenth of the speed. A description with a key twice is
// not a description.
bool repeatsKey(const QByteArray& text)
{
    std::vector<std::set<QByteArray>> keys;  // per open object
    std::vector<char> open;                  // '{' or '['
    const int n = text.size();
    for (int i = 0; i < n; ++i) {
        const char c = text.at(i);
        if (c == '"') {
            int j = i + 1;
            bool escaped = false;
            for (; j < n && text.at(j) != '"'; ++j) {
                const auto b = static_cast<unsigned char>(text.at(j));
                if (b < 0x20 || b >= 0x80) escaped = true;
                if (b == '\\') {
                    escaped = true;
                    ++j;
                }
            }
            int k = j + 1;
            while (k < n && std::isspace(static_cast<unsigned char>(text.at(k)))) ++k;
            if (!open.empty() && open.back() == '{' && k < n && text.at(k) == ':' &&
                (escaped || !keys.back().insert(text.mid(i + 1, j - i - 1)).second))
                return true;
            i = j;
        } else if (c == '{' || c == '[') {
            open.push_back(c);
            if (c == '{') keys.emplace_back();
        } else if ((c == '}' || c == ']') && !open.empty()) {
            if (open.back() == '{') keys.pop_back();
            open.pop_back();
        }
    }
    return false;
}

QStringList firstNames(const QVariantMap& config, const char* side)
{
    return config.value(side).toMap().keys().mid(0, kNodes);
}

void drivers(const QVariantMap& config)
{
    Driver::buildV(config);
    Driver::buildA(config);
    for (const QString& name : Driver::driverMapV.keys()) {
        Driver::getInfoV(name);
        Driver::getDiagnosticsV(name);
        Driver::callFuncV(name, "CEC", QVariant());
    }
    for (const QString& name : Driver::driverMapA.keys()) {
        Driver::getInfoA(name);
        Driver::getSamplerate(name);
        Driver::getDiagnosticsA(name);
    }
}

void nodes(const QVariantMap& config)
{
    for (const QString& name : firstNames(config, "interfaceV")) {
        VeskInputVi vi;
        vi.setData({{"interface", name}});
        vi.start();
        vi.onTimer();
        vi.stop();
    }
    for (const QString& name : firstNames(config, "interfaceA")) {
        VeskInputAi ai;
        ai.setData({{"interface", name}});
        ai.start();
        ai.onTimer();
        ai.stop();
        // The output sets its device up from the board and the first
        // stream it hears of, and plays a packet.
        VeskOutputAo ao;
        ao.setData({{"interface", name}});
        VeskObject::StreamInfo info;
        info.type = VeskObject::TypeRaw;
        info.params = {{"samplerate", 48000}, {"channels", 2}, {"num", 1024}};
        ao.onNewInfoA(info);
        ao.start();
        static char pcm[4096];
        VeskObject::Packet packet;
        packet.data = pcm;
        packet.len = sizeof pcm;
        packet.frameType = 3;
        ao.onNewPacketA(packet);
        ao.stop();
        QVariantMap alsa{{"interface", name}};
        AlsaResolver::applyInterface(alsa);
        int32_t card = -1;
        AlsaResolver::findAlsaDev(alsa, card);
    }
}

// The drivers live for the process on the board; here each input's go, and
// with them what they left in class-wide state.
void forget()
{
    QSet<DriverBase*> all;
    for (DriverBase* d : Driver::driverMapV) all.insert(d);
    for (DriverBase* d : Driver::driverMapA) all.insert(d);
    Driver::driverMapV.clear();
    Driver::driverMapA.clear();
    qDeleteAll(all);
    {
        QMutexLocker lock(&DriverVesk::mutex);
        DriverVesk::infoMap.clear();
    }
    VeskInputVi::picInited = false;
    VeskInputVi::mipiHsModeSet = false;
    // The C library keeps the last message of a failed plug-in load until it
    // is asked twice.
    while (dlerror()) {
    }
    QCoreApplication::sendPostedEvents();
    fuzzplatform::reset();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    silenceQtLog();
    // The bus layer reports failed transfers with printf.
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    new QCoreApplication(*argc, *argv);
    // The microcontroller line exists and is never opened: its driver's
    // bring-up would otherwise end the process when the port is missing.
    DriverVesk::com = new QSerialPort;
    // The once-only bring-up runs here, on an empty board: from now on the
    // nodes find the registry done, and each input builds its own drivers.
    Driver::initV();
    Driver::initA();
    // A "custom" chip with an empty path opens the program itself, which
    // must then have no plug-in entry point.
    if (dlsym(dlopen(nullptr, RTLD_LAZY), "create")) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    if (repeatsKey(text)) return 0;
    fuzzsys::reset();
    // Whatever else Qt's parser may lose is Qt's too.
    __lsan_disable();
    const QJsonDocument doc = QJsonDocument::fromJson(text);
    __lsan_enable();
    QStringList notes;
    QString error;
    const QJsonValue top = doc.isObject() ? QJsonValue(doc.object()) : QJsonValue(doc.array());
    const QVariantMap config = VeskHost::boardFromJson(top, &notes, &error);
    if (!doc.isObject()) {
        if (error.isEmpty() || !config.isEmpty()) std::abort();
        return 0;
    }
    VeskHost::setConfig(config);
    drivers(config);
    nodes(config);
    forget();
    VeskHost::setConfig({});
    fuzzsys::reset();
    return 0;
}
