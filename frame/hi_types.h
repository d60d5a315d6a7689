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
    uint64_t header_virt_addr[3];
    uint64_t phys_addr[3];
    uint64_t virt_addr[3];
    int16_t offset_top;
    int16_t offset_bottom;
    int16_t offset_left;
    int16_t offset_right;
    uint32_t time_ref;
    uint64_t pts;
    uint64_t user_data[1];
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
