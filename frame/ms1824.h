// The MS1824 scaler's closed library. On the board it comes with the hosting
// process and its symbols are resolved at load; libVeskIO never carries an
// implementation. The library talks to the chip through the mculib_*
// functions below, which libVeskIO supplies (driver/video/DriverMS1824.cpp).
#pragma once

#include <cstdint>

extern "C" {

// One video timing as the library keeps it: eleven 16-bit words.
typedef struct {
    uint16_t u16_polarity;  // bit 0 interlaced, bit 1 h-sync positive, bit 2 v-sync positive
    uint16_t u16_htotal;
    uint16_t u16_vtotal;
    uint16_t u16_hactive;  // width
    uint16_t u16_vactive;  // height
    uint16_t u16_pixclk;   // 10 kHz
    uint16_t u16_vfreq;    // 0.01 Hz
    uint16_t u16_hoffset;
    uint16_t u16_voffset;
    uint16_t u16_hsyncwidth;
    uint16_t u16_vsyncwidth;
} ms1824_timing_t;

// Kinds of source a video path can take.
enum {
    MS1824_SRC_CVBS = 0,
    MS1824_SRC_TMDS = 1,
    MS1824_SRC_VGA = 2,
    MS1824_SRC_YPBPR = 3,
};

// Output ports of the chip.
enum {
    MS1824_OUT_VGA = 0x01,
    MS1824_OUT_CVBS = 0x02,
    MS1824_OUT_BT656 = 0x04,  // digital video towards an external encoder
    MS1824_OUT_LVDS = 0x08,
    MS1824_OUT_TTL = 0x10,
};

// Video paths taken by display_trigger, as a bit set.
enum {
    MS1824_PATH1 = 0x01,
    MS1824_PATH2 = 0x02,
};

// VIC of the given path's input, 255 when nothing is locked.
uint8_t ms1824_get_vic(uint8_t u8_source, uint8_t u8_path);
// Fills `timing` for a VIC (the CEA ones, and 128 onwards from the user
// table); false, with a zeroed record, for a VIC the library does not know.
bool ms1824_get_std_timing(uint8_t u8_vic, ms1824_timing_t* timing);
void ms1824_set_input_timing(uint8_t u8_path, const ms1824_timing_t* timing);
void ms1824_set_output_timing(const ms1824_timing_t* timing);
// Mode 1 makes the CVBS decoder look for its standard again, 0 leaves it free.
void ms1824_set_tvd_mode(uint8_t u8_mode, uint8_t u8_path);
// Timings for VICs 128, 129, ... in table order.
void ms1824_set_user_timing_table(const ms1824_timing_t* table, uint8_t u8_count);
void ms1824_set_video_scaler(uint8_t u8_path, uint16_t u16_in_width, uint16_t u16_in_height,
                             uint16_t u16_out_width, uint16_t u16_out_height,
                             uint32_t u32_mem_kbytes);
void ms1824_set_video_window(uint8_t u8_path, uint16_t u16_x, uint16_t u16_y, uint16_t u16_width,
                             uint16_t u16_height);
// 0 hides the second path, 100 shows it alone.
void ms1824_set_video2_alpha_ratio(uint8_t u8_percent);
void ms1824_config_input_video1_port(uint8_t u8_source);
void ms1824_config_input_video2_port(uint8_t u8_source);
void ms1824_config_output_video_port(uint8_t u8_port);
// Pattern 0 is black (a muted path), 1 the colour bars.
void ms1824_pattern_on(uint8_t u8_path, uint8_t u8_pattern);
void ms1824_pattern_off(uint8_t u8_path);
// Takes the pending settings of the paths in the set into use.
void ms1824_display_trigger(uint8_t u8_paths);
void ms1824_video_freeze(uint8_t u8_path, bool b_on);
void ms1824_osd_init(void);
void ms1824_osd_set_window(uint8_t u8_win, uint16_t u16_x, uint16_t u16_y, uint8_t u8_cols,
                           uint8_t u8_rows);
void ms1824_osd_show_string(uint8_t u8_win, uint8_t u8_row, uint8_t u8_col, const char* text,
                            uint8_t u8_len);
// Glyphs of 8x8 pixels, one byte a line, for the characters of `charset` in
// order; colours as RGB565.
void ms1824_osd_trans_font(const char* charset, const uint8_t* glyphs, const uint16_t* colors,
                           uint8_t u8_colors);
void ms1824_osd_win_enable(uint8_t u8_win, bool b_on);
void ms1824_uninit(void);

// The chip's bus, supplied by libVeskIO. Addresses in their eight-bit form.
uint8_t mculib_i2c_read_16bidx8bval(uint8_t u8_address, uint16_t u16_index);
bool mculib_i2c_write_16bidx8bval(uint8_t u8_address, uint16_t u16_index, uint8_t u8_value);
void mculib_i2c_burstread_16bidx8bval(uint8_t u8_address, uint16_t u16_index, uint16_t u16_length,
                                      uint8_t* buf);
void mculib_i2c_burstwrite_16bidx8bval(uint8_t u8_address, uint16_t u16_index, uint16_t u16_length,
                                       const uint8_t* buf);
void mculib_delay_ms(uint8_t u8_ms);

}  // extern "C"

static_assert(sizeof(ms1824_timing_t) == 22, "the library's timing record is 22 bytes");
