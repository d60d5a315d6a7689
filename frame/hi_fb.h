// The graphics plane's framebuffer ("/dev/fb" N): the standard Linux
// framebuffer requests plus the platform's own, for showing the plane, its
// alpha and its buffering. Records are fixed-width, so each ABI computes its
// own request numbers from the same sizes.
#pragma once

#include <linux/fb.h>
#include <sys/ioctl.h>

#include <cstdint>

typedef struct {
    uint32_t alpha_en;      // per-pixel alpha used
    uint32_t alpha_chn_en;  // the global alpha applies too
    uint8_t alpha0;         // alpha of pixels whose alpha bit is 0 (ARGB1555)
    uint8_t alpha1;         // and of those whose bit is 1
    uint8_t global_alpha;
    uint8_t reserved;
} ot_fb_alpha;

// Buffer modes of ot_fb_layer_info.buf_mode.
enum {
    OT_FB_LAYER_BUF_DOUBLE = 0,
    OT_FB_LAYER_BUF_ONE = 1,
    OT_FB_LAYER_BUF_NONE = 2,
    OT_FB_LAYER_BUF_DOUBLE_IMMEDIATE = 3,
};

// `mask` says which of the fields a put applies, one bit each in field order
// from buf_mode (bit 0).
typedef struct {
    uint32_t buf_mode;
    int32_t antiflicker_level;
    int32_t x;
    int32_t y;
    uint32_t canvas_width;
    uint32_t canvas_height;
    uint32_t display_width;
    uint32_t display_height;
    uint32_t screen_width;
    uint32_t screen_height;
    uint32_t premul;
    uint32_t mask;
} ot_fb_layer_info;

#define FBIOPUT_SHOW_LAYER _IOW('F', 0x65, uint32_t)
#define FBIOGET_SHOW_LAYER _IOR('F', 0x66, uint32_t)
#define FBIOPUT_ALPHA_LAYER _IOW('F', 0x5D, ot_fb_alpha)
#define FBIOGET_ALPHA_LAYER _IOR('F', 0x5C, ot_fb_alpha)
#define FBIOPUT_LAYER_INFO _IOW('F', 0x78, ot_fb_layer_info)
#define FBIOGET_LAYER_INFO _IOR('F', 0x79, ot_fb_layer_info)

static_assert(sizeof(ot_fb_alpha) == 12, "ot_fb_alpha size");
static_assert(sizeof(ot_fb_layer_info) == 48, "ot_fb_layer_info size");
