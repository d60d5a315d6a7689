// The LT8619C HDMI/DVI receiver's own thread. The chip has no interrupt line
// to the processor, so this thread follows the input from clock to PLL lock
// to stable sync, gives the BT.1120 output the input's timing and, about a
// second after sync came, publishes the format in class-wide values that
// DriverLT8619::onCheck copies. The chip work keeps the plain-function style
// of the chip's reference code (LT8619C_*), over one I2C address.
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

    // What the state machine is doing, for a person watching the input.
    QMap<QString, QVariant> diagnostics() const;
    // Passes of the poll loop so far (a pass ends just before its 100 ms wait).
    int passes() const { return passCount.load(); }

    // Frame length in 25 MHz ticks to a whole frame rate.
    static int GetFPS(uint32_t frame_counter);

    static constexpr uint8_t I2CADR = 0x32;  // eight-bit form, bus 1
    static constexpr int LT8619C_OUTPUTMODE = 10;
    static constexpr int LT8619C_OUTPUTCOLOR = 32;
    static const uint8_t ONCHIP_EDID[256];

    // Output modes of LT8619C_RXInit.
    enum {
        OUTPUT_RGB888 = 0,
        OUTPUT_RGB666,
        OUTPUT_RGB565,
        OUTPUT_YCBCR444,
        OUTPUT_YCBCR422_16BIT,
        OUTPUT_YCBCR422_20BIT,
        OUTPUT_YCBCR422_24BIT,
        OUTPUT_BT656_8BIT,
        OUTPUT_BT656_10BIT,
        OUTPUT_BT656_12BIT,
        OUTPUT_BT1120_16BIT,
        OUTPUT_BT1120_20BIT,
        OUTPUT_BT1120_24BIT,
        OUTPUT_LVDS_1_PORT,
        OUTPUT_LVDS_2_PORT,
    };
    // Output colours.
    enum { OUTPUT_COLOR_RGB = 0, OUTPUT_COLOR_YCBCR422 = 32, OUTPUT_COLOR_YCBCR444 = 64 };

protected:
    void run() override;

private:
    // Register access on I2CADR; the bank is whatever 0xFF last selected.
    uint8_t HDMI_ReadI2C_Byte(uint8_t reg);
    void HDMI_WriteI2C_Byte(uint8_t reg, uint8_t value);
    // n single-byte writes to one register (the EDID port autoincrements).
    void HDMI_WriteI2C_ByteN(uint8_t reg, const uint8_t* bytes, int n);
    void HDMI_ReadI2C_ByteN(uint8_t reg, uint8_t* bytes, int n);
    void Delay_ms(int ms);

    void LT8619C_Init();
    void LT8619C_Reset();
    void LT8619C_SetHPD(bool level);
    bool LT8619C_CheckChipID();
    void LT8619C_EDIDSet(const uint8_t* edid);
    void LT8619C_RXInit();
    void LT8619C_MainLoop();
    uint8_t LT8619C_ClkDet();
    void LT8619C_GetInputInfo();
    void LT8619C_CSCConversion();
    void LT8619C_VideoCheck();
    void LT8619C_BTSetting();
    void Debug_LT8619C_PrintRXinfo();
    // Nothing calls it: the board takes its audio elsewhere.
    uint32_t LT8619C_GetAudioSamplingRate();

    void clearRecord();
    void doubleField(uint8_t& c);
    void noteStage();

    DriverBase* bus;

    // The receiver record: 0 clock, 2 PLL lock, 3 stable sync, 4 HDMI,
    // 5 VIC, 6 colour space, 7 depth, 8 colorimetry, 9 extended
    // colorimetry, 10 quantisation, 11 pixel repetition.
    uint8_t LT8619C_RXStatus[24] = {};
    uint8_t* pLT8619C_RXStatus = LT8619C_RXStatus;

    // Measured timing (per field for an interlaced input until doubled).
    uint16_t h_active = 0, v_active = 0, h_total = 0, v_total = 0;
    uint16_t h_syncwidth = 0, h_bkporch = 0;
    uint8_t v_syncwidth = 0, v_bkporch = 0;
    bool h_syncpol = false, v_syncpol = false;
    uint32_t frame_counter = 0;  // 24 bits
    uint8_t u8Interlace = 0;

    uint16_t print_en = 0;     // stable passes, up to 10
    uint32_t LoopCounter = 0;  // passes with a locked clock
    bool clockSeen = false;    // the last look found a clock

    // Mirrors for diagnostics(), which runs on other threads.
    std::atomic<int> stageCode{0};
    std::atomic<int> countMirror{0};
    std::atomic<int> hdmiMirror{-1};
    std::atomic<int> vicMirror{0};
    std::atomic<uint32_t> activeMirror{0};  // h_active << 16 | v_active
    std::atomic<uint32_t> counterMirror{0};
    std::atomic<int> passCount{0};
};
