// The microcontroller line through a real pseudo-terminal and the real
// QSerialPort: framing, dispatch, watchdog, signal check and boot mode. The
// line is the process's one line, so every case shares it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <QFile>
#include <QMutexLocker>
#include <QSerialPort>
#include <QTimer>

#include "device/VeskDevice.h"
#include "driver/mcu/DriverVesk.h"
#include "frame/VeskSys.h"
#include "output/VeskOutputVo.h"
#include "sim/EmuMcu.h"
#include "tests/host/HostTestUtil.h"

using vsim::Board;

namespace {

class Panel : public QObject {
    Q_OBJECT
public slots:
    void onKeyPress(QString key, QString act) { keys << key + ":" + act; }

public:
    QStringList keys;
};

QByteArray keyFrame(const QString& k, int pad = 0)
{
    return QString(R"({"Cmd":"key","act":"press","key":"%1","pad":"%2"}#####)")
        .arg(k, QString(pad, 'x'))
        .toUtf8();
}

QStringList logged;

class McuLine : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        Board::instance().activate();
        Board::instance().reset();
        mcu::setObserver([](const QString& e, const QVariant& v) { events << qMakePair(e, v); });
        emu = std::dynamic_pointer_cast<vsim::EmuMcu>(Board::instance().addChip(
            "mcu", "Vesk",
            {{"version", "fw 2.7"}, {"inputs", QVariantMap{{"hdmi1", QVariantMap{}}}}}));
        video = new DriverVesk;
        video->setData({{"name", "hdmi1"}, {"protocols", QStringList{"HDMI", "SDI"}}});
        audio = new DriverVesk;
        audio->setData({{"name", "hdmi1"}, {"samplerate", 0}});
        video->init();
        emu->setPeriod(0);  // from here on the tests say what the line carries
        // The answer to GetVer (Version, then cfg_info) is taken before any
        // test counts frames.
        waitFor([] {
            for (const auto& e : events)
                if (e.first == "frame" &&
                    e.second.toMap().value("message").toMap().value("Cmd") == "cfg_info")
                    return true;
            return false;
        });
        panel = new Panel;
        video->registDev(panel);
    }
    // How many of `event` the line reported, or the sum of their values.
    static qint64 count(const QString& event, bool sum = false)
    {
        qint64 n = 0;
        for (const auto& e : events)
            if (e.first == event) n += sum ? e.second.toLongLong() : 1;
        return n;
    }
    // Everything the library wrote before this has reached the peer.
    static void barrier()
    {
        static int n = 0;
        DriverVesk::instance->sendCmd({{"Cmd", "marker"}, {"n", ++n}});
        ASSERT_TRUE(waitFor([] {
            auto r = emu->received();
            return !r.isEmpty() && r.last().value("n") == n;
        }));
    }

    static inline std::shared_ptr<vsim::EmuMcu> emu;
    static inline DriverVesk *video, *audio;
    static inline Panel* panel;
    static inline QList<QPair<QString, QVariant>> events;
};

TEST(McuLineDeathTest, PortThatCannotOpenEndsTheProcessCleanly)
{
#ifdef VESK_TEST_EMULATOR
    // Under user-mode emulation the program cannot exec itself again (there is
    // no binfmt_misc), so the child is a plain fork.
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    EXPECT_EXIT(
        {
            Board::instance().activate();
            DriverVesk().init();
        },
        ::testing::ExitedWithCode(0), "can not open tty");
}

TEST_F(McuLine, FirstInstanceOwnsTheLineAndAsksForTheVersionOnce)
{
    ASSERT_TRUE(waitFor([] { return !Board::instance().readFile("/tmp/mcuVersion").isEmpty(); }));
    EXPECT_EQ(Board::instance().readFile("/tmp/mcuVersion"), "fw 2.7");
    EXPECT_TRUE(Board::instance().commands().contains("rm /tmp/*ttyAMA2  2>/dev/null"));
    auto sent =
        std::find_if(events.begin(), events.end(), [](auto& e) { return e.first == "sent"; });
    EXPECT_EQ(sent->second, "{\"Cmd\":\"GetVer\",\"SeqNum\":1000}#####");
    termios tio;
    int fd = ::open(QFile::encodeName(vsys::path("/dev/ttyAMA2")), O_RDONLY | O_NOCTTY);
    ASSERT_EQ(tcgetattr(fd, &tio), 0);
    ::close(fd);
    EXPECT_EQ(cfgetispeed(&tio), B115200);
    EXPECT_EQ(tio.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), tcflag_t(CS8));

    QSerialPort* line = DriverVesk::com;
    audio->init();
    EXPECT_EQ(DriverVesk::instance, video);
    EXPECT_EQ(DriverVesk::com, line);
    barrier();
    EXPECT_EQ(emu->count("GetVer"), 1);
}

// Each write is one write on the terminal; after it the keys dispatched so far.
TEST_F(McuLine, FramesAreCutAtTheDelimiterWhateverTheReads)
{
    struct Write {
        QByteArray bytes;
        QString keys;  // dispatched after the write
    };
    const QByteArray whole = keyFrame("split");
    const QList<QPair<const char*, QList<Write>>> table = {
        {"two frames in one read", {{keyFrame("a") + keyFrame("b"), "a:press b:press"}}},
        {"split frame", {{whole.left(9), ""}, {whole.mid(9), "split:press"}}},
        {"delimiter at the head", {{"#####" + keyFrame("c"), "c:press"}}},
        {"noise before the brace", {{"\x01\x7f boot> ok" + keyFrame("d"), "d:press"}}},
        {"not JSON", {{"no json here#####{\"Cmd\":#####" + keyFrame("e"), "e:press"}}},
        {"NUL ends the block",
         {{keyFrame("f") + '\0' + keyFrame("lost"), "f:press"}, {keyFrame("g"), "g:press"}}},
        {"wrong signature", {{"{\"Cmd\":\"onTimer\"}#####{\"Cmd\":\"keyPress\"}#####", ""}}},
        {"several kilobytes", {{keyFrame("big", 6000), "big:press"}}},
        // Past the cap the oldest text goes; the frame that ends next is whole.
        // (In pieces the pseudo-terminal's buffer takes at once.)
        {"noise beyond the cap",
         [] {
             QList<Write> pieces;
             while (pieces.size() * 4000 <= McuFramer::kCap)
                 pieces << Write{QByteArray(4000, 'x'), ""};
             return pieces << Write{keyFrame("i"), "i:press"};
         }()},
        {"delimiter split", {{keyFrame("h").chopped(3), ""}, {"###", "h:press"}}},
    };
    logged.clear();
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& t) { logged << t; });
    for (const auto& row : table) {
        for (const Write& w : row.second) {
            panel->keys.clear();
            const qint64 before = count("read", true);
            emu->sendRaw(w.bytes);
            ASSERT_TRUE(waitFor([&] { return count("read", true) >= before + w.bytes.size(); }))
                << row.first;
            EXPECT_EQ(panel->keys.join(" "), w.keys) << row.first;
        }
    }
    qInstallMessageHandler(nullptr);
    EXPECT_GT(count("dropped", true), 0) << "a line without a delimiter grows no further";
    // A method of the command's name that takes no message fails silently.
    EXPECT_FALSE(logged.join("\n").contains("onTimer") || logged.join("\n").contains("keyPress"))
        << logged.join("\n").toStdString();
    // The "#" left of a delimiter heads the frame after it.
    EXPECT_TRUE(events.last().second.toMap().value("raw").toString().startsWith("#{"));
}

TEST_F(McuLine, WatchdogReopensALineThatCarriesOnlyAPartialFrame)
{
    auto ticks = [] { return count("alive") + count("timeout"); };
    const int t0 = ticks();
    ASSERT_TRUE(waitFor([&] { return ticks() > t0; }, 3500));
    const int timeouts = count("timeout");
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& t) { logged << t; });
    emu->sendRaw(R"({"Cmd":"key","key":"late",)");
    emu->sendRaw(R"("act":"press")", 1.5);
    ASSERT_TRUE(waitFor([&] { return ticks() > t0 + 1; }, 3500));
    qInstallMessageHandler(nullptr);
    EXPECT_EQ(count("timeout"), timeouts + 1);
    EXPECT_TRUE(logged.contains("tty time out"));
    EXPECT_TRUE(DriverVesk::com->isOpen());
    // The text before the reopen is kept and completed by what follows it.
    panel->keys.clear();
    emu->sendRaw("}#####");
    ASSERT_TRUE(waitFor([] { return !panel->keys.isEmpty(); }));
    EXPECT_EQ(panel->keys, QStringList{"late:press"});
}

TEST_F(McuLine, SignalCheckFiltersTheVideoSideAndTheAudioSideCarriesTheRate)
{
    auto st = [](int lock, int w, int h, int f, QVariantMap more = {}) {
        return more.insert({{"lock", lock}, {"w", w}, {"h", h}, {"f", f}}), more;
    };
    auto pub = [](bool on, QString protocol, int w, int h, int f, QVariantMap more = {}) {
        more.insert({{"avalible", on}, {"protocol", protocol}, {"width", w}, {"height", h}});
        return more.insert({{"framerate", f}, {"interlace", more.value("interlace", false)}}), more;
    };
    const QVariantMap kept;  // the pass is dropped, info stays as it was
    struct Row {
        QVariantMap status, settings, video;
        int samplerate;
    };
    // clang-format off
    const QList<Row> table = {
        {st(1, 1920, 1080, 99, {{"as", 48000}}), {}, pub(true, "HDMI", 1920, 1080, 30), 48000},
        {st(1, 1920, 1080, 59), {}, kept, 0},
        {st(1, 1920, 1080, 59), {{"check", false}}, pub(true, "HDMI", 1920, 1080, 59), 0},
        {st(2, 1920, 540, 50, {{"p", 0}}), {{"check", true}}, kept, 0},
        {st(2, 1920, 1080, 50, {{"p", 0}, {"ddr", 1}}), {},
         pub(true, "SDI", 1920, 1080, 50, {{"interlace", true}, {"double", true}}), 0},
        {st(2, 1280, 720, 60, {{"p", 1}}), {}, pub(true, "SDI", 1280, 720, 60), 0},
        {st(0, 123, 45, 7, {{"as", 44100}}), {}, pub(false, "HDMI", 123, 45, 7), 0},
        {st(3, 0, 0, 0), {{"check", false}}, pub(true, "", 0, 0, 0), 0},  // beyond "protocols"
    };
    // clang-format on
    for (int i = 0; i < table.size(); ++i) {
        emu->setInput("hdmi1", table[i].status);
        // This row's status itself, not whatever frame the line carried first.
        ASSERT_TRUE(waitFor([&] {
            QMutexLocker l(&DriverVesk::mutex);
            QVariantMap got = DriverVesk::infoMap.value("hdmi1").toMap();
            got.remove("Cmd");
            got.remove("name");
            return got == table[i].status;
        }));
        video->setData(table[i].settings);
        const QVariantMap before = video->info;
        video->onCheck();
        audio->onCheck();
        EXPECT_EQ(video->info, table[i].video.isEmpty() ? before : table[i].video) << i;
        EXPECT_EQ(audio->info, (QVariantMap{{"samplerate", table[i].samplerate}})) << i;
    }
    DriverVesk other;
    other.setData({{"name", "never reported"}});
    other.onCheck();
    EXPECT_TRUE(other.info.isEmpty());
}

TEST_F(McuLine, ConfigurationIsCorrectedOnlyWhenTheBootModeDiffers)
{
    const QList<std::tuple<QString, QString, QString>> table = {
        {"", "on", ""},
        {"standby", "standby_redon", ""},
        {"standby", "on", "standby_redon"},
        {"on", "standby", "on"},
        {"on", "standby_redon", ""},  // "red-on" holds "on": a substring, not the mode
        {"on", "on", ""},
    };
    for (const auto& [boot, reported, sent] : table) {
        const int configs = emu->count("config");
        const int frames = count("frame");
        DriverVesk::instance->bootMode = boot;
        emu->send({{"Cmd", "cfg_info"}, {"on_mode", reported}, {"cfgtype", 7}});
        // A correction is reported back by the peer: wait for that echo too.
        ASSERT_TRUE(waitFor([&] { return count("frame") >= frames + (sent.isEmpty() ? 1 : 2); }))
            << boot.toStdString();
        barrier();
        ASSERT_EQ(emu->count("config"), configs + !sent.isEmpty()) << boot.toStdString();
        if (sent.isEmpty()) continue;
        const auto got = emu->received();  // the correction, then the barrier's marker
        EXPECT_EQ(got[got.size() - 2], (QVariantMap{{"Cmd", "config"},
                                                    {"brdtype", "7"},
                                                    {"on_mode", sent},
                                                    {"off_mode", "off_red_on"},
                                                    {"KeyConfirm", 1000},
                                                    {"SeqNum", 100}}));
    }
}

TEST_F(McuLine, DeviceNodeTakesThePanelKeysAndSendsPowerOffAndTheBootMode)
{
    VeskDevice dev;
    QStringList raised;
    QObject::connect(&dev, &VeskObject::raised,
                     [&](QString name, QVariant v) { raised << name + "=" + v.toString(); });
    video->registDev(&dev);
    emu->sendRaw(keyFrame("ok"));
    ASSERT_TRUE(waitFor([&] { return !raised.isEmpty(); }));
    EXPECT_EQ(raised, QStringList{"keyPress=ok"});

    EXPECT_EQ(dev.poweroff(), QVariant(true));
    barrier();
    EXPECT_TRUE(emu->received().contains({{"Cmd", "power"}, {"act", "off"}, {"SeqNum", 100}}));
    // The mode waits for the panel's next configuration report.
    EXPECT_EQ(dev.setBootMode("standby"), QVariant(true));
    EXPECT_EQ(DriverVesk::instance->bootMode, "standby");
    DriverVesk::instance->bootMode.clear();
}

// With the panel on the line, the display's serialiser learns its rate from
// it; "user" and narrow timings are only known on this road.
TEST_F(McuLine, DisplaySerialiserRateGoesThroughThePanel)
{
    VeskOutputVo vo;
    const struct {
        const char* output;
        int width, sel0, sel1;
    } cases[] = {{"user", 960, 0, 1},
                 {"1080P50", 1920, 0, 1},
                 {"PAL", 720, 1, 0},
                 {"576p50", 720, 1, 0},
                 {"720p60", 1280, 0, 0}};
    for (const auto& c : cases) {
        vo.data["output"] = c.output;
        vo.width = c.width;
        vo.onTimer();
        barrier();
        const auto got = emu->received();
        ASSERT_GE(got.size(), 2);
        EXPECT_EQ(
            got[got.size() - 2],
            QVariantMap(
                {{"Cmd", "2972Cfg"}, {"SeqNum", 100}, {"RateSel0", c.sel0}, {"RateSel1", c.sel1}}))
            << c.output;
    }
    EXPECT_TRUE(Board::instance().commands().filter("gpio124").isEmpty());
}

}  // namespace

#include "test_mcu_line.moc"
