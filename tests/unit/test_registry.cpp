// The registry from interface names to chip drivers, built from a board
// description. Every test runs in a process of its own, so each one sees the
// one-shot initialisation fresh.
#include <gtest/gtest.h>

#include <QThread>

#include "driver/Driver.h"
#include "driver/DriverBase.h"
#include "host/VeskHost.h"
#include "sim/VirtualBoard.h"

namespace {

QVariantMap board(const QVariantMap& video, const QVariantMap& audio)
{
    return QVariantMap{{"interfaceV", video}, {"interfaceA", audio}};
}

QString classOf(DriverBase* d)
{
    return d ? d->metaObject()->className() : QString("none");
}

class Registry : public ::testing::Test {
protected:
    void SetUp() override
    {
        vsim::Board::instance().activate();
        vsim::Board::instance().reset();
    }
    void TearDown() override { vsim::Board::instance().deactivate(); }
};

TEST_F(Registry, ChipWordsPickDriversExactlyAndCaseSensitively)
{
    VeskHost::setConfig(board({{"a", QVariantMap{{"chip", "7611"}}},
                               {"b", QVariantMap{{"chip", "7611 "}}},
                               {"c", QVariantMap{{"chip", "vesk"}}},
                               {"d", QVariantMap{{"mode", "BT1120"}}}},
                              {}));
    Driver::initV();
    EXPECT_EQ(classOf(Driver::driverMapV.value("a")), "Driver7611");
    EXPECT_EQ(classOf(Driver::driverMapV.value("b")), "DriverBase");
    EXPECT_EQ(classOf(Driver::driverMapV.value("c")), "DriverBase");
    // No chip word at all is still a driver: one without a signal.
    EXPECT_EQ(classOf(Driver::driverMapV.value("d")), "DriverBase");
    EXPECT_EQ(Driver::getInfoV("d"), QVariantMap());
    EXPECT_EQ(Driver::driverMapV.size(), 4);
}

TEST_F(Registry, DriversGetTheWholeInterfaceMapAndTheCallingThread)
{
    QVariantMap hdmi{{"chip", "7611"}, {"mode", "BT1120"}, {"did", 2}, {"custom", "x"}};
    VeskHost::setConfig(board({{"hdmi", hdmi}}, {}));
    QThread worker;
    worker.setObjectName("share");
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    QMetaObject::invokeMethod(
        &context, [] { Driver::initV(); }, Qt::BlockingQueuedConnection);
    DriverBase* d = Driver::driverMapV.value("hdmi");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->getData(), hdmi);
    EXPECT_EQ(d->thread(), &worker);
    worker.quit();
    worker.wait();
}

TEST_F(Registry, VideoDriverServesEmbeddedAudioOnlyWhenTheAudioEntryHasAChip)
{
    VeskHost::setConfig(
        board({{"hdmi1", QVariantMap{{"chip", "7611"}}}, {"hdmi2", QVariantMap{{"chip", "7611"}}}},
              {{"hdmi1", QVariantMap{{"chip", "whatever"}}},
               {"hdmi2", QVariantMap{{"alsa", "hw:1,0"}}},
               {"line", QVariantMap{{"chip", "tlv32"}}},
               {"mic", QVariantMap{{"alsa", "hw:2,0"}}}}));
    // Before the video side is built, a shared name has no audio driver.
    Driver::initA();
    EXPECT_FALSE(Driver::driverMapA.contains("hdmi1"));
    EXPECT_TRUE(Driver::driverMapA.contains("line"));
    EXPECT_FALSE(Driver::driverMapA.contains("mic"));
    EXPECT_FALSE(Driver::driverMapA.contains("hdmi2"));

    Driver::initV();
    EXPECT_EQ(Driver::driverMapA.value("hdmi1"), Driver::driverMapV.value("hdmi1"));
    EXPECT_FALSE(Driver::driverMapA.contains("hdmi2"));
    EXPECT_EQ(Driver::driverMapA.size(), 2);
}

TEST_F(Registry, InitialisationHappensOnce)
{
    VeskHost::setConfig(board({{"a", QVariantMap{{"chip", "7611"}}}}, {}));
    Driver::initV();
    DriverBase* first = Driver::driverMapV.value("a");
    VeskHost::setConfig(board({{"a", QVariantMap{{"chip", "7611"}}}, {"b", QVariantMap{}}}, {}));
    Driver::initV();
    EXPECT_EQ(Driver::driverMapV.size(), 1);
    EXPECT_EQ(Driver::driverMapV.value("a"), first);
}

TEST_F(Registry, UnknownNamesAnswerNeutrallyAndNeverInsert)
{
    VeskHost::setConfig(
        board({{"a", QVariantMap{{"chip", "7611"}}}}, {{"x", QVariantMap{{"chip", "tlv32"}}}}));
    Driver::initV();
    Driver::initA();
    EXPECT_EQ(Driver::getInfoV("nope"), QVariantMap());
    EXPECT_EQ(Driver::getInfoA("nope"), QVariantMap());
    EXPECT_EQ(Driver::getSamplerate("nope"), 0);
    EXPECT_EQ(Driver::callFuncV("nope", "f", 1), QVariant(false));
    EXPECT_EQ(Driver::callFuncA("nope", "f", 1), QVariant(false));
    EXPECT_FALSE(Driver::setDataV("nope", {{"k", 1}}));
    EXPECT_FALSE(Driver::setDataA("nope", {{"k", 1}}));
    EXPECT_EQ(Driver::driverMapV.keys(), QStringList{"a"});
    EXPECT_EQ(Driver::driverMapA.keys(), QStringList{"x"});

    // Known names reach the driver.
    EXPECT_EQ(Driver::callFuncA("x", "anything", 1), QVariant(true));
    EXPECT_TRUE(Driver::setDataV("a", {{"k", 1}}));
    EXPECT_EQ(Driver::driverMapV.value("a")->data.value("k"), 1);
}

// A driver that records what its change hook was told.
class Recorder : public DriverBase {
public:
    QList<QVariantMap> seen;
    void onSetData(QMap<QString, QVariant> changed) override { seen << changed; }
};

TEST(DriverSetData, ReportsOnlyChangedKeysAndAlwaysCallsTheHook)
{
    Recorder r;
    r.setData({{"a", 1}, {"b", "x"}});
    r.setData({{"a", 1}, {"b", "y"}, {"c", QVariant()}});
    r.setData({{"a", 1}, {"b", "y"}});
    ASSERT_EQ(r.seen.size(), 3);
    EXPECT_EQ(r.seen[0], (QVariantMap{{"a", 1}, {"b", "x"}}));
    // A key the map did not have compares against an invalid value: an
    // invalid new value is therefore no change.
    EXPECT_EQ(r.seen[1], (QVariantMap{{"b", "y"}}));
    EXPECT_EQ(r.seen[2], QVariantMap());
    EXPECT_EQ(r.data, (QVariantMap{{"a", 1}, {"b", "y"}}));
}

TEST(DriverInfo, CopiesHandedOutAreDetached)
{
    Recorder r;
    r.info["avalible"] = true;
    QVariantMap copy = r.getInfo();
    r.info["avalible"] = false;
    EXPECT_EQ(copy["avalible"], true);
}

}  // namespace
