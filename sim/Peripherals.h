// The board's small peripherals: GPIO lines (sysfs and the GPIO character
// devices /dev/gpiochipN), the infra-red receiver (/dev/OT_IR, /dev/Hi_IR)
// and the wall clock. The board wires them in; tests and emulators drive
// them from here.
//
// GPIO: 16 chips of 8 lines, line number group * 8 + pin. A line's level is
// what an output drives or, for an input, what the outside world drives
// (drive()). The sysfs shell lines act on the board's file tree as the kernel
// does: export makes gpioN/ with "direction" and "value", "out" drives low,
// "value" is written only on an output. An event request hands out a pipe
// carrying 16-byte edge records; like the kernel's, it holds 16 records and
// drops what comes beyond.
//
// Edge time stamps are nanoseconds on CLOCK_MONOTONIC. A scenario step is
// stamped at epoch + "at" + the edge's "ms"; the epoch is taken when the
// board is reset and when a scenario starts.
//
// Scenario steps:
//   {"gpio": "GPIO2_1", "level": 0}
//   {"gpio": "GPIO2_1", "edges": [{"ms": 0, "level": 0}, {"ms": 5, "level": 1}]}
//   {"ir": {"high": 0, "low": "0x40bf00ff", "state": 0}}   one 12-byte record
//   {"ir": {"hex": "0102..."}}                              raw bytes
//   {"clock": "1970-01-01T00:00:05Z"}   wall clock; "host" follows this machine
//   {"mem": "0x1102A008", "value": 1000}  one 32-bit word of physical memory
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QVariantMap>
#include <cstdint>
#include <memory>

namespace vsim {

class Device;

constexpr int kGpioChips = 16;
constexpr int kGpioLinesPerChip = 8;

class GpioLines {
public:
    static GpioLines& instance();

    // Back to power-on: nothing exported or requested, every line low.
    void reset();
    void setEpoch(int64_t ns);
    int64_t epoch() const;
    static int64_t monotonicNs();

    // The outside world sets an input line's level; whoever watches the line
    // gets an edge record with this time stamp (even without a change, as a
    // glitch too short to see the other edge would give).
    void drive(int group, int pin, bool level, int64_t timestampNs);
    // The level the board sees now.
    bool level(int group, int pin) const;
    bool exported(int group, int pin) const;
    bool isOutput(int group, int pin) const;
    // Consumer label of the line's event request, empty when not requested.
    QString consumer(int group, int pin) const;

    // "GPIO1_0" (any case) to group and pin.
    static bool parseName(const QString& name, int* group, int* pin);

    // Used by the board.
    int shell(const QString& line);  // exit status; -1: not a GPIO line
    long request(int chip, void* arg);

private:
    GpioLines();
    struct Line;
    Line& line(int group, int pin);
    void syncFiles(int number);
    struct State;
    std::shared_ptr<State> s;
};

// The infra-red receiver. Every descriptor opened on it and enabled (ioctl 2
// with 1) gets the bytes that send() hands in.
void irSend(const QByteArray& bytes);
QByteArray irRecord(uint32_t high, uint32_t low, uint32_t state);
int irEnables();

// Wall clock of the board, as CLOCK_REALTIME shows it: this machine's unless
// set.
void setWallClock(int64_t msSinceEpoch);
void followHostClock();
int64_t wallClockOffsetNs();

// Board wiring.
void installPeripherals(QMap<QString, std::shared_ptr<Device>>& devices, const QString& root);
// Applies a "gpio", "ir", "clock" or "mem" step; false when the step is none
// of these (*handled false) or is malformed.
bool applyPeripheralStep(const QVariantMap& step, QString* error, bool* handled);

}  // namespace vsim
