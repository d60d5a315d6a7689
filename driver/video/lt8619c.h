// The LT8619C receiver's chip work, kept in the plain-function style of the
// chip's reference code: a receiver record, the measured timing and the loop
// counters as globals, and LT8619C_* routines over one I2C address. Only the
// LT8619 thread runs these; what they publish goes into LT8619's class-wide
// values.
#pragma once

#include <cstdint>

// Register access on I2CADR, supplied by the thread's side (LT8619.cpp). The
// bank is whatever register 0xFF last selected.
uint8_t HDMI_ReadI2C_Byte(uint8_t reg);
void HDMI_WriteI2C_Byte(uint8_t reg, uint8_t value);
// n single-byte writes to one register (the EDID port autoincrements).
void HDMI_WriteI2C_ByteN(uint8_t reg, const uint8_t* bytes, int n);
void HDMI_ReadI2C_ByteN(uint8_t reg, uint8_t* bytes, int n);

constexpr uint8_t I2CADR = 0x32;  // eight-bit form, bus 1

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

constexpr int LT8619C_OUTPUTMODE = OUTPUT_BT1120_16BIT;
constexpr int LT8619C_OUTPUTCOLOR = OUTPUT_COLOR_YCBCR422;

extern const uint8_t ONCHIP_EDID[256];

// The receiver record: 0 clock, 2 PLL lock, 3 stable sync, 4 HDMI, 5 VIC,
// 6 colour space, 7 depth, 8 colorimetry, 9 extended colorimetry,
// 10 quantisation, 11 pixel repetition.
extern uint8_t LT8619C_RXStatus[24];
extern uint8_t* pLT8619C_RXStatus;

// Measured timing (per field for an interlaced input until doubled).
extern uint16_t h_active, v_active, h_total, v_total;
extern uint16_t h_syncwidth, h_bkporch;
extern uint8_t v_syncwidth, v_bkporch;
extern bool h_syncpol, v_syncpol;
extern uint32_t frame_counter;  // 24 bits
extern uint8_t u8Interlace;

extern uint16_t print_en;     // stable passes, up to 10
extern uint32_t LoopCounter;  // passes with a locked clock

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
// Frame length in 25 MHz ticks to a whole frame rate.
int GetFPS(uint32_t counter);
// Nothing calls it: the board takes its audio elsewhere.
uint32_t LT8619C_GetAudioSamplingRate();
