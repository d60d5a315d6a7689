// The LT8619C HDMI/DVI receiver's own thread. The chip has no interrupt line
// to the processor, so this thread runs the chip's loop (lt8619c.h) every
// 100 ms: it follows the input from clock to PLL lock to stable sync, gives
// the BT.1120 output the input's timing and, about a second after sync came,
// publishes the format in the class-wide values below, which
// DriverLT8619::onCheck copies.
#pragma once

#include <QMap>
#include <QString>
#include <QThread>
#include <QVariant>
#include <atomic>
#include <cstdint>

class DriverBase;

class LT8619 : public QThread {
    Q_OBJECT
public:
    // `bus` does the register access; it must outlive the thread.
    explicit LT8619(DriverBase* bus, QObject* parent = nullptr);

    // Published for onCheck, written by this thread alone and read without a
    // lock: each is one word or byte, and a reader may see a mix of old and
    // new values for the length of one publication.
    static std::atomic<bool> enable;
    static std::atomic<int> width;
    static std::atomic<int> height;
    static std::atomic<int> fps;
    static std::atomic<bool> interlace;
    static std::atomic<bool> full;

    // What the loop is doing, for a person watching the input.
    QMap<QString, QVariant> diagnostics() const;
    // Passes of the loop so far (a pass ends just before its 100 ms wait).
    int passes() const { return passCount.load(); }

protected:
    void run() override;

private:
    // Copies what the chip's loop left in its globals, for diagnostics() on
    // other threads.
    void watch();

    DriverBase* bus;
    std::atomic<int> stage{0};
    std::atomic<int> stablePasses{0};
    std::atomic<int> hdmi{-1};  // -1 while there is no stable sync
    std::atomic<int> vic{0};
    std::atomic<uint32_t> active{0};  // h_active << 16 | v_active
    std::atomic<uint32_t> frameLength{0};
    std::atomic<int> passCount{0};
};
