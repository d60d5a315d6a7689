// The record that the TC7509 thread fills and DriverTC7509::onCheck reads.
// The thread owns the chip; the record is the only thing both sides touch,
// and the hold flag is the only hand-over between them: the thread sets it
// around a write of the picture fields, a reader skips its pass while it is
// set. Both receiver paths (the IT6602 machine and the MS7200 stack) write
// the same fields.
#pragma once

#include <cstdint>

struct it6602_dev_data {
    // Set by DriverTC7509::init from its data.
    int chip_addr = 146;
    int i2c_num = 0;
    int i2c_fd = -1;
    uint8_t gpio_i2c = 0;

    uint8_t ms7200 = 0;        // 0: IT6602 path, 1: MS7200 path
    int audio_samplerate = 0;  // Hz, MS7200 path

    volatile uint8_t hold = 0;
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t htotal = 0;
    uint16_t vtotal = 0;
    int pclk = 0;       // kHz on the IT6602 path, frame rate on the MS7200 path
    uint8_t lock = 0;   // MS7200 path
    uint8_t flags = 0;  // bit 0 interlaced, bits 1 and 2 sync polarities
    int range = 0;      // 1: full
    int m_VState = 0;   // _Video_State_Type
    int m_AState = 0;   // _Audio_State_Type
    uint16_t m_VideoCountingTimer = 0;
    uint16_t m_AudioCountingTimer = 0;
    uint8_t m_AudioCode = 0;  // sample-rate code read from the chip
    uint8_t m_ucSCDTOffCount = 0;

    // IT6602 path, kept here so that a person watching the input can see them.
    uint8_t m_ucStatus = 0;  // bit 7: the output wants configuring again
    uint8_t m_bVideoOutputOn = 0;
    uint8_t m_HPD[2] = {0, 0};       // hot-plug level driven per port
    uint8_t m_EQActive[2] = {0, 0};  // per-port equaliser run
    uint8_t m_EQStep[2] = {0, 0};
    uint8_t m_EQTry[2] = {0, 0};   // index of the EQ value under trial
    uint8_t m_EQBest[2] = {0, 0};  // index chosen by the last run
    uint16_t m_EQErr[2][3] = {{0, 0, 0}, {0, 0, 0}};
    uint16_t m_EQPolled[2] = {0, 0};  // highest count seen for the value under trial
    uint8_t m_AudioBytes[3] = {0, 0, 0};
    uint16_t hsync = 0, hback = 0, vsync = 0, vback = 0;
};
