// Plain types of the SoC's media platform, as far as the library uses them.
// Fixed-width fields keep every record's layout the same on every ABI the
// library is built for.
#pragma once

#include <cstdint>

typedef int32_t td_s32;
typedef uint32_t td_u32;
typedef int64_t td_s64;
typedef uint64_t td_u64;
typedef uint64_t td_phys_addr_t;
typedef uint8_t td_u8;
typedef uint16_t td_u16;
typedef void td_void;
typedef char td_char;

typedef enum { TD_FALSE = 0, TD_TRUE = 1 } td_bool;

#define TD_SUCCESS 0
#define TD_FAILURE (-1)

typedef enum {
    OT_ID_VDEC = 5,
    OT_ID_VO = 15,
    OT_ID_VI = 16,
    OT_ID_AI = 21,
    OT_ID_AO = 22,
    OT_ID_VB = 1,
    OT_ID_SYS = 2,
    OT_ID_VPSS = 32,
    OT_ID_USER = 87,
} ot_mod_id;

typedef struct {
    int32_t mod_id;
    int32_t dev_id;
    int32_t chn_id;
} ot_mpp_chn;

// Semi-planar layouts: a luma plane, then one plane of interleaved chroma
// pairs. "YVU" (NV21 order) has V before U in each pair.
typedef enum {
    OT_PIXEL_FORMAT_YVU_SEMIPLANAR_420 = 0x1C,
    OT_PIXEL_FORMAT_YUV_SEMIPLANAR_420 = 0x1D,
    OT_PIXEL_FORMAT_YVU_SEMIPLANAR_422 = 0x1E,
    OT_PIXEL_FORMAT_YUV_SEMIPLANAR_422 = 0x1F,
} ot_pixel_format;

// A frame as the platform hands it between units and to the process. The
// virtual addresses are the process's own mappings of the planes, so they are
// pointer-wide: 4 bytes on the board's 32-bit userspace, 8 on a 64-bit one.
// Every other field is fixed-width; the 64-bit words keep their natural
// 8-byte alignment on both ABIs (hence the hole before `pts`). Sizes and
// offsets are checked per ABI in BoardAbi.cpp.
typedef struct {
    uint32_t width;
    uint32_t height;
    uint32_t field;
    int32_t pixel_format;
    int32_t video_format;
    int32_t compress_mode;
    int32_t dynamic_range;
    int32_t color_gamut;
    uint32_t header_stride[3];
    uint32_t stride[3];
    uint64_t header_phys_addr[3];
    uint64_t phys_addr[3];
    uintptr_t header_virt_addr[3];
    uintptr_t virt_addr[3];
    int16_t offset_top;
    int16_t offset_bottom;
    int16_t offset_left;
    int16_t offset_right;
    uint32_t time_ref;
    uint64_t pts;
    uint64_t user_data[2];  // the producer's own words, passed through untouched
    uint32_t frame_flag;
    uint32_t reserved;
} ot_video_frame;

typedef struct {
    ot_video_frame video_frame;
    uint32_t pool_id;
    int32_t mod_id;
} ot_video_frame_info;

typedef struct {
    uint32_t end_of_frame;
    uint32_t end_of_stream;
    uint32_t need_display;
    uint32_t len;
    uint64_t pts;
    uint8_t* addr;
    uint64_t reserved;
} ot_vdec_stream;

typedef struct {
    int32_t x, y;
    uint32_t width, height;
} ot_rect;

typedef struct {
    uint32_t width;
    uint32_t height;
} ot_size;

// ---- video input unit ------------------------------------------------------
// Records are fixed-width words throughout: the platform's kernel side reads
// them word by word, whatever the ABI of the caller.

typedef int32_t ot_vi_dev;
typedef int32_t ot_vi_chn;

enum {
    OT_VI_MAX_DEV_NUM = 8,
    // Each device feeds four channels (one per stream of a 4-way multiplexed
    // bus): channel c belongs to device c / OT_VI_CHN_PER_DEV.
    OT_VI_CHN_PER_DEV = 4,
    OT_VI_MAX_CHN_NUM = OT_VI_MAX_DEV_NUM * OT_VI_CHN_PER_DEV,
    OT_VI_MAX_WIDTH = 8192,
    OT_VI_MAX_HEIGHT = 8192,
};

// ot_vi_dev_attr.intf_mode. Buses without a mode of their own (LVDS lanes
// behind a bridge) run as BT.656.
enum {
    OT_VI_INTF_MODE_BT656 = 0,
    OT_VI_INTF_MODE_BT1120 = 1,
    OT_VI_INTF_MODE_BT1120_INTERLEAVED = 2,
    OT_VI_INTF_MODE_MIPI = 3,
};

// ot_vi_dev_attr.work_mode: streams multiplexed on one bus.
enum {
    OT_VI_WORK_MODE_1MUX = 0,
    OT_VI_WORK_MODE_2MUX = 1,
    OT_VI_WORK_MODE_4MUX = 2,
};

enum {
    OT_VI_CLK_EDGE_SINGLE_UP = 0,
    OT_VI_CLK_EDGE_SINGLE_DOWN = 1,
    OT_VI_CLK_EDGE_DOUBLE = 2,
};

// Order of the components on an 8-bit bus.
enum {
    OT_VI_DATA_SEQ_VUVU = 0,
    OT_VI_DATA_SEQ_UVUV = 1,
    OT_VI_DATA_SEQ_UYVY = 2,
    OT_VI_DATA_SEQ_VYUY = 3,
    OT_VI_DATA_SEQ_YUYV = 4,
    OT_VI_DATA_SEQ_YVYU = 5,
};

typedef struct {
    int32_t intf_mode;           // word 0
    int32_t work_mode;           // word 1
    uint32_t component_mask[2];  // words 2, 3: bus bits of luma and chroma
    int32_t clk_edge;            // word 4
    int32_t data_seq;            // word 5
    // Words 6 to 20: external sync polarities and blanking. Every bus the
    // library drives carries its sync codes embedded, so they stay zero.
    uint32_t sync_cfg[15];
    uint32_t data_reverse;  // word 21: bus bit order reversed
    ot_size in_size;        // words 22, 23: zero takes the channel's size
    int32_t data_rate;      // word 24
} ot_vi_dev_attr;

// ot_vi_chn_attr.capture_select
enum {
    OT_VI_CAPTURE_SELECT_TOP = 0,
    OT_VI_CAPTURE_SELECT_BOTTOM = 1,
    OT_VI_CAPTURE_SELECT_BOTH = 2,
};

// ot_vi_chn_attr.scan_mode
enum {
    OT_VIDEO_SCAN_MODE_INTERLACED = 0,
    OT_VIDEO_SCAN_MODE_PROGRESSIVE = 1,
};

typedef struct {
    int32_t src_frame_rate;  // -1 with dst -1: no rate conversion
    int32_t dst_frame_rate;
} ot_frame_rate_ctrl;

typedef struct {
    ot_rect crop;                        // words 0-3
    ot_size size;                        // words 4, 5: output size
    int32_t capture_select;              // word 6
    int32_t scan_mode;                   // word 7
    int32_t pixel_format;                // word 8
    uint32_t mirror;                     // word 9
    uint32_t flip;                       // word 10
    int32_t depth;                       // word 11: frames kept for user access
    ot_frame_rate_ctrl frame_rate_ctrl;  // words 12, 13
} ot_vi_chn_attr;

typedef int32_t ot_rotation;
enum {
    OT_ROTATION_0 = 0,
    OT_ROTATION_90 = 1,
    OT_ROTATION_180 = 2,
    OT_ROTATION_270 = 3,
    OT_ROTATION_BUTT = 4,
};

// ot_vi_user_pic_attr.pic_mode
enum {
    OT_VI_USER_PIC_MODE_BG = 0,
    OT_VI_USER_PIC_MODE_PIC = 1,
};

// What the input unit shows in place of captured frames while the user
// picture is on: a frame, or a plain colour.
typedef struct {
    int32_t pic_mode;
    uint32_t bg_color;  // with OT_VI_USER_PIC_MODE_BG
    ot_video_frame_info frame_info;
} ot_vi_user_pic_attr;

// ---- video decoder ----------------------------------------------------------

typedef int32_t ot_vdec_chn;

enum {
    OT_VDEC_MAX_CHN_NUM = 64,
    OT_VDEC_MAX_WIDTH = 8192,
    OT_VDEC_MAX_HEIGHT = 8192,
};

// Payload types, numbered as in RTP where RTP has a number.
enum {
    OT_PT_JPEG = 26,
    OT_PT_H264 = 96,
    OT_PT_H265 = 265,
};

enum {
    OT_VDEC_SEND_MODE_STREAM = 0,
    OT_VDEC_SEND_MODE_FRAME = 1,
    OT_VDEC_SEND_MODE_COMPAT = 2,
};

typedef struct {
    int32_t type;  // payload type
    int32_t mode;  // send mode
    uint32_t pic_width;
    uint32_t pic_height;
    uint32_t stream_buf_size;
    uint32_t frame_buf_size;
    uint32_t frame_buf_cnt;
    // Settings of the motion codecs (reference frames, motion vector
    // buffers); a picture decoder has none.
    uint32_t codec_attr[4];
} ot_vdec_chn_attr;

typedef struct {
    int32_t type;
    uint32_t left_stream_bytes;
    uint32_t left_stream_frames;
    uint32_t left_decoded_frames;
    uint32_t is_started;
    uint32_t recv_stream_frames;
    uint32_t dec_stream_frames;
    uint32_t stream_errors;    // streams that gave no picture
    uint32_t oversize_errors;  // pictures larger than the channel
} ot_vdec_chn_status;

typedef struct {
    uint32_t type;
    uint32_t reserved[7];
} ot_vdec_supplement_info;

// ---- video processing ---------------------------------------------------------

typedef int32_t ot_vpss_grp;

enum {
    OT_VPSS_MAX_GRP_NUM = 256,
};

typedef struct {
    ot_rect display_rect;
    uint32_t img_width, img_height;
    uint32_t display_frame_rate;
    int32_t pixel_format;
    uint32_t double_frame_en;
    uint32_t cluster_mode_en;
    int32_t dst_dynamic_range;
    uint32_t display_buf_len;
    int32_t partition_mode;
    int32_t compress_mode;
} ot_vo_video_layer_attr;

// A group takes pictures from the unit bound to it (or from
// hi_mpi_vpss_send_frame) and hands each enabled channel its own copy,
// scaled to the channel's size, flipped and mirrored as the channel says.
enum {
    OT_VPSS_MAX_CHN_NUM = 4,
    OT_VPSS_MAX_WIDTH = 8192,
    OT_VPSS_MAX_HEIGHT = 8192,
};

typedef int32_t ot_vpss_chn;

typedef struct {
    uint32_t max_width;
    uint32_t max_height;
    int32_t pixel_format;
    ot_frame_rate_ctrl frame_rate;
} ot_vpss_grp_attr;

// Corrections a group applies to every picture it hands on. Contrast is in
// percent around mid-grey, from -100 (flat grey) to 100 (twice the spread);
// 0 leaves the picture as it came.
typedef struct {
    int32_t contrast;
} ot_vpss_grp_param;

// A size of 0 by 0 hands the picture on at the group's size.
typedef struct {
    uint32_t width;
    uint32_t height;
    int32_t pixel_format;
    uint32_t mirror;
    uint32_t flip;
    uint32_t depth;
    ot_frame_rate_ctrl frame_rate;
} ot_vpss_chn_attr;

// ---- video output unit -------------------------------------------------------
// Devices (0 and 1 high definition, 2 the standard definition one) each have
// a video layer (layer 2 is a second layer on device 0, layer 3 the one of
// device 2) with one channel, 0. A device is configured while disabled and
// enabled before its layers; a layer before its channel.

typedef int32_t ot_vo_dev;
typedef int32_t ot_vo_layer;
typedef int32_t ot_vo_chn;

enum {
    OT_VO_MAX_DEV_NUM = 3,
    OT_VO_MAX_LAYER_NUM = 4,
    OT_VO_MAX_WIDTH = 8192,
    OT_VO_MAX_HEIGHT = 8192,
};

// ot_vo_pub_attr.intf_type: one bit per physical interface.
enum {
    OT_VO_INTF_CVBS = 0x01,
    OT_VO_INTF_VGA = 0x02,
    OT_VO_INTF_BT656 = 0x04,
    OT_VO_INTF_BT1120 = 0x08,
    OT_VO_INTF_HDMI = 0x10,
    OT_VO_INTF_MIPI = 0x400,
};

// ot_vo_pub_attr.intf_sync: the timing codes of the table in the output
// node, and the user-defined one whose sync record comes with the call.
enum {
    OT_VO_OUT_PAL = 0,
    OT_VO_OUT_NTSC = 1,
    OT_VO_OUT_1080P60 = 23,
    OT_VO_OUT_USER = 48,
    OT_VO_OUT_BUTT = 49,
};

typedef struct {
    uint32_t syncm;  // bool
    uint32_t iop;    // bool: progressive
    uint8_t intfb;
    uint8_t pad0;
    uint16_t vact;
    uint16_t vbb;
    uint16_t vfb;
    uint16_t hact;
    uint16_t hbb;
    uint16_t hfb;
    uint16_t hmid;
    uint16_t bvact;
    uint16_t bvbb;
    uint16_t bvfb;
    uint16_t hpw;
    uint16_t vpw;
    uint16_t pad1;
    uint32_t idv;  // bool
    uint32_t ihs;  // bool
    uint32_t ivs;  // bool
} ot_vo_sync_info;

typedef struct {
    uint32_t bg_color;  // 0xRRGGBB
    uint32_t intf_type;
    int32_t intf_sync;
    ot_vo_sync_info sync_info;  // with OT_VO_OUT_USER
} ot_vo_pub_attr;

// The pixel clock of a user-defined timing: the reference (27 MHz on
// clock source 0) divided by ref_div, times fb_div + frac / 2^24, divided by
// post_div1 * post_div2 * dev_div * pre_div.
typedef struct {
    int32_t clk_source;
    uint32_t fb_div;
    uint32_t frac;
    uint32_t ref_div;
    uint32_t post_div1;
    uint32_t post_div2;
    uint32_t dev_div;
    uint32_t pre_div;
    uint32_t clk_reverse_en;
} ot_vo_user_sync_info;

typedef struct {
    uint32_t priority;
    ot_rect rect;
    uint32_t deflicker_en;
} ot_vo_chn_attr;

// Colour adjustment of a layer (ot_vo_csc) and of the HDMI path
// (ot_vo_hdmi_param). Levels run from 0 to 100, 50 being neutral.
typedef struct {
    int32_t csc_matrix;
    uint32_t luma;
    uint32_t contrast;
    uint32_t hue;
    uint32_t saturation;
    uint32_t ex_csc_en;
} ot_vo_csc;

typedef struct {
    ot_vo_csc csc;
} ot_vo_hdmi_param;

// Write-back: the picture a device (type 0) or a layer (type 1) shows,
// taken back into memory at the given size and rate.
typedef struct {
    int32_t src_type;
    int32_t src_id;
} ot_vo_wbc_src;

typedef struct {
    ot_size target_size;
    int32_t pixel_format;
    uint32_t frame_rate;
    int32_t dynamic_range;
    int32_t compress_mode;
} ot_vo_wbc_attr;

// Order and width of a BT output bus: luma and chroma swapped, and a double
// width bus for pixel rates one lane cannot carry.
typedef struct {
    uint32_t yc_swap;
    uint32_t double_width;
} ot_vo_bt_param;

// ---- HDMI transmitter ------------------------------------------------------------

typedef int32_t ot_hdmi_id;

typedef struct {
    uint32_t hdmi_en;       // word 0: HDMI (true) or DVI signalling
    int32_t video_format;   // word 1: the timing, or 41 for user-defined
    int32_t deep_color;     // word 2
    uint32_t audio_en;      // word 3
    int32_t sample_rate;    // word 4: audio rate code
    int32_t bit_depth;      // word 5: audio sample width code
    uint32_t infoframe_en;  // word 6: AVI and audio info frames sent
    uint32_t hdcp_en;       // word 7
    uint32_t pix_clk;       // word 8: kHz, for the user-defined format
} ot_hdmi_attr;

typedef struct {
    uint32_t edid_valid;
    uint32_t edid_len;
    uint8_t edid[512];
} ot_hdmi_edid;

// ---- audio input and output units ------------------------------------------

typedef int32_t ot_audio_dev;
typedef int32_t ot_ai_chn;

enum {
    OT_AI_DEV_MAX_NUM = 4,
    OT_AIO_MAX_CHN_NUM = 16,
    OT_MAX_AUDIO_FRAME_NUM = 50,
    OT_MAX_AUDIO_POINT_NUM = 4096,  // a frame resampled down may be this long
    OT_MIN_AUDIO_POINT_NUM = 80,
};

// ot_aio_attr.bit_width
enum {
    OT_AUDIO_BIT_WIDTH_8 = 0,
    OT_AUDIO_BIT_WIDTH_16 = 1,
    OT_AUDIO_BIT_WIDTH_24 = 2,
};

// ot_aio_attr.work_mode: who drives the bit clock. Master modes run from the
// unit's own clock at the configured rate; slave modes follow the codec or
// receiver on the other end, whatever rate that one runs at.
enum {
    OT_AIO_MODE_I2S_MASTER = 0,
    OT_AIO_MODE_I2S_SLAVE = 1,
    OT_AIO_MODE_PCM_SLAVE_STD = 2,
    OT_AIO_MODE_PCM_SLAVE_NON_STD = 3,
};

// ot_aio_attr.snd_mode: stereo frames carry left and right as two planes.
enum {
    OT_AUDIO_SOUND_MODE_MONO = 0,
    OT_AUDIO_SOUND_MODE_STEREO = 1,
};

// ot_aio_attr.i2s_type: which lanes the unit listens to.
enum {
    OT_AIO_I2STYPE_INNERCODEC = 0,
    OT_AIO_I2STYPE_INNERHDMI = 1,
    OT_AIO_I2STYPE_EXTERN = 2,
};

typedef struct {
    uint32_t sample_rate;  // Hz
    int32_t bit_width;
    int32_t work_mode;
    int32_t snd_mode;
    uint32_t expand_flag;          // 8-bit samples widened to 16
    uint32_t frame_num;            // frames the unit holds
    uint32_t point_num_per_frame;  // samples per channel and frame
    uint32_t chn_cnt;              // lanes of the device: 1, 2, 4, 8 or 16
    uint32_t clk_share;            // input and output share one clock
    int32_t i2s_type;
} ot_aio_attr;

// One frame of samples. A stereo frame has its left samples at virt_addr[0]
// and its right ones at virt_addr[1], `len` bytes each.
typedef struct {
    int32_t bit_width;
    int32_t snd_mode;
    uint64_t virt_addr[2];
    uint64_t phys_addr[2];
    uint64_t time_stamp;  // microseconds, of the first sample
    uint32_t seq;
    uint32_t len;  // bytes per plane
    uint32_t pool_id[2];
} ot_audio_frame;

// The echo reference that comes with a captured frame when echo cancelling
// runs inside the unit.
typedef struct {
    ot_audio_frame ref_frame;
    uint32_t valid;
    uint32_t sys_bind;
} ot_aec_frame;

typedef struct {
    uint32_t usr_frame_depth;  // frames kept for get_frame; 0: none
} ot_ai_chn_param;

// ---- audio output unit and video buffer pools ---------------------------------

typedef int32_t ot_ao_chn;

enum {
    OT_AO_DEV_MAX_NUM = 4,
};

// What hi_mpi_ao_query_chn_status reports: the device's frame buffers, and
// how many of them hold samples not yet played.
typedef struct {
    uint32_t chn_total_num;
    uint32_t chn_free_num;
    uint32_t chn_busy_num;
} ot_ao_chn_state;

typedef uint32_t ot_vb_pool;
typedef uint32_t ot_vb_blk;
#define OT_VB_INVALID_POOL_ID ((ot_vb_pool)-1)
#define OT_VB_INVALID_HANDLE ((ot_vb_blk)-1)

// The kernel side reads these records by word position; a layout change is
// a silent misconfiguration, so pin it down.
#include <cstddef>
static_assert(offsetof(ot_vi_dev_attr, clk_edge) == 4 * 4, "ot_vi_dev_attr layout");
static_assert(offsetof(ot_vi_dev_attr, data_seq) == 5 * 4, "ot_vi_dev_attr layout");
static_assert(offsetof(ot_vi_dev_attr, data_reverse) == 21 * 4, "ot_vi_dev_attr layout");
static_assert(sizeof(ot_vi_dev_attr) == 25 * 4, "ot_vi_dev_attr size");
static_assert(offsetof(ot_vi_chn_attr, capture_select) == 6 * 4, "ot_vi_chn_attr layout");
static_assert(offsetof(ot_vi_chn_attr, pixel_format) == 8 * 4, "ot_vi_chn_attr layout");
static_assert(offsetof(ot_vi_chn_attr, frame_rate_ctrl) == 12 * 4, "ot_vi_chn_attr layout");
static_assert(sizeof(ot_vi_chn_attr) == 14 * 4, "ot_vi_chn_attr size");
static_assert(offsetof(ot_vi_user_pic_attr, frame_info) == 8, "ot_vi_user_pic_attr layout");
static_assert(offsetof(ot_vdec_chn_attr, frame_buf_cnt) == 6 * 4, "ot_vdec_chn_attr layout");
static_assert(sizeof(ot_aio_attr) == 10 * 4, "ot_aio_attr size");
static_assert(offsetof(ot_audio_frame, time_stamp) == 40, "ot_audio_frame layout");
static_assert(sizeof(ot_vo_sync_info) == 48, "ot_vo_sync_info size");
static_assert(offsetof(ot_vo_pub_attr, sync_info) == 12, "ot_vo_pub_attr layout");
static_assert(sizeof(ot_vo_user_sync_info) == 9 * 4, "ot_vo_user_sync_info size");
static_assert(offsetof(ot_hdmi_attr, pix_clk) == 8 * 4, "ot_hdmi_attr layout");
static_assert(sizeof(ot_hdmi_edid) == 520, "ot_hdmi_edid size");
