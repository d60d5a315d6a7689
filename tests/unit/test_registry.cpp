// The registry from interface names to chip drivers, built from a board
// description. Every test runs in a process of its own, so each one sees the
// one-shot initialisation fresh.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QThread>

#include "driver/Driver.h"
#include "driver/DriverBase.h"
#include "driver/VeskDriverCustom.h"
#include "frame/Vesk.h"
#include "host/VeskHost.h"
#include "sim/VirtualBoard.h"

// The program's own plug-in entry: the interface's empty implementation.
extern "C" VeskDriverCustom* create()
{
    return new VeskDriverCustom;
}

namespace {

QVariantMap board(const char* json)
{
    return QJsonDocument::fromJson(json).toVariant().toMap();
}

QString classOf(DriverBase* d)
{
    return d ? d->metaObject()->className() : QString("none");
}

class Registry : public ::testing::Test {
protected:
    Registry()
    {
        vsim::Board::instance().activate();
        vsim::Board::instance().reset();
    }
    void TearDown() override { vsim::Board::instance().deactivate(); }
};

TEST_F(Registry, ChipWordsPickDriversExactlyOnceOnTheCallingThreadWithTheWholeMap)
{
    VeskHost::setConfig(board(R"({"interfaceV": {"a": {"chip": "7611", "mode": "BT1120", "did": 2},
        "b": {"chip": "7611 "}, "c": {"chip": "vesk"}, "d": {"mode": "BT1120"}}})"));
    QThread worker;
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    QMetaObject::invokeMethod(
        &context, [] { Driver::initV(); }, Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    const QMap<QString, DriverBase*> first = Driver::driverMapV;
    ASSERT_EQ(first.size(), 4);
    EXPECT_EQ(classOf(first.value("a")), "Driver7611");
    EXPECT_EQ(first.value("a")->getData(), Vesk::getConfig()["interfaceV"].toMap()["a"].toMap());
    EXPECT_EQ(first.value("a")->thread(), &worker);
    // Exact and case-sensitive; no chip word at all is still a driver, one
    // without a signal.
    EXPECT_EQ(classOf(first.value("b")), "DriverBase");
    EXPECT_EQ(classOf(first.value("c")), "DriverBase");
    EXPECT_EQ(classOf(first.value("d")), "DriverBase");
    EXPECT_EQ(Driver::getInfoV("d"), QVariantMap());

    VeskHost::setConfig(board(R"({"interfaceV": {"e": {"chip": "7611"}}})"));
    Driver::initV();
    EXPECT_EQ(Driver::driverMapV, first);
}

TEST_F(Registry, SharedNamesAndUnknownNames)
{
    VeskHost::setConfig(board(R"({
        "interfaceV": {"hdmi1": {"chip": "7611"}, "hdmi2": {"chip": "7611"}},
        "interfaceA": {"hdmi1": {"chip": "whatever"}, "hdmi2": {"alsa": "hw:1,0"},
                       "line": {"chip": "tlv32"}, "mic": {"alsa": "hw:2,0"}}})"));
    // Before the video side is built, a shared name has no audio driver.
    Driver::initA();
    EXPECT_EQ(Driver::driverMapA.keys(), QStringList{"line"});

    // The video driver serves embedded audio only when the audio entry has a chip.
    Driver::initV();
    EXPECT_EQ(Driver::driverMapA.keys(), (QStringList{"hdmi1", "line"}));
    EXPECT_EQ(Driver::driverMapA.value("hdmi1"), Driver::driverMapV.value("hdmi1"));

    EXPECT_EQ(Driver::getInfoV("nope"), QVariantMap());
    EXPECT_EQ(Driver::getInfoA("nope"), QVariantMap());
    EXPECT_EQ(Driver::getSamplerate("nope"), 0);
    EXPECT_EQ(Driver::callFuncV("nope", "f", 1), QVariant(false));
    EXPECT_EQ(Driver::callFuncA("nope", "f", 1), QVariant(false));
    EXPECT_FALSE(Driver::setDataV("nope", {{"k", 1}}));
    EXPECT_FALSE(Driver::setDataA("nope", {{"k", 1}}));
    // Lookups never insert.
    EXPECT_EQ(Driver::driverMapV.keys(), (QStringList{"hdmi1", "hdmi2"}));
    EXPECT_EQ(Driver::driverMapA.keys(), (QStringList{"hdmi1", "line"}));

    // Known names reach the driver.
    EXPECT_TRUE(Driver::setDataV("hdmi2", {{"k", 1}}));
    EXPECT_EQ(Driver::driverMapV.value("hdmi2")->data.value("k"), 1);
}

// The chip word "custom" loads the integrator's plug-in and publishes what it
// reports; a plug-in that does not say reports no signal, and one that
// cannot be loaded leaves the interface without signal, not the process
// without a capture node.
TEST_F(Registry, CustomChipPublishesWhatTheIntegratorsPluginReports)
{
    QVariantMap interfaces;
    interfaces["ext"] =
        QVariantMap{{"chip", "custom"}, {"path", VESK_TEST_RECEIVER}, {"ready", true}};
    interfaces["self"] = QVariantMap{{"chip", "custom"}, {"path", ""}};
    interfaces["gone"] = QVariantMap{{"chip", "custom"}, {"path", "/vesk/lib/missing.so"}};
    VeskHost::setConfig({{"interfaceV", interfaces}});
    Driver::initV();
    EXPECT_EQ(classOf(Driver::driverMapV.value("ext")), "DriverCustom");
    EXPECT_EQ(Driver::getInfoV("ext"), (QVariantMap{{"avalible", true},
                                                    {"width", 1920},
                                                    {"height", 1080},
                                                    {"framerate", 50},
                                                    {"interlace", false}}));
    // No path: the program itself is asked for "create" (below).
    EXPECT_EQ(Driver::getInfoV("self"), (QVariantMap{{"avalible", false}}));
    EXPECT_EQ(Driver::getInfoV("gone"), QVariantMap());
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
    // invalid new value is no change, yet the comparison leaves it in data.
    EXPECT_EQ(r.seen[1], (QVariantMap{{"b", "y"}}));
    EXPECT_EQ(r.seen[2], QVariantMap());
    EXPECT_EQ(r.data, (QVariantMap{{"a", 1}, {"b", "y"}, {"c", QVariant()}}));
}

}  // namespace
