// The audio codec drivers against their emulators on the virtual board: each
// codec's request or register sequence for one configuration that exercises
// every rule, the failure words, and a codec that is missing.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>

#include "driver/audio/DriverCS5368.h"
#include "driver/audio/DriverCx207.h"
#include "driver/audio/DriverES8388.h"
#include "driver/audio/DriverTlv32.h"
#include "driver/audio/Es8388Ioctl.h"
#include "driver/audio/Tlv32Ioctl.h"
#include "sim/EmuCodecs.h"
#include "sim/VirtualBoard.h"

using namespace testing::internal;  // stdout and stderr capture
using vsim::Board;
using Writes = std::vector<std::pair<uint16_t, uint8_t>>;

namespace {

class Codecs : public ::testing::Test {
protected:
    Codecs() { Board::instance().activate(), Board::instance().reset(); }
    ~Codecs() override { Board::instance().deactivate(); }
    template <typename Emu>
    std::shared_ptr<Emu> add(const char* type)
    {
        return std::dynamic_pointer_cast<Emu>(Board::instance().addChip(type, type, {}));
    }
};

QVariantMap json(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8()).toVariant().toMap();
}

// "reg=value ..." in hex, as the chip's log would read.
Writes regs(const QString& text)
{
    Writes out;
    for (const QString& w : text.split(' ', Qt::SkipEmptyParts))
        out.push_back({uint16_t(w.section('=', 0, 0).toUInt(nullptr, 16)),
                       uint8_t(w.section('=', 1).toUInt(nullptr, 16))});
    return out;
}

// A request, the bits cleared and the bits set before it.
using Step = std::tuple<unsigned long, uint32_t, uint32_t>;

// The control blocks the kernel driver recorded, against the steps: the
// words beyond the fields named so far are the kernel driver's.
template <size_t N>
void expectFields(const std::vector<vsim::CodecKernelDevice::Request>& got, const Step (&steps)[N])
{
    ASSERT_EQ(got.size(), N);
    uint32_t named = 0, value = 0;
    for (size_t i = 0; i < N; i++) {
        auto [request, clear, set] = steps[i];
        named |= clear | set;
        value = (value & ~clear) | set;
        EXPECT_EQ(got[i].request, request) << "step " << i;
        EXPECT_EQ(*reinterpret_cast<const uint32_t*>(got[i].block.constData()) & named, value) << i;
    }
}

}  // namespace

TEST_F(Codecs, Tlv32StartSequenceSetsEachFieldBeforeItsRequest)
{
    const uint32_t slot = 0x3F80;  // bits 7..13
    const Step steps[] = {
        {0x33, 0x7, 0},     {0x24, 0x27C000, 0},    {0x34, 0x3000000, 0},   {0x22, 0, 0},
        {0x21, 0, 0},       {0x25, 0x20 | slot, 0}, {0x26, 0, 0},           {0x27, 0, 0x40},
        {0x28, 0, 0},       {0x23, 0x180000, 0},    {0x16, slot, 0x20},     {0x19, 0, 0},
        {0x17, slot, 0x60}, {0x20, 0, 0},           {0x30, 0x20 | slot, 0}, {0x31, 0, 0},
        {0x00, slot, 0},    {0x01, 0, 0},           {0x08, slot, 0x60},     {0x11, 0, 0}};
    auto emu = add<vsim::EmuTlv32>("tlv32");
    CaptureStdout();
    EXPECT_EQ(SAMPLE_Tlv320_CfgAudio3(), 0);
    EXPECT_EQ(GetCapturedStdout(),
              "Set aic31 ok: bMaster = 0, enWorkmode = 2, enSamplerate = 48000\n");
    const auto got = emu->device()->requests();
    expectFields(got, steps);
    for (size_t i = 1; i < got.size(); i++)
        EXPECT_EQ(got[i].block.mid(8), QByteArray("\x80\xBB\0\0", 4));
}

TEST_F(Codecs, Tlv32WritesTheBaseStateThenEverySubMapWithItsGainArithmetic)
{
    auto emu = add<vsim::EmuTlv32>("tlv32");
    DriverTlv32 driver;
    const QString base = "13=84 15=80 16=84 18=80 1A=0 1D=0 19=80 ";
    // Configuration, then the writes after the base state.
    const std::pair<const char*, const char*> cases[] = {
        {R"({"input": {"loop": true, "gain": 0.5}, "output": {"gain": 1.0},
             "mic1": {"mute": true, "gain": 0.3}, "mic2": {"gain": 0.25},
             "line": {"gain": 0.5}, "extend": {"gain": 0.5}})",
         "2E=80 3F=80 F=18 10=18 33=9F 41=9F 13=FC 18=F8 15=B0 16=B4 11=4F 12=F4 2B=3C 2C=3C"},
        // Missing sub-maps and keys read as unmuted at gain 0.
        {R"({"input": {"mute": true}, "output": {"gain": 0.5}, "mic1": {"gain": 1.0},
             "line": {"mute": true}, "extend": {"mute": true}})",
         "2E=0 3F=0 F=80 10=80 33=4F 41=4F 13=84 18=80 15=C0 16=C4 11=FF 12=FF 2B=80 2C=80"},
    };
    for (const auto& [config, paths] : cases) {
        emu = add<vsim::EmuTlv32>("tlv32");
        driver.setData({{"driver", json(config)}});
        EXPECT_EQ(emu->registers()->writes(), regs(base + paths));
    }
    // An empty map writes nothing; a gain no register can hold leaves its
    // path alone, with a line that says so.
    emu = add<vsim::EmuTlv32>("tlv32");
    driver.setData({{"driver", QVariantMap()}});
    EXPECT_TRUE(emu->registers()->writes().empty());
    CaptureStderr();
    driver.setData({{"driver", json(R"({"extend": {"gain": 1e300}})")}});
    EXPECT_NE(GetCapturedStderr().find("extend gain"), std::string::npos);
    EXPECT_EQ(emu->registers()->writes().size(), 19u);  // all but the two of "extend"
}

TEST_F(Codecs, Es8388ChainSetsInputPowerFormatAndLevels)
{
    const uint32_t in = 0x18, p = 1u << 26, lvl = 0xFFu << 17, out = 0x1Eu << 17;
    Step steps[] = {
        {kEs8388Reset, 0, 0}, {0x0B, in, 2 << 3},     {0x0C, in, 2 << 3},     {0x19, p, 0},
        {0x1A, p, 0},         {0x1B, p, 0},           {0x1C, p, 0},           {0x05, 1u << 16, 0},
        {0x03, 1u << 10, 0},  {0x04, 0, 0},           {0x06, 1u << 10, 0},    {0x09, 0x1800, 0},
        {0x0A, 0x1800, 0},    {0x07, 0x8000, 0x6000}, {0x08, 0x8000, 0x6000}, {0x1D, p, 0},
        {0x1E, p, 0},         {0x1F, 0, p},           {0x20, 0, p},           {0x21, 0, p},
        {0x22, 0, p},         {0x0D, lvl, 0},         {0x0E, lvl, 0},         {0x0F, lvl, 0},
        {0x10, lvl, 0},       {0x11, 1u << 25, 0},    {0x14, lvl, out},       {0x16, lvl, out},
        {0x15, lvl, out},     {0x17, lvl, out},       {0x12, lvl, 0},         {0x13, lvl, 0},
        {0x18, 1u << 25, 0}};
    for (size_t i = 1; i < std::size(steps); i++)
        std::get<0>(steps[i]) = es8388Request(unsigned(std::get<0>(steps[i])));
    EXPECT_EQ(kEs8388Reset, 0x40044523ul);
    auto emu = add<vsim::EmuES8388>("ES8388");
    DriverES8388 driver;
    driver.data["input"] = 6;  // low two bits: 2
    driver.init();
    expectFields(emu->device()->requests(), steps);
}

TEST_F(Codecs, Cs5368SetsBothConvertersOncePerProcess)
{
    auto emu = add<vsim::EmuCS5368>("cs5368");
    DriverCS5368::inited = false;
    DriverCS5368().init();
    DriverCS5368().init();
    for (uint8_t addr : {0x98, 0x9A})
        EXPECT_EQ(emu->converter(addr)->writes(), regs("1=98 6=0")) << int(addr);
}

TEST_F(Codecs, Cx207HoldsConfigurationUntilUpThenWritesOnlyChangedOptions)
{
    auto emu = add<vsim::EmuCx207>("cx207");
    DriverCx207::curVal = DriverCx207::lastAecLevel = -1;
    DriverCx207 driver;
    const QString omni = R"("omni": {"mute0": true, "aec": true, "gain0": 7)";
    driver.setData(json(R"({"main": {"gain": 10}, "output": {"gain0": 5}})"));
    QVariantMap held = json(QString(R"({%1, "aecgain": 100, "boost": 2}})").arg(omni)), eq;
    for (int n = 0; n < 12; n++) eq[QString("eq%1").arg(n)] = n == 0 ? 6 : n == 3 ? 0 : -6;
    held["eq"] = eq;
    driver.setData(held);
    EXPECT_TRUE(emu->chip()->writes().empty());

    QElapsedTimer t;
    t.start();
    driver.init();
    EXPECT_GE(t.elapsed(), 1500);  // start-up and the option word's commit
    // The reset lines before the chip, which does not answer in reset.
    EXPECT_EQ(Board::instance().commands().filter("/value").join(";"),
              "echo 1 > /sys/class/gpio/gpio1/value;echo 0 > /sys/class/gpio/gpio2/value;"
              "echo 1 > /sys/class/gpio/gpio2/value");
    // Only the last map given before the end of start-up is applied: option
    // word 0x11 with level 100 (35, 32767), then bands of 6 dB (2043), 0 dB
    // (1024) and -6 dB (513).
    EXPECT_EQ(emu->chip()->writes(),
              regs("40A=80 40A=81 117D=FF 11B5=23 11B6=23 10FA=FF 10FB=7F 117A=11 117D=FF 1015=7 "
                   "1016=7 101E=6 1138=FB 1139=7 113A=1 113B=2 113C=1 113D=2 113E=0 113F=4 1140=1 "
                   "1141=2 1142=1 1143=2 1144=1 1145=2 1146=1 1147=2 1148=1 1149=2 114A=1 114B=2 "
                   "114C=1 114D=2 114E=1 114F=2 117D=FF"));

    // Channel steps and mutes; unchanged options cost no write and no wait,
    // a new level does.
    const std::pair<QString, Writes> cases[] = {
        {R"({"main": {"gain": 10, "gain0": 0, "mute0": true, "gain1": 3},
             %1, "aecgain": 100, "gain1": 9}, "output": {"gain0": 5, "gain1": 9, "mute0": true}})",
         regs("1013=A 1014=A 101B=97 101C=19 1015=7 1016=9 101E=2 100D=5 100E=5 1012=9 1018=3")},
        {R"({%1, "aecgain": 50, "agc": true, "boost": 1}})",
         regs("11B5=14 11B6=14 10FA=FF 10FB=3F 117A=19 117D=FF 1015=7 1016=7 101E=4")}};
    for (const auto& [config, writes] : cases) {
        emu->chip()->clearWrites();
        t.restart();
        driver.onSetData(json(config.arg(omni)));
        EXPECT_EQ(emu->chip()->writes(), writes);
        EXPECT_EQ(t.elapsed() >= 500, writes.front().first == 0x11B5);
    }
}

TEST_F(Codecs, FailuresAreNamedAndStopWhereTheyShould)
{
    // Codec, failing request (0: the device is missing), requests made, what
    // is printed. Without "input" the ES8388's selection is 1.
    const std::tuple<const char*, unsigned long, size_t, const char*> cases[] = {
        {"tlv32", kTlv32Reset, 20, "[Func]:SAMPLE_Tlv320_CfgAudio3 [Line]:"},
        {"tlv32", 0x34, 3, "set tlv320aic31 trans_mode err\n"},
        {"tlv32", 0x22, 4, "ioctl err1\n"},
        {"tlv32", 0x21, 5, "ioctl err2\n"},
        {"tlv32", 0x26, 20, "Set aic31 ok"},
        {"tlv32", 0, 0, "can't open tlv320,/dev/tlv320aic31\n"},
        {"ES8388", kEs8388Reset, 1, "[Func]:init [Line]:33 [Info]:es8388 reset failed\n"},
        {"ES8388", es8388Request(0x05), 8, "[Info]:es83888 set master/slave fail.\n"},
        {"ES8388", es8388Request(0x18), 33, "[Info]:es83888 set DAC unmute fail.\n"},
        {"ES8388", 0, 0, "can't open es8388."}};
    for (auto [type, failing, requests, text] : cases) {
        auto emu = add<vsim::CodecKernelEmulator>(type);
        emu->setSource({{"fail", qulonglong(failing)}});
        if (!failing)
            Board::instance().setAbsent(type[0] == 't' ? "/dev/tlv320aic31" : "/dev/es8388", true);
        CaptureStdout();
        CaptureStderr();
        type[0] == 't' ? DriverTlv32().init() : DriverES8388().init();
        const std::string out = GetCapturedStderr() + GetCapturedStdout();
        EXPECT_NE(out.find(text), std::string::npos) << out;
        const auto got = emu->device()->requests();
        EXPECT_EQ(got.size(), requests) << type << " " << failing;
        EXPECT_TRUE(type[0] != 'E' || requests < 2 || (uint8_t(got[1].block[0]) & 0x18) == 8);
    }
    // Converters on a bus that is not there.
    CaptureStdout();
    DriverCS5368::inited = false;
    DriverCS5368().init();
    EXPECT_EQ(QString::fromStdString(GetCapturedStdout()).count("Open /dev/i2c-0 error!"), 4);
}
