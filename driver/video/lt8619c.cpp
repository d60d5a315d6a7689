#include "driver/video/lt8619c.h"

#include <QDebug>
#include <QString>
#include <cstring>

#include "driver/video/LT8619.h"
#include "frame/VeskSys.h"

uint8_t LT8619C_RXStatus[24];
uint8_t* pLT8619C_RXStatus = LT8619C_RXStatus;
uint16_t h_active, v_active, h_total, v_total;
uint16_t h_syncwidth, h_bkporch;
uint8_t v_syncwidth, v_bkporch;
bool h_syncpol, v_syncpol;
uint32_t frame_counter;
uint8_t u8Interlace;
uint16_t print_en;
uint32_t LoopCounter;

// The EDID the receiver shows a source: 1080p60 preferred, the common CEA
// formats (1080i among them), two-channel PCM, an HDMI vendor block.
const uint8_t ONCHIP_EDID[256] = {
    0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x5A, 0x6B, 0x19, 0x86, 0x01, 0x00, 0x00, 0x00,
    0x01, 0x22, 0x01, 0x03, 0x80, 0x3C, 0x22, 0x78, 0x0A, 0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26,
    0x0F, 0x50, 0x54, 0x21, 0x08, 0x00, 0x81, 0x00, 0x81, 0xC0, 0x95, 0x00, 0xA9, 0xC0, 0xD1, 0xC0,
    0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58, 0x2C,
    0x45, 0x00, 0x58, 0x54, 0x21, 0x00, 0x00, 0x1E, 0x01, 0x1D, 0x00, 0x72, 0x51, 0xD0, 0x1E, 0x20,
    0x6E, 0x28, 0x55, 0x00, 0x58, 0x54, 0x21, 0x00, 0x00, 0x1E, 0x00, 0x00, 0x00, 0xFD, 0x00, 0x17,
    0x4C, 0x0F, 0x50, 0x0F, 0x00, 0x0A, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x00, 0x00, 0x00, 0xFC,
    0x00, 0x56, 0x45, 0x53, 0x4B, 0x20, 0x4C, 0x54, 0x38, 0x36, 0x31, 0x39, 0x0A, 0x20, 0x01, 0x73,
    0x02, 0x03, 0x1C, 0x70, 0x49, 0x90, 0x1F, 0x04, 0x13, 0x05, 0x14, 0x02, 0x11, 0x01, 0x23, 0x09,
    0x07, 0x07, 0x83, 0x01, 0x00, 0x00, 0x65, 0x03, 0x0C, 0x00, 0x10, 0x00, 0x01, 0x1D, 0x80, 0x18,
    0x71, 0x1C, 0x16, 0x20, 0x58, 0x2C, 0x25, 0x00, 0x58, 0x54, 0x21, 0x00, 0x00, 0x9E, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x64,
};

namespace {

constexpr uint16_t kPublishAfter = 10;  // stable passes, about a second

void clearRecord()
{
    std::memset(LT8619C_RXStatus, 0, sizeof LT8619C_RXStatus);
}

// The chip measures an interlaced input by field: make the frame's values.
void doubleField(uint8_t& c)
{
    v_active = uint16_t(v_active * 2);
    c |= 0x08;
    v_total = uint16_t(v_total % 2 ? v_total * 2 - 1 : v_total * 2 + 1);
}

}  // namespace

void HDMI_WriteI2C_ByteN(uint8_t reg, const uint8_t* bytes, int n)
{
    for (int i = 0; i < n; i++) HDMI_WriteI2C_Byte(reg, bytes[i]);
}

void HDMI_ReadI2C_ByteN(uint8_t reg, uint8_t* bytes, int n)
{
    for (int i = 0; i < n; i++) bytes[i] = HDMI_ReadI2C_Byte(reg);
}

void Delay_ms(int ms)
{
    vsys::usleep(int64_t(ms) * 1000);
}

void LT8619C_Init()
{
    clearRecord();
    pLT8619C_RXStatus = LT8619C_RXStatus;
    LT8619C_Reset();
    LT8619C_SetHPD(false);
    LT8619C_CheckChipID();  // a wrong ID is only logged: the board may carry a later revision
    // A source must see the hot-plug line low for this long to read the EDID
    // again when it comes back.
    Delay_ms(3000);
    LT8619C_EDIDSet(ONCHIP_EDID);
    LT8619C_RXInit();
    LT8619C_SetHPD(true);
}

void LT8619C_Reset()
{
    // The reset line is not wired to the processor here; only the settling
    // time is kept.
    Delay_ms(100);
    Delay_ms(50);
}

void LT8619C_SetHPD(bool level)
{
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    uint8_t r = HDMI_ReadI2C_Byte(0x06);
    HDMI_WriteI2C_Byte(0x06, level ? (r | 0x08) : (r & 0xF7));
}

bool LT8619C_CheckChipID()
{
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    const uint8_t id0 = HDMI_ReadI2C_Byte(0x00);
    const uint8_t id1 = HDMI_ReadI2C_Byte(0x01);
    if (id0 == 0x16 && id1 == 0x04) {
        qDebug().noquote() << "ChipID is OK:0x1604";
        return true;
    }
    qDebug().noquote() << "ChipID Fail!!!!";
    return false;
}

void LT8619C_EDIDSet(const uint8_t* edid)
{
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    HDMI_WriteI2C_Byte(0x8E, 0x07);  // EDID shadow writable
    HDMI_WriteI2C_Byte(0x8F, 0x00);  // from byte 0
    HDMI_WriteI2C_ByteN(0x90, edid, 256);
    HDMI_WriteI2C_Byte(0x8E, 0x02);
}

void LT8619C_RXInit()
{
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    HDMI_WriteI2C_Byte(0x2C, HDMI_ReadI2C_Byte(0x2C) | 0x30);
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    HDMI_WriteI2C_Byte(0x80, 0x08);

    struct Mode {
        const char* log;
        uint8_t r60, rA0, r6D, r6E;
    };
    static const Mode modes[] = {
        {"set to OUTPUT_RGB888", 0x00, 0x50, 0x07, 0x00},
        {"set to OUTPUT_RGB666", 0x00, 0x50, 0x80, 0x00},
        {"set to OUTPUT_RGB565", 0x00, 0x50, 0xC0, 0x00},
        {"set to OUTPUT_YCBCR444", 0x00, 0x50, 0x00, 0x00},
        {"set to OUTPUT_YCBCR422_16BIT", 0x00, 0x50, 0x00, 0x00},
        {"set to OUTPUT_YCBCR422_20BIT", 0x00, 0x50, 0x40, 0x00},
        {"set to OUTPUT_YCBCR422_24BIT", 0x00, 0x50, 0x20, 0x00},
        {"set to OUTPUT_BT656_8BIT", 0x34, 0x51, 0x00, 0x07},
        {"set to OUTPUT_BT656_10BIT", 0x34, 0x51, 0x00, 0x04},
        {"set to OUTPUT_BT656_12BIT", 0x34, 0x51, 0x00, 0x00},
        {"set to OUTPUT_BT1120_16BIT", 0x33, 0x50, 0x08, 0x07},
        {"set to OUTPUT_BT1120_20BIT", 0x33, 0x50, 0x00, 0x05},
        {"set to OUTPUT_BT1120_24BIT", 0x33, 0x50, 0x00, 0x00},
    };
    const int mode = LT8619C_OUTPUTMODE;
    if (mode == OUTPUT_LVDS_1_PORT || mode == OUTPUT_LVDS_2_PORT) {
        // The LVDS transmitter is not fitted on any board this library serves.
        qDebug().noquote() << (mode == OUTPUT_LVDS_1_PORT ? "set to OUTPUT_LVDS_1_PORT"
                                                          : "set to OUTPUT_LVDS_2_PORT");
        return;
    }
    if (mode < 0 || mode > OUTPUT_BT1120_24BIT) return;
    HDMI_WriteI2C_Byte(0x07, 0xFF);
    HDMI_WriteI2C_Byte(0xA8, 0x0F);
    HDMI_WriteI2C_Byte(0x96, 0x71);
    HDMI_WriteI2C_Byte(0xA3, 0x44);
    HDMI_WriteI2C_Byte(0xA2, 0x22);
    HDMI_WriteI2C_Byte(0xA4, 0x10);
    const Mode& m = modes[mode];
    HDMI_WriteI2C_Byte(0x60, m.r60);
    HDMI_WriteI2C_Byte(0xA0, m.rA0);
    HDMI_WriteI2C_Byte(0x6D, m.r6D);
    HDMI_WriteI2C_Byte(0x6E, m.r6E);
    if (mode == OUTPUT_RGB666 || mode == OUTPUT_RGB565) HDMI_WriteI2C_Byte(0x5F, 0x38);
    qDebug().noquote() << m.log;
}

// ---------------------------------------------------------------- the loop

void LT8619C_MainLoop()
{
    if (LT8619C_ClkDet() == 0) {
        print_en = 0;
        return;
    }
    LoopCounter++;
    // A settled input costs bus traffic once a second only.
    if (print_en == kPublishAfter && LoopCounter % 10 != 0) return;
    LT8619C_GetInputInfo();
    LT8619C_CSCConversion();
    LT8619C_VideoCheck();
    LT8619C_BTSetting();
    Debug_LT8619C_PrintRXinfo();
}

uint8_t LT8619C_ClkDet()
{
    uint8_t* rx = pLT8619C_RXStatus;
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    if (!(HDMI_ReadI2C_Byte(0x44) & 0x08)) {
        if (rx[0]) {
            LT8619::enable = false;
            qDebug().noquote() << "clk disappear!!!";
        }
        clearRecord();
        return 0;
    }
    if (rx[0]) {
        if (HDMI_ReadI2C_Byte(0x87) & 0x10) {
            rx[2] = 1;
            return 1;
        }
        clearRecord();
        qDebug().noquote() << "pll unlock#####$$";
        return 0;
    }

    // The clock has just come: restart the receiver's PLL on it. This pass
    // ends here either way; the next one looks at the lock.
    rx[0] = 1;
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    HDMI_WriteI2C_Byte(0x97, HDMI_ReadI2C_Byte(0x97) & 0x3F);
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    HDMI_WriteI2C_Byte(0x1B, 0x00);
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    const uint8_t a = HDMI_ReadI2C_Byte(0x0E);
    const uint8_t b = HDMI_ReadI2C_Byte(0x09);
    HDMI_WriteI2C_Byte(0x0E, a & 0x87);
    HDMI_WriteI2C_Byte(0x09, b & 0x8F);
    Delay_ms(5);
    HDMI_WriteI2C_Byte(0x0E, a | 0x40);
    Delay_ms(5);
    HDMI_WriteI2C_Byte(0x09, b | 0x70);
    HDMI_WriteI2C_Byte(0x0E, a | 0x38);
    HDMI_WriteI2C_Byte(0x0E, 0xFD);
    HDMI_WriteI2C_Byte(0x0E, 0xFF);
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    Delay_ms(5);
    if (HDMI_ReadI2C_Byte(0x87) & 0x10) {
        rx[2] = 1;
        qDebug().noquote() << "clk detected!!!";
        qDebug().noquote() << "pll lock!!!";
    } else {
        clearRecord();
        qDebug().noquote() << "clk detected!!!";
        qDebug().noquote() << "pll unlock#####";
    }
    return 0;
}

void LT8619C_GetInputInfo()
{
    uint8_t* rx = pLT8619C_RXStatus;
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    if (rx[0] && rx[2]) {
        const uint8_t sync = HDMI_ReadI2C_Byte(0x13);
        if (!(sync & 0x01)) {
            if (rx[3]) qDebug().noquote() << "Hsync unstable#####";
            rx[3] = 0;
            return;
        }
        if (!rx[3]) {
            rx[3] = 1;
            // Sync must hold for 80 ms before the input is believed.
            for (int i = 0; i < 8; i++) {
                Delay_ms(10);
                if (!(HDMI_ReadI2C_Byte(0x13) & 0x01)) {
                    rx[3] = 0;
                    return;
                }
            }
            HDMI_WriteI2C_Byte(0xFF, 0x60);
            const uint8_t r = HDMI_ReadI2C_Byte(0x0D);
            HDMI_WriteI2C_Byte(0x0D, r & 0xF8);
            HDMI_WriteI2C_Byte(0x0D, r | 0x06);
            HDMI_WriteI2C_Byte(0x0D, r | 0x01);
            HDMI_WriteI2C_Byte(0xFF, 0x80);
            qDebug().noquote() << "Hsync stable!!!";
        }
    }
    if (!rx[3]) return;

    rx[4] = (HDMI_ReadI2C_Byte(0x13) & 0x02) ? 1 : 0;
    if (rx[4]) {
        rx[5] = HDMI_ReadI2C_Byte(0x74) & 0x7F;
        rx[6] = HDMI_ReadI2C_Byte(0x71) & 0x60;
        rx[7] = HDMI_ReadI2C_Byte(0x16) & 0xF0;
        rx[8] = HDMI_ReadI2C_Byte(0x72) & 0xC0;
        const uint8_t r73 = HDMI_ReadI2C_Byte(0x73);
        rx[9] = r73 & 0x70;
        rx[10] = r73 & 0x0C;
        rx[11] = HDMI_ReadI2C_Byte(0x75) & 0x0F;
        if (rx[11] == 1) {
            HDMI_WriteI2C_Byte(0xFF, 0x60);
            HDMI_WriteI2C_Byte(0x97, HDMI_ReadI2C_Byte(0x97) | 0x40);
            HDMI_WriteI2C_Byte(0xFF, 0x80);
            HDMI_WriteI2C_Byte(0x1B, 0x20);
            return;
        }
        if (rx[11] == 3) {
            HDMI_WriteI2C_Byte(0xFF, 0x60);
            HDMI_WriteI2C_Byte(0x97, HDMI_ReadI2C_Byte(0x97) | 0x80);
            HDMI_WriteI2C_Byte(0xFF, 0x80);
            HDMI_WriteI2C_Byte(0x1B, 0x60);
            return;
        }
    } else {
        // DVI carries no infoframes: RGB, ITU 709, full range, no repetition.
        rx[5] = rx[6] = rx[7] = rx[9] = rx[11] = 0;
        rx[8] = 0x80;
        rx[10] = 8;
    }
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    HDMI_WriteI2C_Byte(0x97, HDMI_ReadI2C_Byte(0x97) & 0x3F);
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    HDMI_WriteI2C_Byte(0x1B, 0x00);
}

void LT8619C_CSCConversion()
{
    const uint8_t* rx = pLT8619C_RXStatus;
    if (!rx[3]) return;
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    HDMI_WriteI2C_Byte(0x07, 0xFE);
    // Only the 4:2:2 output is wired on this board; the RGB and 4:4:4
    // outputs would need tables of their own.
    if (LT8619C_OUTPUTCOLOR != OUTPUT_COLOR_YCBCR422) return;
    const uint8_t space = rx[6], q = rx[10], c = rx[8];
    uint8_t r52;
    if (space == 0x00) {  // RGB: to YCbCr, with the range and matrix it came in
        if (q == 4)
            r52 = c == 0x40 ? 0x0A : 0x2A;
        else if (q == 8 && c == 0x40)
            r52 = 0x1A;
        else
            r52 = 0x3A;
    } else if (space == 0x40) {
        r52 = 0x02;
    } else if (space == 0x20) {
        r52 = 0x00;
    } else {
        return;  // the reserved code: leave the converter as it was
    }
    HDMI_WriteI2C_Byte(0x52, r52);
    HDMI_WriteI2C_Byte(0x53, 0x00);
}

void LT8619C_VideoCheck()
{
    if (!pLT8619C_RXStatus[3]) return;
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    auto pair = [](uint8_t hi, uint8_t lo, uint8_t mask) {
        const uint16_t h = HDMI_ReadI2C_Byte(hi) & mask;
        return uint16_t(h << 8 | HDMI_ReadI2C_Byte(lo));
    };
    h_active = pair(0x22, 0x23, 0xFF);
    v_active = pair(0x20, 0x21, 0x0F);
    const uint32_t f0 = HDMI_ReadI2C_Byte(0x10);
    const uint32_t f1 = HDMI_ReadI2C_Byte(0x11);
    frame_counter = f0 << 16 | f1 << 8 | HDMI_ReadI2C_Byte(0x12);
    h_syncwidth = pair(0x14, 0x15, 0x0F);
    v_syncwidth = HDMI_ReadI2C_Byte(0x13);
    h_bkporch = pair(0x18, 0x19, 0x0F);
    v_bkporch = HDMI_ReadI2C_Byte(0x16);
    h_total = pair(0x1E, 0x1F, 0xFF);
    v_total = pair(0x1C, 0x1D, 0x0F);
    const uint8_t pol = HDMI_ReadI2C_Byte(0x24);
    h_syncpol = pol & 0x01;
    v_syncpol = pol & 0x02;
    u8Interlace = HDMI_ReadI2C_Byte(0x60) & 0x08;
}

void LT8619C_BTSetting()
{
    const uint8_t* rx = pLT8619C_RXStatus;
    if (!rx[3]) return;
    HDMI_WriteI2C_Byte(0xFF, 0x60);
    uint8_t c = HDMI_ReadI2C_Byte(0x60) & 0xC7;
    if (h_syncpol) c += 0x20;
    if (v_syncpol) c += 0x10;

    if (rx[4]) {
        switch (rx[5]) {
            case 5:
            case 6:
            case 7:
            case 10:
            case 11:
            case 20:
                doubleField(c);
                HDMI_WriteI2C_Byte(0x68, 0x17);
                break;
            case 21:
            case 22:
            case 25:
            case 26:
                doubleField(c);
                HDMI_WriteI2C_Byte(0x68, 0x19);
                break;
            default:
                HDMI_WriteI2C_Byte(0x68, 0x00);
        }
    } else if ((h_active == 1920 && v_active == 540) || (h_active == 1440 && v_active == 240)) {
        doubleField(c);
        HDMI_WriteI2C_Byte(0x68, 0x17);
    } else if (h_active == 1440 && v_active == 288) {
        doubleField(c);
        HDMI_WriteI2C_Byte(0x68, 0x19);
    }

    auto pair = [](uint8_t hi, uint16_t value) {
        HDMI_WriteI2C_Byte(hi, uint8_t(value >> 8));
        HDMI_WriteI2C_Byte(uint8_t(hi + 1), uint8_t(value & 0xFF));
    };
    HDMI_WriteI2C_Byte(0x60, c);
    pair(0x61, uint16_t(h_syncwidth + h_bkporch));
    pair(0x63, h_active);
    pair(0x65, h_total);
    HDMI_WriteI2C_Byte(0x67, uint8_t((v_syncwidth + v_bkporch) & 0xFF));
    pair(0x69, v_active);
    pair(0x6B, v_total);
}

int GetFPS(uint32_t counter)
{
    const uint32_t k = counter / 10000;
    if (k < 26) return 100;
    if (k < 30) return 85;
    if (k < 34) return 75;
    if (k < 42) return 60;
    if (k < 51) return 50;
    if (k < 84) return 30;
    if (k < 101) return 25;
    if (k < 105) return 24;
    return int(k & 0xFF);
}

void Debug_LT8619C_PrintRXinfo()
{
    const uint8_t* rx = pLT8619C_RXStatus;
    if (!rx[3]) {
        LT8619::enable = false;
        print_en = 0;
        return;
    }
    // Present from the first stable pass; the format follows once it has
    // held for a second, so until then the last published one stands.
    LT8619::enable = true;
    if (print_en >= kPublishAfter) return;
    if (++print_en != kPublishAfter) return;

    qDebug().noquote() << QString::asprintf(
        "LT8619C input: %s VIC %d colour 0x%02X depth 0x%02X colorimetry 0x%02X/0x%02X "
        "Q %d repetition %d, active %dx%d total %dx%d sync %d+%d/%d+%d pol %d/%d "
        "frame_counter %u%s",
        rx[4] ? "HDMI" : "DVI", rx[5], rx[6], rx[7], rx[8], rx[9], rx[10], rx[11], h_active,
        v_active, h_total, v_total, h_syncwidth, h_bkporch, v_syncwidth, v_bkporch, h_syncpol,
        v_syncpol, frame_counter, u8Interlace ? " interlaced" : "");
    if (rx[4]) {
        if (rx[10] == 4) LT8619::full = false;
        if (rx[10] == 8) LT8619::full = true;
    }
    // Measured heights near 1080 are 1080.
    if (v_active > 1050 && v_active < 1090) v_active = 1080;
    LT8619::width = h_active;
    LT8619::height = v_active;
    LT8619::fps = GetFPS(frame_counter);
    LT8619::interlace = u8Interlace != 0;
}

uint32_t LT8619C_GetAudioSamplingRate()
{
    HDMI_WriteI2C_Byte(0xFF, 0x80);
    const uint32_t hi = HDMI_ReadI2C_Byte(0x11) & 0x03;
    return hi << 8 | HDMI_ReadI2C_Byte(0x12);
}
