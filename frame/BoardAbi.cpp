// The board's binary interface, checked where it is compiled: the sizes of the
// records the library hands to the platform and the kernel, and the numbers of
// the requests it issues. Each line states the figure of the board's 32-bit
// ARM userspace and that of a 64-bit one (aarch64, and x86_64 where the virtual
// board runs), so a record that comes out wrong on either ABI stops the build
// here instead of failing on the board. Nothing in this file is linked in.
#include <linux/fb.h>
#include <linux/gpio.h>
#include <linux/i2c-dev.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

#include <cstddef>

#include "driver/audio/Es8388Ioctl.h"
#include "frame/hi_fb.h"
#include "frame/hi_mipi.h"
#include "frame/hi_types.h"

namespace {

#if defined(__arm__) && __SIZEOF_POINTER__ == 4
constexpr bool kIlp32 = true;
#elif (defined(__aarch64__) || defined(__x86_64__)) && __SIZEOF_POINTER__ == 8
constexpr bool kIlp32 = false;
#else
// i386 and the like align 64-bit words to 4 and would need figures of their
// own; the board is never one of them.
#error "the board's records are checked for 32-bit ARM, aarch64 and x86_64 only"
#endif

constexpr unsigned long abi(unsigned long arm32, unsigned long lp64)
{
    return kIlp32 ? arm32 : lp64;
}

// ---- the platform's frame record ---------------------------------------------
// The platform copies the record whole (by value from makeFrame, inside the
// user picture record), so its size and the offsets of the fields the library
// fills are part of the contract.
static_assert(sizeof(ot_video_frame_info) == abi(184, 208), "ot_video_frame_info size");
static_assert(sizeof(ot_video_frame) == abi(176, 200), "ot_video_frame size");
static_assert(offsetof(ot_video_frame, stride) == abi(44, 44), "ot_video_frame.stride");
static_assert(offsetof(ot_video_frame, phys_addr) == abi(80, 80), "ot_video_frame.phys_addr");
static_assert(offsetof(ot_video_frame, virt_addr) == abi(116, 128), "ot_video_frame.virt_addr");
static_assert(offsetof(ot_video_frame, time_ref) == abi(136, 160), "ot_video_frame.time_ref");
static_assert(offsetof(ot_video_frame, pts) == abi(144, 168), "ot_video_frame.pts");
static_assert(offsetof(ot_video_frame_info, pool_id) == abi(176, 200),
              "ot_video_frame_info.pool_id");
static_assert(offsetof(ot_vi_user_pic_attr, frame_info) == abi(8, 8), "ot_vi_user_pic_attr layout");
static_assert(sizeof(ot_vi_user_pic_attr) == abi(192, 216), "ot_vi_user_pic_attr size");

// ---- Video4Linux2 and the UVC extension units (USB cameras) -------------------
static_assert(VIDIOC_QUERYCAP == abi(0x80685600, 0x80685600), "VIDIOC_QUERYCAP");
static_assert(VIDIOC_ENUM_FMT == abi(0xC0405602, 0xC0405602), "VIDIOC_ENUM_FMT");
static_assert(VIDIOC_G_FMT == abi(0xC0CC5604, 0xC0D05604), "VIDIOC_G_FMT");
static_assert(VIDIOC_S_FMT == abi(0xC0CC5605, 0xC0D05605), "VIDIOC_S_FMT");
static_assert(VIDIOC_REQBUFS == abi(0xC0145608, 0xC0145608), "VIDIOC_REQBUFS");
static_assert(VIDIOC_QUERYBUF == abi(0xC0445609, 0xC0585609), "VIDIOC_QUERYBUF");
static_assert(VIDIOC_QBUF == abi(0xC044560F, 0xC058560F), "VIDIOC_QBUF");
static_assert(VIDIOC_DQBUF == abi(0xC0445611, 0xC0585611), "VIDIOC_DQBUF");
static_assert(VIDIOC_STREAMON == abi(0x40045612, 0x40045612), "VIDIOC_STREAMON");
static_assert(VIDIOC_G_PARM == abi(0xC0CC5615, 0xC0CC5615), "VIDIOC_G_PARM");
static_assert(VIDIOC_S_PARM == abi(0xC0CC5616, 0xC0CC5616), "VIDIOC_S_PARM");
static_assert(VIDIOC_G_CTRL == abi(0xC008561B, 0xC008561B), "VIDIOC_G_CTRL");
static_assert(VIDIOC_S_CTRL == abi(0xC008561C, 0xC008561C), "VIDIOC_S_CTRL");
static_assert(UVCIOC_CTRL_QUERY == abi(0xC00C7521, 0xC0107521), "UVCIOC_CTRL_QUERY");

// ---- GPIO character device ----------------------------------------------------
static_assert(GPIO_GET_LINEEVENT_IOCTL == abi(0xC030B404, 0xC030B404), "GPIO_GET_LINEEVENT_IOCTL");
static_assert(sizeof(gpioevent_request) == abi(48, 48), "gpioevent_request size");
// The records read from an event descriptor.
static_assert(sizeof(gpioevent_data) == abi(16, 16), "gpioevent_data size");

// ---- I2C bus devices ("/dev/i2c-N") --------------------------------------------
static_assert(I2C_SLAVE_FORCE == abi(0x0706, 0x0706), "I2C_SLAVE_FORCE");
static_assert(I2C_RDWR == abi(0x0707, 0x0707), "I2C_RDWR");

// ---- MIPI receiver ("/dev/ot_mipi") ---------------------------------------------
static_assert(OT_MIPI_SET_DEV_ATTR == abi(0x40286D01, 0x40286D01), "OT_MIPI_SET_DEV_ATTR");
static_assert(OT_MIPI_RESET_MIPI == abi(0x40046D07, 0x40046D07), "OT_MIPI_RESET_MIPI");
static_assert(OT_MIPI_UNRESET_MIPI == abi(0x40046D08, 0x40046D08), "OT_MIPI_UNRESET_MIPI");
static_assert(OT_MIPI_SET_HS_MODE == abi(0x40046D0B, 0x40046D0B), "OT_MIPI_SET_HS_MODE");
static_assert(OT_MIPI_ENABLE_MIPI_CLOCK == abi(0x40046D0C, 0x40046D0C),
              "OT_MIPI_ENABLE_MIPI_CLOCK");

// ---- graphics plane framebuffer ("/dev/fbN") -----------------------------------
static_assert(FBIOGET_VSCREENINFO == abi(0x4600, 0x4600), "FBIOGET_VSCREENINFO");
static_assert(FBIOPUT_VSCREENINFO == abi(0x4601, 0x4601), "FBIOPUT_VSCREENINFO");
static_assert(FBIOPUT_SHOW_LAYER == abi(0x40044665, 0x40044665), "FBIOPUT_SHOW_LAYER");
static_assert(FBIOPUT_ALPHA_LAYER == abi(0x400C465D, 0x400C465D), "FBIOPUT_ALPHA_LAYER");
static_assert(FBIOGET_LAYER_INFO == abi(0x80304679, 0x80304679), "FBIOGET_LAYER_INFO");
static_assert(FBIOPUT_LAYER_INFO == abi(0x40304678, 0x40304678), "FBIOPUT_LAYER_INFO");

// ---- the ES8388 codec's driver -------------------------------------------------
// Its requests carry one 32-bit word, so they read the same on both ABIs; the
// TLV320AIC31 and bit-banged I2C drivers registered plain small numbers.
static_assert(kEs8388Reset == abi(0x40044523, 0x40044523), "es8388 reset");
static_assert(es8388Request(0x0B) == abi(0x4004450B, 0x4004450B), "es8388 left input");
static_assert(es8388Request(0x22) == abi(0x40044522, 0x40044522), "es8388 right out2 enable");

}  // namespace
