// The media platform's calls that the library makes directly (video input,
// video decoder, video processing). Plain C functions returning 0 for
// success and an error code otherwise; on the board they come from the
// vendor's libraries, on the virtual board from the simulated platform.
#pragma once

#include "frame/hi_types.h"

// Error codes: 0xA0000000 | module << 16 | level << 13 | number.
#define OT_ERR_LEVEL_ERROR 4
#define OT_DEFINE_ERR(mod, num) \
    ((td_s32)(0xA0000000u | ((uint32_t)(mod) << 16) | (OT_ERR_LEVEL_ERROR << 13) | (num)))

enum {
    OT_ERR_INVALID_DEV_ID = 1,
    OT_ERR_INVALID_CHN_ID = 2,
    OT_ERR_ILLEGAL_PARAM = 3,
    OT_ERR_EXIST = 4,
    OT_ERR_UNEXIST = 5,
    OT_ERR_NULL_PTR = 6,
    OT_ERR_NOT_CONFIG = 7,
    OT_ERR_NOT_SUPPORT = 8,
    OT_ERR_NOT_PERM = 9,
    OT_ERR_NO_MEM = 12,
    OT_ERR_BUF_EMPTY = 14,
    OT_ERR_BUF_FULL = 15,
    OT_ERR_NOT_READY = 16,
    OT_ERR_BUSY = 18,
};

#define OT_ERR_VI_INVALID_DEV_ID OT_DEFINE_ERR(OT_ID_VI, OT_ERR_INVALID_DEV_ID)
#define OT_ERR_VI_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_VI, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_VI_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_VI, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_VI_NULL_PTR OT_DEFINE_ERR(OT_ID_VI, OT_ERR_NULL_PTR)
#define OT_ERR_VI_NOT_CONFIG OT_DEFINE_ERR(OT_ID_VI, OT_ERR_NOT_CONFIG)
#define OT_ERR_VI_NOT_PERM OT_DEFINE_ERR(OT_ID_VI, OT_ERR_NOT_PERM)
#define OT_ERR_VI_BUSY OT_DEFINE_ERR(OT_ID_VI, OT_ERR_BUSY)

#define OT_ERR_VDEC_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_VDEC_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_VDEC_EXIST OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_EXIST)
#define OT_ERR_VDEC_UNEXIST OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_UNEXIST)
#define OT_ERR_VDEC_NULL_PTR OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_NULL_PTR)
#define OT_ERR_VDEC_NOT_SUPPORT OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_NOT_SUPPORT)
#define OT_ERR_VDEC_NOT_PERM OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_NOT_PERM)
#define OT_ERR_VDEC_NO_MEM OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_NO_MEM)
#define OT_ERR_VDEC_BUF_EMPTY OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_BUF_EMPTY)
#define OT_ERR_VDEC_BUF_FULL OT_DEFINE_ERR(OT_ID_VDEC, OT_ERR_BUF_FULL)

#define OT_ERR_VPSS_INVALID_GRP_ID OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_INVALID_DEV_ID)
#define OT_ERR_VPSS_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_VPSS_NULL_PTR OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_NULL_PTR)

#define OT_ERR_AI_INVALID_DEV_ID OT_DEFINE_ERR(OT_ID_AI, OT_ERR_INVALID_DEV_ID)
#define OT_ERR_AI_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_AI, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_AI_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_AI, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_AI_NULL_PTR OT_DEFINE_ERR(OT_ID_AI, OT_ERR_NULL_PTR)
#define OT_ERR_AI_NOT_CONFIG OT_DEFINE_ERR(OT_ID_AI, OT_ERR_NOT_CONFIG)
#define OT_ERR_AI_NOT_PERM OT_DEFINE_ERR(OT_ID_AI, OT_ERR_NOT_PERM)
#define OT_ERR_AI_BUF_EMPTY OT_DEFINE_ERR(OT_ID_AI, OT_ERR_BUF_EMPTY)
#define OT_ERR_AI_BUSY OT_DEFINE_ERR(OT_ID_AI, OT_ERR_BUSY)
// Attributes given to a device that is already enabled: refused, the device
// keeps what it has (0xA015800D). Several nodes may share one device, so
// callers take it as success.
#define OT_ERR_AI_DEV_ATTR_SET OT_DEFINE_ERR(OT_ID_AI, 13)

#define OT_ERR_AO_INVALID_DEV_ID OT_DEFINE_ERR(OT_ID_AO, OT_ERR_INVALID_DEV_ID)
#define OT_ERR_AO_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_AO, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_AO_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_AO, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_AO_NULL_PTR OT_DEFINE_ERR(OT_ID_AO, OT_ERR_NULL_PTR)
#define OT_ERR_AO_NOT_CONFIG OT_DEFINE_ERR(OT_ID_AO, OT_ERR_NOT_CONFIG)
#define OT_ERR_AO_NOT_SUPPORT OT_DEFINE_ERR(OT_ID_AO, OT_ERR_NOT_SUPPORT)
#define OT_ERR_AO_NOT_PERM OT_DEFINE_ERR(OT_ID_AO, OT_ERR_NOT_PERM)
#define OT_ERR_AO_BUF_FULL OT_DEFINE_ERR(OT_ID_AO, OT_ERR_BUF_FULL)
#define OT_ERR_AO_BUSY OT_DEFINE_ERR(OT_ID_AO, OT_ERR_BUSY)

#define OT_ERR_VPSS_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_VPSS_EXIST OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_EXIST)
#define OT_ERR_VPSS_UNEXIST OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_UNEXIST)
#define OT_ERR_VPSS_NOT_PERM OT_DEFINE_ERR(OT_ID_VPSS, OT_ERR_NOT_PERM)

#define OT_ERR_SYS_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_SYS, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_SYS_NULL_PTR OT_DEFINE_ERR(OT_ID_SYS, OT_ERR_NULL_PTR)
#define OT_ERR_SYS_NOT_PERM OT_DEFINE_ERR(OT_ID_SYS, OT_ERR_NOT_PERM)
#define OT_ERR_SYS_UNEXIST OT_DEFINE_ERR(OT_ID_SYS, OT_ERR_UNEXIST)

#define OT_ERR_VO_INVALID_DEV_ID OT_DEFINE_ERR(OT_ID_VO, OT_ERR_INVALID_DEV_ID)
#define OT_ERR_VO_INVALID_CHN_ID OT_DEFINE_ERR(OT_ID_VO, OT_ERR_INVALID_CHN_ID)
#define OT_ERR_VO_ILLEGAL_PARAM OT_DEFINE_ERR(OT_ID_VO, OT_ERR_ILLEGAL_PARAM)
#define OT_ERR_VO_NULL_PTR OT_DEFINE_ERR(OT_ID_VO, OT_ERR_NULL_PTR)
#define OT_ERR_VO_NOT_CONFIG OT_DEFINE_ERR(OT_ID_VO, OT_ERR_NOT_CONFIG)
#define OT_ERR_VO_NOT_SUPPORT OT_DEFINE_ERR(OT_ID_VO, OT_ERR_NOT_SUPPORT)
#define OT_ERR_VO_NOT_PERM OT_DEFINE_ERR(OT_ID_VO, OT_ERR_NOT_PERM)
#define OT_ERR_VO_NOT_READY OT_DEFINE_ERR(OT_ID_VO, OT_ERR_NOT_READY)
#define OT_ERR_VO_BUSY OT_DEFINE_ERR(OT_ID_VO, OT_ERR_BUSY)
// The invalid layer number has a code of its own.
#define OT_ERR_VO_INVALID_LAYER_ID OT_DEFINE_ERR(OT_ID_VO, 0x42)

// The HDMI transmitter reports its own plain codes.
#define OT_ERR_HDMI_NOT_INIT ((td_s32)0xA0338001u)
#define OT_ERR_HDMI_INVALID_PARA ((td_s32)0xA0338002u)
#define OT_ERR_HDMI_NULL_PTR ((td_s32)0xA0338003u)
#define OT_ERR_HDMI_DEV_NOT_OPEN ((td_s32)0xA0338004u)
#define OT_ERR_HDMI_READ_EDID_FAILED ((td_s32)0xA0338009u)

#ifdef __cplusplus
extern "C" {
#endif

// ---- video input ----------------------------------------------------------
// A device must be configured before it is enabled and disabled before it is
// configured again; the same holds for a channel, whose device must be
// enabled first. The user picture is one for the whole unit; each channel
// switches it on for itself.
td_s32 hi_mpi_vi_set_dev_attr(ot_vi_dev dev, const ot_vi_dev_attr* dev_attr);
td_s32 hi_mpi_vi_enable_dev(ot_vi_dev dev);
td_s32 hi_mpi_vi_disable_dev(ot_vi_dev dev);
td_s32 hi_mpi_vi_set_chn_attr(ot_vi_chn chn, const ot_vi_chn_attr* chn_attr);
td_s32 hi_mpi_vi_enable_chn(ot_vi_chn chn);
td_s32 hi_mpi_vi_disable_chn(ot_vi_chn chn);
td_s32 hi_mpi_vi_set_rotation(ot_vi_chn chn, ot_rotation rotation);
td_s32 hi_mpi_vi_set_user_pic(ot_vi_chn chn, const ot_vi_user_pic_attr* user_pic);
td_s32 hi_mpi_vi_enable_user_pic(ot_vi_chn chn);
td_s32 hi_mpi_vi_disable_user_pic(ot_vi_chn chn);

// ---- video decoder ----------------------------------------------------------
// Channels 0 to OT_VDEC_MAX_CHN_NUM - 1. get_chn_attr fails on a channel
// nobody created, which is how a free one is found.
td_s32 hi_mpi_vdec_create_chn(ot_vdec_chn chn, const ot_vdec_chn_attr* attr);
td_s32 hi_mpi_vdec_destroy_chn(ot_vdec_chn chn);
td_s32 hi_mpi_vdec_get_chn_attr(ot_vdec_chn chn, ot_vdec_chn_attr* attr);
td_s32 hi_mpi_vdec_start_recv_stream(ot_vdec_chn chn);
td_s32 hi_mpi_vdec_stop_recv_stream(ot_vdec_chn chn);
td_s32 hi_mpi_vdec_query_status(ot_vdec_chn chn, ot_vdec_chn_status* status);
// milli_sec: -1 waits without limit, 0 not at all.
td_s32 hi_mpi_vdec_send_stream(ot_vdec_chn chn, const ot_vdec_stream* stream, td_s32 milli_sec);
td_s32 hi_mpi_vdec_get_frame(ot_vdec_chn chn, ot_video_frame_info* frame_info,
                             ot_vdec_supplement_info* supplement, td_s32 milli_sec);
td_s32 hi_mpi_vdec_release_frame(ot_vdec_chn chn, const ot_video_frame_info* frame_info);

// ---- system ---------------------------------------------------------------------
// The media clock: init_pts_base sets it once, sync_pts keeps it in step
// with wall time afterwards. Microseconds.
td_s32 hi_mpi_sys_init_pts_base(td_u64 pts_base);
td_s32 hi_mpi_sys_sync_pts(td_u64 pts_base);

// ---- audio input ----------------------------------------------------------------
// Attributes are set while the device is disabled; channels (0 to chn_cnt - 1,
// half that in stereo) are enabled on an enabled device. Resampling is
// switched on a channel with the rate it delivers. A channel hands frames to
// the user only with a user frame depth above 0; get_fd gives a descriptor
// that polls readable while a frame waits. milli_sec: -1 waits without limit,
// 0 not at all.
td_s32 hi_mpi_ai_set_pub_attr(ot_audio_dev dev, const ot_aio_attr* attr);
td_s32 hi_mpi_ai_get_pub_attr(ot_audio_dev dev, ot_aio_attr* attr);
td_s32 hi_mpi_ai_enable(ot_audio_dev dev);
td_s32 hi_mpi_ai_disable(ot_audio_dev dev);
td_s32 hi_mpi_ai_enable_chn(ot_audio_dev dev, ot_ai_chn chn);
td_s32 hi_mpi_ai_disable_chn(ot_audio_dev dev, ot_ai_chn chn);
td_s32 hi_mpi_ai_enable_resample(ot_audio_dev dev, ot_ai_chn chn, td_u32 out_sample_rate);
td_s32 hi_mpi_ai_disable_resample(ot_audio_dev dev, ot_ai_chn chn);
td_s32 hi_mpi_ai_set_chn_param(ot_audio_dev dev, ot_ai_chn chn, const ot_ai_chn_param* param);
td_s32 hi_mpi_ai_get_fd(ot_audio_dev dev, ot_ai_chn chn);
td_s32 hi_mpi_ai_get_frame(ot_audio_dev dev, ot_ai_chn chn, ot_audio_frame* frame,
                           ot_aec_frame* aec_frame, td_s32 milli_sec);
td_s32 hi_mpi_ai_release_frame(ot_audio_dev dev, ot_ai_chn chn, const ot_audio_frame* frame,
                               const ot_aec_frame* aec_frame);

// ---- audio output -----------------------------------------------------------------
// Attributes are set while the device is disabled; a channel (0 to chn_cnt -
// 1, half that in stereo) is enabled on an enabled device. The device plays
// frames from its buffer of frame_num frames at its own clock; resampling on
// a channel converts frames sent at `in_sample_rate` to the device's rate.
// send_frame takes the samples through the physical addresses of the frame's
// blocks. milli_sec: -1 waits for room without limit, 0 not at all, above 0
// at most that long; a full buffer then gives OT_ERR_AO_BUF_FULL.
td_s32 hi_mpi_ao_set_pub_attr(ot_audio_dev dev, const ot_aio_attr* attr);
td_s32 hi_mpi_ao_get_pub_attr(ot_audio_dev dev, ot_aio_attr* attr);
td_s32 hi_mpi_ao_enable(ot_audio_dev dev);
td_s32 hi_mpi_ao_disable(ot_audio_dev dev);
td_s32 hi_mpi_ao_enable_chn(ot_audio_dev dev, ot_ao_chn chn);
td_s32 hi_mpi_ao_disable_chn(ot_audio_dev dev, ot_ao_chn chn);
td_s32 hi_mpi_ao_enable_resample(ot_audio_dev dev, ot_ao_chn chn, td_u32 in_sample_rate);
td_s32 hi_mpi_ao_disable_resample(ot_audio_dev dev, ot_ao_chn chn);
td_s32 hi_mpi_ao_query_chn_status(ot_audio_dev dev, ot_ao_chn chn, ot_ao_chn_state* status);
td_s32 hi_mpi_ao_send_frame(ot_audio_dev dev, ot_ao_chn chn, const ot_audio_frame* frame,
                            td_s32 milli_sec);
td_s32 hi_mpi_ao_clr_chn_buf(ot_audio_dev dev, ot_ao_chn chn);

// ---- video buffer pools -------------------------------------------------------------
// get_blk with OT_VB_INVALID_POOL_ID takes a block from the common pool;
// OT_VB_INVALID_HANDLE when none is left or the size is 0 or too large.
// sys_mmap maps physical memory of a block into the process.
ot_vb_blk hi_mpi_vb_get_blk(ot_vb_pool pool, td_u64 blk_size, const td_char* mmz_name);
td_s32 hi_mpi_vb_release_blk(ot_vb_blk block);
ot_vb_pool hi_mpi_vb_handle_to_pool_id(ot_vb_blk block);
td_phys_addr_t hi_mpi_vb_handle_to_phys_addr(ot_vb_blk block);
td_void* hi_mpi_sys_mmap(td_phys_addr_t phys_addr, td_u32 size);

// ---- video processing -----------------------------------------------------------
td_s32 hi_mpi_vpss_send_frame(ot_vpss_grp grp, const ot_video_frame_info* frame, td_s32 milli_sec);

// Groups are created with their largest picture size and started; channels
// (0 to OT_VPSS_MAX_CHN_NUM - 1) are set and enabled on a created group.
td_s32 hi_mpi_vpss_create_grp(ot_vpss_grp grp, const ot_vpss_grp_attr* attr);
td_s32 hi_mpi_vpss_destroy_grp(ot_vpss_grp grp);
td_s32 hi_mpi_vpss_start_grp(ot_vpss_grp grp);
td_s32 hi_mpi_vpss_stop_grp(ot_vpss_grp grp);
td_s32 hi_mpi_vpss_get_grp_attr(ot_vpss_grp grp, ot_vpss_grp_attr* attr);
td_s32 hi_mpi_vpss_set_grp_attr(ot_vpss_grp grp, const ot_vpss_grp_attr* attr);
td_s32 hi_mpi_vpss_get_grp_param(ot_vpss_grp grp, ot_vpss_grp_param* param);
td_s32 hi_mpi_vpss_set_grp_param(ot_vpss_grp grp, const ot_vpss_grp_param* param);
td_s32 hi_mpi_vpss_set_chn_attr(ot_vpss_grp grp, ot_vpss_chn chn, const ot_vpss_chn_attr* attr);
td_s32 hi_mpi_vpss_get_chn_attr(ot_vpss_grp grp, ot_vpss_chn chn, ot_vpss_chn_attr* attr);
td_s32 hi_mpi_vpss_enable_chn(ot_vpss_grp grp, ot_vpss_chn chn);
td_s32 hi_mpi_vpss_disable_chn(ot_vpss_grp grp, ot_vpss_chn chn);

// ---- binding ------------------------------------------------------------------------
// Ties a source (a video input channel, a processing group's channel, a
// display device's write-back) to a sink (a processing group, a display
// layer's channel). A sink takes one source; binding it again to the same
// source is harmless, to another one is refused until it is unbound.
td_s32 hi_mpi_sys_bind(const ot_mpp_chn* src, const ot_mpp_chn* dst);
td_s32 hi_mpi_sys_unbind(const ot_mpp_chn* src, const ot_mpp_chn* dst);
td_s32 hi_mpi_sys_get_bind_by_dst(const ot_mpp_chn* dst, ot_mpp_chn* src);

// ---- video output ----------------------------------------------------------------------
td_s32 hi_mpi_vo_set_pub_attr(ot_vo_dev dev, const ot_vo_pub_attr* attr);
td_s32 hi_mpi_vo_get_pub_attr(ot_vo_dev dev, ot_vo_pub_attr* attr);
td_s32 hi_mpi_vo_set_user_sync_info(ot_vo_dev dev, const ot_vo_user_sync_info* info);
td_s32 hi_mpi_vo_get_user_sync_info(ot_vo_dev dev, ot_vo_user_sync_info* info);
td_s32 hi_mpi_vo_enable(ot_vo_dev dev);
td_s32 hi_mpi_vo_disable(ot_vo_dev dev);
td_s32 hi_mpi_vo_set_video_layer_attr(ot_vo_layer layer, const ot_vo_video_layer_attr* attr);
td_s32 hi_mpi_vo_get_video_layer_attr(ot_vo_layer layer, ot_vo_video_layer_attr* attr);
td_s32 hi_mpi_vo_enable_video_layer(ot_vo_layer layer);
td_s32 hi_mpi_vo_disable_video_layer(ot_vo_layer layer);
td_s32 hi_mpi_vo_set_layer_csc(ot_vo_layer layer, const ot_vo_csc* csc);
td_s32 hi_mpi_vo_get_layer_csc(ot_vo_layer layer, ot_vo_csc* csc);
td_s32 hi_mpi_vo_set_chn_attr(ot_vo_layer layer, ot_vo_chn chn, const ot_vo_chn_attr* attr);
td_s32 hi_mpi_vo_get_chn_attr(ot_vo_layer layer, ot_vo_chn chn, ot_vo_chn_attr* attr);
td_s32 hi_mpi_vo_set_chn_rotation(ot_vo_layer layer, ot_vo_chn chn, ot_rotation rotation);
td_s32 hi_mpi_vo_enable_chn(ot_vo_layer layer, ot_vo_chn chn);
td_s32 hi_mpi_vo_disable_chn(ot_vo_layer layer, ot_vo_chn chn);
td_s32 hi_mpi_vo_show_chn(ot_vo_layer layer, ot_vo_chn chn);
td_s32 hi_mpi_vo_hide_chn(ot_vo_layer layer, ot_vo_chn chn);
td_s32 hi_mpi_vo_set_hdmi_param(ot_vo_dev dev, const ot_vo_hdmi_param* param);
td_s32 hi_mpi_vo_get_hdmi_param(ot_vo_dev dev, ot_vo_hdmi_param* param);
td_s32 hi_mpi_vo_set_bt_param(ot_vo_dev dev, const ot_vo_bt_param* param);
td_s32 hi_mpi_vo_get_bt_param(ot_vo_dev dev, ot_vo_bt_param* param);
// Write-back unit 0: configured while disabled.
td_s32 hi_mpi_vo_set_wbc_src(td_s32 wbc, const ot_vo_wbc_src* src);
td_s32 hi_mpi_vo_set_wbc_attr(td_s32 wbc, const ot_vo_wbc_attr* attr);
td_s32 hi_mpi_vo_enable_wbc(td_s32 wbc);
td_s32 hi_mpi_vo_disable_wbc(td_s32 wbc);

// ---- HDMI transmitter ----------------------------------------------------------------------
// init before open, open before attributes, attributes before start.
td_s32 hi_mpi_hdmi_init(void);
td_s32 hi_mpi_hdmi_deinit(void);
td_s32 hi_mpi_hdmi_open(ot_hdmi_id id);
td_s32 hi_mpi_hdmi_close(ot_hdmi_id id);
td_s32 hi_mpi_hdmi_set_attr(ot_hdmi_id id, const ot_hdmi_attr* attr);
td_s32 hi_mpi_hdmi_get_attr(ot_hdmi_id id, ot_hdmi_attr* attr);
td_s32 hi_mpi_hdmi_start(ot_hdmi_id id);
td_s32 hi_mpi_hdmi_stop(ot_hdmi_id id);
// Reads the sink's EDID now, whatever the transmitter keeps; fails with no
// sink on the connector.
td_s32 hi_mpi_hdmi_force_get_edid(ot_hdmi_id id, ot_hdmi_edid* edid);

#ifdef __cplusplus
}
#endif
