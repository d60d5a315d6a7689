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

// The shared-memory key is global to the machine: tests that use it take a
// lock file so that parallel test processes do not clear each other's
// records, and each starts from no segment and no attachment.
class ShmKeyGuard {
public:
    ShmKeyGuard()
    {
        lockFd = ::open("/tmp/vesk-shm-3b72.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (lockFd >= 0) ::flock(lockFd, LOCK_EX);
        release();
        Driver6604::inited = false;
    }
    ~ShmKeyGuard()
    {
        release();
        if (lockFd >= 0) ::close(lockFd);  // drops the lock
    }

private:
    static void release()
    {
        if (Driver6604::msgs) ::shmdt(Driver6604::msgs);
        Driver6604::msgs = nullptr;
        Driver6604::shmid = -1;
        vsim::Emu6604::removeSegment();
    }
    int lockFd = -1;
};

// ---------------------------------------------------------------- EMA6911

class ReceiverEma6911 : public ::testing::Test {
protected:
    void SetUp() override
    {
        startBoard();
        port2 = std::dynamic_pointer_cast<vsim::EmuEma6911>(
            Board::instance().addChip("hdmi1", "EMA6911", {{"addr", "0x2"}}));
        port3 = std::dynamic_pointer_cast<vsim::EmuEma6911>(
            Board::instance().addChip("hdmi2", "EMA6911", {{"addr", 3}}));
        ASSERT_TRUE(port2 && port3);
        // Only the low nibble names the port.
        driver.setData({{"addr", "0x12"}});
    }
    void TearDown() override { Board::instance().deactivate(); }

    QVariantMap check(const QVariantMap& source)
    {
        port2->setSource(source);
        driver.onCheck();
        return driver.info;
    }

    const QVariantMap noSignal{{"avalible", false}, {"avs", false},      {"width", 1920},
                               {"height", 1080},    {"framerate", 30},   {"interlace", false},
                               {"full", true},      {"protocol", "HDMI"}};
    std::shared_ptr<vsim::EmuEma6911> port2, port3;
    DriverEma6911 driver;
};

TEST_F(ReceiverEma6911, EveryIndexOfTheTableGivesItsSize)
{
    const int sizes[][2] = {{1920, 1080}, {1440, 900}, {1366, 768}, {1280, 1024}, {1280, 800},
                            {1280, 768},  {1280, 720}, {1024, 768}, {800, 600},   {720, 576},
                            {720, 480},   {640, 480},  {3840, 2160}};
    for (int index = 1; index <= 13; index++) {
        QVariantMap info = check({{"index", index}, {"framerate", 25}});
        EXPECT_EQ(info["avalible"], true) << index;
        EXPECT_EQ(info["width"], sizes[index - 1][0]) << index;
        EXPECT_EQ(info["height"], sizes[index - 1][1]) << index;
        EXPECT_EQ(info["framerate"], 25) << index;
        EXPECT_EQ(info["avs"], false) << index;
        EXPECT_EQ(info["interlace"], false) << index;
        EXPECT_EQ(info["full"], true) << index;
        EXPECT_EQ(info["protocol"], "HDMI") << index;
    }
    // Bits outside 2..9 of the status word are not part of the index.
    EXPECT_EQ(check({{"status", 0xFC00 | (7 << 2) | 3}, {"framerate", 50}})["width"], 1280);
    EXPECT_EQ(driver.info["height"], 720);
}

TEST_F(ReceiverEma6911, RateRoundsToTheNearestMultipleOfFive)
{
    const int cases[][2] = {{0, 0},   {2, 0},   {3, 5},   {22, 20}, {23, 25},
                            {24, 25}, {29, 30}, {30, 30}, {49, 50}, {57, 55},
                            {58, 60}, {59, 60}, {62, 60}, {63, 65}, {255, 255}};
    for (const auto& c : cases)
        EXPECT_EQ(check({{"index", 1}, {"framerate", c[0]}})["framerate"], c[1]) << c[0];
}

TEST_F(ReceiverEma6911, UhdAboveThirtyArrivesAsTwoHalves)
{
    QVariantMap info = check({{"width", 3840}, {"height", 2160}, {"framerate", 60}});
    EXPECT_EQ(info["width"], 1920);
    EXPECT_EQ(info["height"], 2160);
    EXPECT_EQ(info["avs"], true);

    info = check({{"width", 3840}, {"height", 2160}, {"framerate", 30}});
    EXPECT_EQ(info["width"], 3840);
    EXPECT_EQ(info["avs"], false);
    // 32 is reported as 30 and stays whole; 33 becomes 35 and is split.
    EXPECT_EQ(check({{"index", 13}, {"framerate", 32}})["avs"], false);
    EXPECT_EQ(check({{"index", 13}, {"framerate", 33}})["avs"], true);
    // Only the 2160-line format is split.
    info = check({{"index", 1}, {"framerate", 60}});
    EXPECT_EQ(info["width"], 1920);
    EXPECT_EQ(info["avs"], false);
}

TEST_F(ReceiverEma6911, NoSignalPublishesAPlausibleFormatNotTheLastOne)
{
    check({{"width", 1280}, {"height", 720}, {"framerate", 50}});
    EXPECT_EQ(check({}), noSignal);

    check({{"width", 3840}, {"height", 2160}, {"framerate", 60}});
    // Formats past the table have no size: treated as no signal.
    EXPECT_EQ(check({{"index", 14}, {"framerate", 60}}), noSignal);
    EXPECT_EQ(check({{"index", 0}, {"framerate", 60}}), noSignal);
    EXPECT_EQ(check({{"index", 0xFE}, {"framerate", 60}}), noSignal);
}

TEST_F(ReceiverEma6911, AsksItsOwnPortAndReopensTheDeviceEveryPass)
{
    port3->setSource({{"width", 720}, {"height", 576}, {"framerate", 25}});
    EXPECT_EQ(check({{"width", 1920}, {"height", 1080}, {"framerate", 60}})["width"], 1920);
    DriverEma6911 other;
    other.setData({{"addr", 3}});
    other.onCheck();
    EXPECT_EQ(other.info["width"], 720);
    EXPECT_EQ(other.info["framerate"], 25);

    // A device that disappears and comes back is noticed on the next pass.
    Board::instance().setAbsent("/dev/hdmicapture", true);
    driver.onCheck();
    EXPECT_EQ(driver.info, noSignal);
    Board::instance().setAbsent("/dev/hdmicapture", false);
    driver.onCheck();
    EXPECT_EQ(driver.info["avalible"], true);
    EXPECT_EQ(port2->device()->requests(), 3);
}

// ---------------------------------------------------------------- 6604

class Receiver6604 : public ::testing::Test {
protected:
    void SetUp() override
    {
        startBoard();
        in0 = std::dynamic_pointer_cast<vsim::Emu6604>(
            Board::instance().addChip("hdmi3", "6604", {{"addr", "0"}}));
        in5 = std::dynamic_pointer_cast<vsim::Emu6604>(
            Board::instance().addChip("hdmi4", "6604", {{"addr", "5"}}));
        ASSERT_TRUE(in0 && in5);
        driver.setData({{"addr", "0"}});
    }
    void TearDown() override
    {
        in0.reset();
        in5.reset();
        Board::instance().deactivate();
    }

    QVariantMap check(const QVariantMap& source)
    {
        in0->setSource(source);
        driver.onCheck();
        return driver.info;
    }

    ShmKeyGuard guard;
    std::shared_ptr<vsim::Emu6604> in0, in5;
    Driver6604 driver;
};

TEST_F(Receiver6604, RateSnapsToMultiplesOfFive)
{
    const int cases[][2] = {{5994, 60}, {2500, 25}, {2997, 30}, {2398, 25},
                            {5000, 50}, {6000, 60}, {1249, 10}, {0, 0}};
    for (const auto& c : cases) {
        QVariantMap info = check({{"width", 1920}, {"height", 1080}, {"rate", c[0]}});
        EXPECT_EQ(info["framerate"], c[1]) << c[0];
    }
}

TEST_F(Receiver6604, EachInputReadsItsOwnRecord)
{
    in5->setSource({{"width", 1920}, {"height", 1080}, {"framerate", 50}, {"interlace", true}});
    EXPECT_EQ(in5->word(1), 540);  // the control process reports field lines

    QVariantMap info = check({{"width", 1280}, {"height", 720}, {"framerate", 59.94}});
    EXPECT_EQ(info, (QVariantMap{{"avalible", true},
                                 {"protocol", "HDMI"},
                                 {"width", 1280},
                                 {"height", 720},
                                 {"framerate", 60},
                                 {"interlace", false}}));

    Driver6604 fifth;
    fifth.setData({{"addr", "5"}});
    fifth.onCheck();
    EXPECT_EQ(fifth.info, (QVariantMap{{"avalible", true},
                                       {"protocol", "HDMI"},
                                       {"width", 1920},
                                       {"height", 1080},
                                       {"framerate", 50},
                                       {"interlace", true}}));
}

TEST_F(Receiver6604, LostLockKeepsTheLastFormat)
{
    check({{"width", 1920}, {"height", 1080}, {"framerate", 60}});
    QVariantMap info = check({{"width", 1280}, {"height", 720}, {"framerate", 50}, {"lock", 0}});
    EXPECT_EQ(info["avalible"], false);
    EXPECT_EQ(info["protocol"], "HDMI");
    EXPECT_EQ(info["width"], 1920);
    EXPECT_EQ(check({})["height"], 1080);
    // Only 1 means locked.
    EXPECT_EQ(check({{"width", 1280}, {"height", 720}, {"rate", 5000}, {"lock", 2}})["avalible"],
              false);
}

TEST_F(Receiver6604, InputsOutsideTheEightRecordsHaveNoSignal)
{
    for (const char* addr : {"8", "9", "-1", "100000"}) {
        Driver6604 d;
        d.setData({{"addr", addr}});
        d.onCheck();
        EXPECT_EQ(d.info, (QVariantMap{{"avalible", false}, {"protocol", "HDMI"}})) << addr;
    }
}

TEST_F(Receiver6604, SegmentTooSmallForTheRecordsIsNoSignal)
{
    in0.reset();
    in5.reset();
    vsim::Emu6604::removeSegment();
    int id = ::shmget(Driver6604::kShmKey, 16, IPC_CREAT | 0666);
    ASSERT_NE(id, -1);
    driver.onCheck();
    EXPECT_EQ(driver.info, (QVariantMap{{"avalible", false}, {"protocol", "HDMI"}}));
    EXPECT_EQ(Driver6604::msgs, nullptr);
}

TEST_F(Receiver6604, ControlProcessStartsOncePerProcess)
{
    driver.init();
    // The program is not on the virtual board; a failed start goes unnoticed.
    EXPECT_EQ(driver.process.program(), vsys::path("/vesk/bin/it6604_ctrl_8"));
    EXPECT_TRUE(driver.process.program().endsWith("/vesk/bin/it6604_ctrl_8"));

    Driver6604 second;
    second.setData({{"addr", "1"}});
    second.init();
    EXPECT_TRUE(second.process.program().isEmpty());
    EXPECT_EQ(Board::instance().commands(), QStringList{"pkill it6604_ctrl"});
    driver.process.waitForFinished(2000);
}

// ---------------------------------------------------------------- GS2971

class ReceiverGS2971 : public ::testing::Test {
protected:
    void SetUp() override
    {
        startBoard();
        emu = std::dynamic_pointer_cast<vsim::EmuGS2971>(
            Board::instance().addChip("sdi1", "GS2971", {}));
        ASSERT_TRUE(emu);
        driver.init();
    }
    void TearDown() override { Board::instance().deactivate(); }

    QVariantMap check(const QVariantMap& source)
    {
        emu->setSource(source);
        driver.onCheck();
        return driver.info;
    }
    QVariantMap codes(int code6, int code7) { return check({{"code6", code6}, {"code7", code7}}); }

    std::shared_ptr<vsim::EmuGS2971> emu;
    DriverGS2971 driver;
};

TEST_F(ReceiverGS2971, EveryKnownCodeGivesItsFormat)
{
    const int table[][4] = {{24, 720, 576, 50},   {26, 1440, 576, 50},  {32, 1280, 720, 60},
                            {0, 1280, 720, 60},   {2, 1280, 720, 30},   {6, 1280, 720, 25},
                            {36, 1280, 720, 50},  {4, 1280, 720, 50},   {42, 1920, 1080, 60},
                            {10, 1920, 1080, 60}, {44, 1920, 1080, 50}, {12, 1920, 1080, 50},
                            {43, 1920, 1080, 60}, {11, 1920, 1080, 30}, {45, 1920, 1080, 50},
                            {13, 1920, 1080, 25}, {48, 1920, 1080, 24}, {16, 1920, 1080, 24}};
    for (const auto& row : table) {
        QVariantMap info = codes(row[0], row[0]);
        EXPECT_EQ(info, (QVariantMap{{"avalible", true},
                                     {"protocol", "SDI"},
                                     {"width", row[1]},
                                     {"height", row[2]},
                                     {"framerate", row[3]},
                                     {"interlace", false}}))
            << "code " << row[0];
    }
}

TEST_F(ReceiverGS2971, InterlaceNeedsAnInterlacedRowAndDisagreeingCodes)
{
    EXPECT_EQ(codes(42, 42)["interlace"], false);
    EXPECT_EQ(codes(42, 43)["interlace"], true);
    EXPECT_EQ(codes(24, 25)["interlace"], true);
    // A progressive row stays progressive whatever register 7 says.
    EXPECT_EQ(codes(43, 42)["interlace"], false);
    // Register 7 only decides interlace; its code need not be known.
    QVariantMap info = codes(10, 63);
    EXPECT_EQ(info["avalible"], true);
    EXPECT_EQ(info["interlace"], true);

    info = check({{"width", 1920}, {"height", 1080}, {"framerate", 50}, {"interlace", true}});
    EXPECT_EQ(info["height"], 1080);
    EXPECT_EQ(info["framerate"], 50);
    EXPECT_EQ(info["interlace"], true);
}

TEST_F(ReceiverGS2971, UnknownCodeKeepsTheEarlierFormat)
{
    codes(0, 0);  // code 0 is a real standard: 1280x720 at 60
    QVariantMap before = driver.info;
    EXPECT_EQ(before["avalible"], true);
    EXPECT_EQ(before["width"], 1280);

    for (int code : {1, 15, 20, 63}) {
        QVariantMap after = codes(code, code);
        EXPECT_EQ(after["avalible"], false) << code;
        after["avalible"] = true;
        EXPECT_EQ(after, before) << code;
    }
    EXPECT_EQ(check({})["avalible"], false);
}

TEST_F(ReceiverGS2971, FailedRequestsReadAsNoSignal)
{
    codes(43, 43);
    // Were the preset lost, a dead device would read as code 0: 720p60.
    QVariantMap info = check({{"code6", 0}, {"silent", true}});
    EXPECT_EQ(info["avalible"], false);
    EXPECT_EQ(info["width"], 1920);
}

TEST_F(ReceiverGS2971, StartUpClearsTheSecondOutputEnable)
{
    using W = std::vector<std::pair<uint8_t, uint16_t>>;
    EXPECT_EQ(emu->device()->writes(), (W{{1, 0x0200}}));
    EXPECT_EQ(emu->device()->reg(1), 0x0200);
}

TEST_F(ReceiverGS2971, FailedOpenDisablesTheDriverForGood)
{
    Board::instance().reset();  // no device at start-up
    DriverGS2971 late;
    late.init();
    EXPECT_EQ(late.device, -1);
    late.onCheck();
    EXPECT_TRUE(late.info.isEmpty());

    auto now =
        std::dynamic_pointer_cast<vsim::EmuGS2971>(Board::instance().addChip("sdi1", "GS2971", {}));
    now->setSource({{"code6", 43}});
    late.onCheck();
    EXPECT_TRUE(late.info.isEmpty());
    EXPECT_TRUE(now->device()->writes().empty());
}

// ---------------------------------------------------------------- FPGA

class ReceiverFPGA : public ::testing::Test {
protected:
    void SetUp() override
    {
        startBoard();
        emu = std::dynamic_pointer_cast<vsim::EmuFPGA>(Board::instance().addChip(
            "sdi2", "fpga", {{"bus", 2}, {"addr", "0x60"}, {"reg", 0x10}}));
        ASSERT_TRUE(emu && emu->chip());
        // Board files mix numbers and text.
        driver.setData({{"dev_addr", "0x60"}, {"reg_addr", 16}, {"i2c_num", "2"}});
        driver.init();
    }
    void TearDown() override { Board::instance().deactivate(); }

    QVariantMap bytes(int a, int b)
    {
        emu->setSource({{"a", a}, {"b", b}});
        driver.onCheck();
        return driver.info;
    }

    std::shared_ptr<vsim::EmuFPGA> emu;
    DriverFPGA driver;
};

TEST_F(ReceiverFPGA, StatusBytesMapThroughBothTables)
{
    EXPECT_EQ(bytes(0x73, 0x10), (QVariantMap{{"avalible", true},
                                              {"protocol", "SDI"},
                                              {"width", 1920},
                                              {"height", 1080},
                                              {"framerate", 60},
                                              {"interlace", false}}));
    QVariantMap info = bytes(0x41, 0x10);
    EXPECT_EQ(info["width"], 1280);
    EXPECT_EQ(info["height"], 720);
    EXPECT_EQ(info["framerate"], 50);
    EXPECT_EQ(info["interlace"], true);

    const int sizes[4][2] = {{1440, 576}, {1280, 720}, {1920, 1035}, {1920, 1080}};
    const int rates[8] = {0, 24, 25, 30, 50, 60, 50, 60};
    for (int a = 0; a < 256; a++) {
        // Bits 2, 3 and 7 of a and everything but bit 4 of b carry nothing.
        info = bytes(a, 0xFF);
        EXPECT_EQ(info["width"], sizes[a & 3][0]) << a;
        EXPECT_EQ(info["height"], sizes[a & 3][1]) << a;
        EXPECT_EQ(info["framerate"], rates[(a >> 4) & 7]) << a;
        int r = (a >> 4) & 7;
        EXPECT_EQ(info["interlace"], r == 4 || r == 5) << a;
    }
}

TEST_F(ReceiverFPGA, NoSignalLeavesOnlyPresenceAndProtocol)
{
    bytes(0x73, 0x10);
    const QVariantMap bare{{"avalible", false}, {"protocol", "SDI"}};
    EXPECT_EQ(bytes(0x73, 0x00), bare);
    EXPECT_EQ(bytes(0x73, 0xEF), bare);

    // A chip that does not answer reads as zeros.
    bytes(0x41, 0x10);
    Board::instance().setI2cFailing(2, 0x30, true);
    driver.onCheck();
    EXPECT_EQ(driver.info, bare);
}

TEST_F(ReceiverFPGA, MissingBusReadsAsAllOnes)
{
    Board::instance().setAbsent("/dev/i2c-2", true);
    driver.onCheck();
    EXPECT_EQ(driver.info, (QVariantMap{{"avalible", true},
                                        {"protocol", "SDI"},
                                        {"width", 1920},
                                        {"height", 1080},
                                        {"framerate", 60},
                                        {"interlace", false}}));
}

// ---------------------------------------------------------------- together

QString className(DriverBase* d)
{
    return d->metaObject()->className();
}

TEST(ReceiverRegistry, ChipWordsBuildTheirDrivers)
{
    const QPair<const char*, const char*> words[] = {
        {"6604", "Driver6604"}, {"EMA6911", "DriverEma6911"}, {"GS2971", "DriverGS2971"},
        {"fpga", "DriverFPGA"}, {"ema6911", "DriverBase"},    {"FPGA", "DriverBase"}};
    for (const auto& w : words) {
        std::unique_ptr<DriverBase> d(Driver::createV(w.first));
        EXPECT_EQ(className(d.get()), w.second) << w.first;
    }
}

// The example board: every input follows its source through the timeline.
TEST(ReceiverRegistry, ExampleScenarioDrivesEveryInput)
{
    ShmKeyGuard guard;
    startBoard();
    QFile file(QFileInfo(QStringLiteral(__FILE__))
                   .dir()
                   .filePath("../../examples/scenarios/receivers.json"));
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
        EXPECT_EQ(d->getInfo()["avalible"], false) << it.key().toStdString();
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
