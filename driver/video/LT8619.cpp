#include "driver/video/LT8619.h"

#include "driver/DriverBase.h"
#include "driver/video/lt8619c.h"

std::atomic<bool> LT8619::enable{false};
std::atomic<int> LT8619::width{1920};
std::atomic<int> LT8619::height{1080};
std::atomic<int> LT8619::fps{60};
std::atomic<bool> LT8619::interlace{false};
std::atomic<bool> LT8619::full{true};

namespace {

enum Stage { StageInit, StageClock, StagePll, StageSync, StageCounting, StagePublished };
constexpr int kPublishAfter = 10;  // stable passes before the chip's loop publishes

// The chip's loop and its globals are one per process, like the chip: the
// thread that holds them, and its bus.
std::atomic<bool> loopTaken{false};
DriverBase* port = nullptr;
uint8_t bank = 0;
// Whether the last look at the clock register found a clock. The chip's loop
// clears its record alike for a missing clock and for a PLL that does not
// lock on one; a person watching the input wants to know which.
bool clockSeen = false;

}  // namespace

// ---------------------------------------------------------------- the chip's bus

uint8_t HDMI_ReadI2C_Byte(uint8_t reg)
{
    const uint8_t value = uint8_t(port->read1_8(I2CADR, reg));
    if (bank == 0x80 && reg == 0x44) clockSeen = value & 0x08;
    return value;
}

void HDMI_WriteI2C_Byte(uint8_t reg, uint8_t value)
{
    if (reg == 0xFF) bank = value;
    port->write1_8(I2CADR, reg, value);
}

// ---------------------------------------------------------------- the thread

LT8619::LT8619(DriverBase* bus_, QObject* parent) : QThread(parent), bus(bus_)
{
    setObjectName("LT8619");
}

void LT8619::run()
{
    // A board description that names the chip twice gets one loop: the
    // second driver reads the same class-wide values.
    if (loopTaken.exchange(true)) return;
    port = bus;
    clockSeen = false;
    LT8619C_Init();
    // Nothing stops this thread on the board; a test that tears its driver
    // down asks it to.
    while (!isInterruptionRequested()) {
        LT8619C_MainLoop();
        watch();
        passCount.fetch_add(1);
        Delay_ms(100);
    }
    loopTaken = false;
}

// ---------------------------------------------------------------- diagnostics

void LT8619::watch()
{
    const uint8_t* rx = pLT8619C_RXStatus;
    int s = clockSeen ? StagePll : StageClock;
    if (rx[0] && rx[2]) s = StageSync;
    if (rx[3]) s = print_en >= kPublishAfter ? StagePublished : StageCounting;
    stage = s;
    stablePasses = print_en;
    if (rx[3]) {
        hdmi = rx[4];
        vic = rx[5];
        active = uint32_t(h_active) << 16 | v_active;
        frameLength = frame_counter;
    } else {
        hdmi = -1;
    }
}

QMap<QString, QVariant> LT8619::diagnostics() const
{
    static const char* names[] = {"init", "clock", "pll", "sync", "counting", "published"};
    static const char* why[] = {"hot-plug held low while the receiver starts",
                                "no TMDS clock",
                                "clock without PLL lock",
                                "locked, horizontal sync not stable",
                                "sync stable, format published after a second",
                                "format published"};
    const int s = stage.load();
    QMap<QString, QVariant> d;
    d["stage"] = s == StageCounting
                     ? QString("counting %1/%2").arg(stablePasses.load()).arg(kPublishAfter)
                     : QString(names[s]);
    d["why"] = why[s];
    const int h = hdmi.load();
    if (h >= 0) {
        const uint32_t a = active.load();
        d["input"] = h ? QString("HDMI VIC %1").arg(vic.load()) : QString("DVI");
        d["measured"] = QString("%1x%2").arg(a >> 16).arg(a & 0xFFFF);
        d["frame_counter"] = frameLength.load();
    }
    return d;
}
