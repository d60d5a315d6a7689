// The front-panel microcontroller at the other end of the board's serial
// line: a pseudo-terminal whose slave side stands at the board path (by
// default "/dev/ttyAMA2"), so that the library's QSerialPort opens a real
// terminal. It speaks the line's JSON frames: answers "GetVer", reports the
// status of each configured input every period, the temperature, its
// configuration and keys, and records every frame it is sent.
#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QVariantMap>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "sim/VirtualBoard.h"

namespace vsim {

class EmuMcu : public ChipEmulator {
public:
    ~EmuMcu() override;

    // Settings: "path" (board path of the line), "inputs" ({name: status}),
    // "period" (seconds between status reports, 0: none unless asked;
    // default 1), "version", "cfgtype", "on_mode", "temp".
    void attach(const QVariantMap& settings) override;
    // The status of the first configured input ("lock", "w", "h", "f",
    // "p", "ddr", "as"); empty: no signal.
    void setSource(const QVariantMap& source) override;
    // {"input": NAME, "source": {...}}, {"key": K, "act": A}, {"silent": S},
    // {"noise": TEXT}, {"split": true}, {"garbage": TEXT}, {"big": BYTES},
    // {"temp": T}, {"cfg_info": {...}}, {"send": {...}}, {"raw": TEXT},
    // {"period": S}; see the README's scenario section.
    bool applyStep(const QVariantMap& step, QString* error) override;

    // Output. Frames go out in the order asked, each in one write unless a
    // split is pending.
    void setInput(const QString& name, const QVariantMap& status);
    void send(const QVariantMap& message);
    void sendRaw(const QByteArray& bytes, double delaySeconds = 0);
    void setPeriod(double seconds);
    void silence(double seconds);

    // Input: every frame the library sent, decoded, in order.
    QList<QVariantMap> received() const;
    int count(const QString& cmd) const;
    QString onMode() const;
    // Bytes that did not fit into the terminal because nobody read them.
    qint64 dropped() const;

private:
    using Clock = std::chrono::steady_clock;
    void run();
    void enqueue(const QByteArray& bytes, Clock::duration delay = {});
    QByteArray frame(const QVariantMap& message);
    void take(const QByteArray& block);
    void handle(const QVariantMap& message);
    void report();
    void writeOut(const QByteArray& bytes);

    int master = -1, slave = -1, wake = -1;
    QString link;
    std::thread worker;

    mutable std::mutex lock;
    std::condition_variable changed;
    bool quit = false;
    QMap<QString, QVariantMap> inputs;
    QString firstInput;
    double period = 1.0;
    Clock::time_point quietUntil{};
    Clock::time_point nextReport{};
    QString version, cfgtype, mode;
    int temperature = 40;
    QString noise;
    bool splitNext = false;
    std::deque<std::pair<Clock::time_point, QByteArray>> outgoing;
    QByteArray inbox;
    QList<QVariantMap> log;
    qint64 lost = 0;
};

}  // namespace vsim
