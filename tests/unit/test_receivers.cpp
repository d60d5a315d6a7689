// The polled receivers that answer from a device node, shared memory or an
// FPGA's status bytes, each against its emulator on the virtual board.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <map>
#include <memory>

#include "driver/Driver.h"
#include "driver/video/Driver6604.h"
#include "driver/video/DriverEma6911.h"
#include "driver/video/DriverFPGA.h"
#include "driver/video/DriverGS2971.h"
#include "frame/VeskSys.h"
#include "sim/Emu6604.h"
#include "sim/EmuEma6911.h"
#include "sim/EmuFPGA.h"
#include "sim/EmuGS2971.h"
#include "sim/VirtualBoard.h"

using vsim::Board;

namespace {

void startBoard()
{
    Board::instance().activate();
    Board::instance().reset();
}

// The keys every receiver here publishes for the signal it sees.
QVariantMap format(const char* protocol, int width, int height, int framerate, bool interlace,
                   bool avalible = true)
{
    return {{"avalible", avalible}, {"protocol", protocol},   {"width", width},
            {"height", height},     {"framerate", framerate}, {"interlace", interlace}};
}

// The shared-memory key is global to the machine: tests that use it take a
// lock file so that parallel test processes do not clear each other's
// records, and each starts from no segment and no attachment.
struct ShmKeyGuard {
    ShmKeyGuard()
    {
        ::flock(lockFd, LOCK_EX);
        release();
        Driver6604::inited = false;
    }
    ~ShmKeyGuard()
    {
        release();
        ::close(lockFd);  // drops the lock
    }
    static void release()
    {
        if (Driver6604::msgs) ::shmdt(Driver6604::msgs);
        Driver6604::msgs = nullptr;
        Driver6604::shmid = -1;
        vsim::Emu6604::removeSegment();
    }
    const int lockFd = ::open("/tmp/vesk-shm-3b72.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
};

// One emulated chip and the driver that polls it.
template <typename Emu, typename Drv>
class Receiver : public ::testing::Test {
protected:
    Receiver(const char* name, const char* chip, const QVariantMap& settings)
    {
        startBoard();
        emu = add(name, chip, settings);
    }
    void TearDown() override
    {
        emu.reset();
        Board::instance().deactivate();
    }
    std::shared_ptr<Emu> add(const char* name, const char* chip, const QVariantMap& settings)
    {
        return std::dynamic_pointer_cast<Emu>(Board::instance().addChip(name, chip, settings));
    }
    QVariantMap check(const QVariantMap& source)
    {
        emu->setSource(source);
        driver.onCheck();
        return driver.info;
    }

    std::shared_ptr<Emu> emu;
    Drv driver;
};

// ---------------------------------------------------------------- EMA6911

class ReceiverEma6911 : public Receiver<vsim::EmuEma6911, DriverEma6911> {
protected:
    // Only the low nibble names the port.
    ReceiverEma6911() : Receiver("hdmi1", "EMA6911", {{"addr", 2}})
    {
        driver.setData({{"addr", "0x12"}});
    }
    static QVariantMap hdmi(int width, int height, int framerate, bool avs, bool avalible = true)
    {
        QVariantMap m = format("HDMI", width, height, framerate, false, avalible);
        m["avs"] = avs;
        m["full"] = true;
        return m;
    }
    const QVariantMap noSignal = hdmi(1920, 1080, 30, false, false);
};

TEST_F(ReceiverEma6911, IndexAndRateGiveSizeRoundedRateAndUhdHalves)
{
    const int sizes[][2] = {{1920, 1080}, {1440, 900}, {1366, 768}, {1280, 1024}, {1280, 800},
                            {1280, 768},  {1280, 720}, {1024, 768}, {800, 600},   {720, 576},
                            {720, 480},   {640, 480},  {3840, 2160}};
    // Index, reported rate, published rate: every row of the table; the rate
    // goes to the nearest multiple of five, and only 2160 lines above 30
    // after that come as two halves.
    const int rates[][3] = {{1, 2, 0},    {2, 3, 5},     {3, 22, 20},  {4, 23, 25},  {5, 57, 55},
                            {6, 58, 60},  {7, 255, 255}, {8, 60, 60},  {9, 25, 25},  {10, 25, 25},
                            {11, 25, 25}, {12, 25, 25},  {13, 32, 30}, {13, 33, 35}, {13, 60, 60}};
    for (const auto& r : rates) {
        const bool avs = r[0] == 13 && r[2] > 30;
        EXPECT_EQ(check({{"index", r[0]}, {"framerate", r[1]}}),
                  hdmi(sizes[r[0] - 1][0] / (avs ? 2 : 1), sizes[r[0] - 1][1], r[2], avs))
            << r[0] << "@" << r[1];
    }
    // Bits outside 2..9 of the status word are not part of the index.
    EXPECT_EQ(check({{"status", 0xFC00 | (7 << 2) | 3}, {"framerate", 50}}),
              hdmi(1280, 720, 50, false));
}

TEST_F(ReceiverEma6911, NoSignalPublishesAPlausibleFormatAndTheDeviceIsReopenedEveryPass)
{
    // Formats past the table have no size: treated as no signal.
    for (const QVariantMap& lost : {QVariantMap(), QVariantMap{{"index", 14}},
                                    QVariantMap{{"index", 0}}, QVariantMap{{"index", 0xFE}}}) {
        check({{"width", 3840}, {"height", 2160}, {"framerate", 60}});
        EXPECT_EQ(check(lost), noSignal) << lost.value("index").toInt();
    }
    // A device that disappears and comes back is noticed on the next pass.
    const int before = emu->device()->requests();
    check({{"width", 1280}, {"height", 720}, {"framerate", 50}});
    Board::instance().setAbsent("/dev/hdmicapture", true);
    driver.onCheck();
    EXPECT_EQ(driver.info, noSignal);
    Board::instance().setAbsent("/dev/hdmicapture", false);
    driver.onCheck();
    EXPECT_EQ(driver.info, hdmi(1280, 720, 50, false));
    EXPECT_EQ(emu->device()->requests(), before + 2);
}

// ---------------------------------------------------------------- 6604

// The guard comes first: it clears the segment that the emulator then makes.
class Receiver6604 : public ShmKeyGuard, public Receiver<vsim::Emu6604, Driver6604> {
protected:
    Receiver6604() : Receiver("hdmi3", "6604", {{"addr", "0"}}) { driver.setData({{"addr", "0"}}); }
    const QVariantMap bare{{"avalible", false}, {"protocol", "HDMI"}};
};

TEST_F(Receiver6604, RateIsSnappedAndALostLockKeepsTheLastFormat)
{
    const int rates[][2] = {{5994, 60}, {2500, 25}, {2997, 30}, {2398, 25}, {1249, 10}, {0, 0}};
    for (const auto& c : rates)
        EXPECT_EQ(check({{"width", 1280}, {"height", 720}, {"rate", c[0]}}),
                  format("HDMI", 1280, 720, c[1], false))
            << c[0];
    // Only 1 means locked.
    for (int lock : {0, 2})
        EXPECT_EQ(check({{"width", 1920}, {"height", 1080}, {"rate", 6000}, {"lock", lock}}),
                  format("HDMI", 1280, 720, 0, false, false));
}

TEST_F(Receiver6604, NoRecordIsNoSignal)
{
    for (const char* addr : {"8", "9", "-1", "100000"}) {
        Driver6604 d;
        d.setData({{"addr", addr}});
        d.onCheck();
        EXPECT_EQ(d.info, bare) << addr;
    }
    // A segment too small for the eight records is not attached.
    ShmKeyGuard::release();
    ASSERT_NE(::shmget(Driver6604::kShmKey, 16, IPC_CREAT | 0666), -1);
    driver.onCheck();
    EXPECT_EQ(driver.info, bare);
    EXPECT_EQ(Driver6604::msgs, nullptr);
}

TEST_F(Receiver6604, ControlProcessStartsOncePerProcess)
{
    driver.init();
    // The program is not on the virtual board; a failed start goes unnoticed.
    EXPECT_EQ(driver.process.program(), vsys::path("/vesk/bin/it6604_ctrl_8"));
    Driver6604 second;
    second.init();
    EXPECT_TRUE(second.process.program().isEmpty());
    EXPECT_EQ(Board::instance().commands(), QStringList{"pkill it6604_ctrl"});
    driver.process.waitForFinished(2000);
}

// ---------------------------------------------------------------- GS2971

class ReceiverGS2971 : public Receiver<vsim::EmuGS2971, DriverGS2971> {
protected:
    ReceiverGS2971() : Receiver("sdi1", "GS2971", {}) { driver.init(); }
    QVariantMap codes(int code6, int code7) { return check({{"code6", code6}, {"code7", code7}}); }
};

TEST_F(ReceiverGS2971, EveryKnownCodeGivesItsFormat)
{
    // First and last rows, code 0, and rows that share a format with another code.
    const int table[][4] = {{24, 720, 576, 50},   {26, 1440, 576, 50},  {0, 1280, 720, 60},
                            {6, 1280, 720, 25},   {4, 1280, 720, 50},   {42, 1920, 1080, 60},
                            {12, 1920, 1080, 50}, {43, 1920, 1080, 60}, {11, 1920, 1080, 30},
                            {13, 1920, 1080, 25}, {48, 1920, 1080, 24}, {16, 1920, 1080, 24}};
    for (const auto& row : table)
        EXPECT_EQ(codes(row[0], row[0]), format("SDI", row[1], row[2], row[3], false)) << row[0];

    // Interlace needs an interlaced row and disagreeing codes; register 7
    // only decides that, its code need not be known.
    const int interlace[][3] = {{42, 43, 1}, {24, 25, 1}, {10, 63, 1}, {43, 42, 0}};
    for (const auto& c : interlace)
        EXPECT_EQ(codes(c[0], c[1])["interlace"], bool(c[2])) << c[0] << "/" << c[1];
}

TEST_F(ReceiverGS2971, UnknownCodeOrFailedRequestKeepsTheEarlierFormat)
{
    codes(0, 0);  // code 0 is a real standard: 1280x720 at 60
    for (int code : {1, 15, 63})
        EXPECT_EQ(codes(code, code), format("SDI", 1280, 720, 60, false, false)) << code;
    // Were the preset lost, a dead device would read as code 0: 720p60.
    codes(43, 43);
    EXPECT_EQ(check({{"code6", 0}, {"silent", true}}), format("SDI", 1920, 1080, 60, false, false));
}

TEST_F(ReceiverGS2971, StartUpClearsTheSecondOutputEnableOrDisablesTheDriverForGood)
{
    using W = std::vector<std::pair<uint8_t, uint16_t>>;
    EXPECT_EQ(emu->device()->writes(), (W{{1, 0x0200}}));
    EXPECT_EQ(emu->device()->reg(1), 0x0200);

    Board::instance().reset();  // no device at start-up
    DriverGS2971 late;
    late.init();
    EXPECT_EQ(late.device, -1);
    auto now = add("sdi1", "GS2971", {});
    now->setSource({{"code6", 43}});
    late.onCheck();
    EXPECT_TRUE(late.info.isEmpty());
    EXPECT_TRUE(now->device()->writes().empty());
}

// ---------------------------------------------------------------- FPGA

class ReceiverFPGA : public Receiver<vsim::EmuFPGA, DriverFPGA> {
protected:
    ReceiverFPGA() : Receiver("sdi2", "fpga", {{"bus", 2}, {"addr", "0x60"}, {"reg", 0x10}})
    {
        // Board files mix numbers and text.
        driver.setData({{"dev_addr", "0x60"}, {"reg_addr", 16}, {"i2c_num", "2"}});
        driver.init();
    }
    QVariantMap bytes(int a, int b) { return check({{"a", a}, {"b", b}}); }
};

TEST_F(ReceiverFPGA, StatusBytesMapThroughBothTables)
{
    // a, width, height, rate, interlace: each size and each rate once; bits
    // 2, 3 and 7 of a and everything but bit 4 of b carry nothing.
    const int rows[][5] = {{0x00, 1440, 576, 0, 0},   {0x11, 1280, 720, 24, 0},
                           {0x22, 1920, 1035, 25, 0}, {0x33, 1920, 1080, 30, 0},
                           {0x40, 1440, 576, 50, 1},  {0x51, 1280, 720, 60, 1},
                           {0x62, 1920, 1035, 50, 0}, {0x73, 1920, 1080, 60, 0},
                           {0xCD, 1280, 720, 50, 1},  {0xFF, 1920, 1080, 60, 0}};
    for (const auto& r : rows)
        EXPECT_EQ(bytes(r[0], r[0] & 1 ? 0xFF : 0x10), format("SDI", r[1], r[2], r[3], r[4]))
            << r[0];

    for (int b : {0x00, 0xEF})
        EXPECT_EQ(bytes(0x73, b), (QVariantMap{{"avalible", false}, {"protocol", "SDI"}})) << b;
}

// ---------------------------------------------------------------- together

// The example board: built by chip word, every input follows its source
// through the timeline.
TEST(ReceiverRegistry, ExampleScenarioDrivesEveryInput)
{
    ShmKeyGuard guard;
    startBoard();
    QFile file(VESK_SOURCE_DIR "/examples/scenarios/receivers.json");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QVariantMap scenario = QJsonDocument::fromJson(file.readAll()).toVariant().toMap();
    QString error;
    ASSERT_TRUE(Board::instance().loadScenario(scenario, &error)) << error.toStdString();

    QVariantMap inputs = scenario["board"].toMap()["interfaceV"].toMap();
    std::map<QString, std::unique_ptr<DriverBase>> drivers;
    for (auto it = inputs.begin(); it != inputs.end(); ++it) {
        QVariantMap settings = it.value().toMap();
        DriverBase* d = Driver::createV(settings["chip"].toString());
        d->setData(settings);
        d->init();
        drivers[it.key()].reset(d);
    }
    for (const QVariant& s : scenario["timeline"].toList()) {
        QVariantMap step = s.toMap();
        ASSERT_TRUE(Board::instance().applyStep(step, &error)) << error.toStdString();
        QString name = step["chip"].toString();
        QVariantMap source = step["source"].toMap();
        QVariantMap info = drivers.at(name)->getInfo();
        std::string at = QString("%1 at %2").arg(name, step["at"].toString()).toStdString();
        EXPECT_EQ(info["avalible"], !source.isEmpty()) << at;
        if (source.isEmpty()) continue;
        int width = source["width"].toInt();
        EXPECT_EQ(info["width"], info["avs"].toBool() ? width / 2 : width) << at;
        EXPECT_EQ(info["height"], source["height"].toInt()) << at;
        EXPECT_EQ(info["framerate"], qRound(source["framerate"].toDouble() / 5) * 5) << at;
        EXPECT_EQ(info["interlace"].toBool(), source["interlace"].toBool()) << at;
    }
    // Reap the control process that could not start, so that nothing is left running.
    for (auto& d : drivers)
        if (auto* d6604 = qobject_cast<Driver6604*>(d.second.get()))
            d6604->process.waitForFinished(2000);
    drivers.clear();
    Board::instance().deactivate();
}

}  // namespace
