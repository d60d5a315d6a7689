// The media platform and the scaler library as the fuzz targets see them: a
// unit that takes every setting it is given and hands out nothing but
// memory. Sets, enables, binds and sends answer 0, so that a node goes as far
// with a board description as it would on a unit that accepts it; reads and
// frames fail, so that no node works on made-up data. Buffer blocks are heap
// blocks of exactly the size asked, mapped by their physical address, and
// go back with fuzzplatform::reset(). Sleeps of Qt's own return at once and
// move the seam's clock instead, as vsys::msleep does.
#include <QThread>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "frame/hi_mpi.h"
#include "frame/ms1824.h"
#include "tests/fuzz/FuzzSys.h"

namespace {

// A block's physical address is its index + 1 times this.
constexpr td_phys_addr_t kBlockSpacing = td_phys_addr_t(1) << 32;
// Larger than any frame of the appliance (4K 4:2:2).
constexpr td_u64 kMaxBlock = td_u64(32) << 20;

struct Block {
    std::unique_ptr<char[]> bytes;
    td_u64 size;
};

std::vector<Block>& blocks()
{
    static auto* b = new std::vector<Block>;
    return *b;
}

}  // namespace

namespace fuzzplatform {

void reset()
{
    blocks().clear();
}

}  // namespace fuzzplatform

void QThread::sleep(unsigned long s)
{
    fuzzsys::clockUs += int64_t(s) * 1000000;
}
void QThread::msleep(unsigned long ms)
{
    fuzzsys::clockUs += int64_t(ms) * 1000;
}
void QThread::usleep(unsigned long us)
{
    fuzzsys::clockUs += int64_t(us);
}

// clang-format off
td_s32 hi_mpi_vi_set_dev_attr(ot_vi_dev, const ot_vi_dev_attr*) { return 0; }
td_s32 hi_mpi_vi_enable_dev(ot_vi_dev) { return 0; }
td_s32 hi_mpi_vi_disable_dev(ot_vi_dev) { return 0; }
td_s32 hi_mpi_vi_set_chn_attr(ot_vi_chn, const ot_vi_chn_attr*) { return 0; }
td_s32 hi_mpi_vi_enable_chn(ot_vi_chn) { return 0; }
td_s32 hi_mpi_vi_disable_chn(ot_vi_chn) { return 0; }
td_s32 hi_mpi_vi_set_rotation(ot_vi_chn, ot_rotation) { return 0; }
td_s32 hi_mpi_vi_set_user_pic(ot_vi_chn, const ot_vi_user_pic_attr*) { return 0; }
td_s32 hi_mpi_vi_enable_user_pic(ot_vi_chn) { return 0; }
td_s32 hi_mpi_vi_disable_user_pic(ot_vi_chn) { return 0; }

td_s32 hi_mpi_sys_init_pts_base(td_u64) { return 0; }
td_s32 hi_mpi_sys_sync_pts(td_u64) { return 0; }

td_s32 hi_mpi_ai_set_pub_attr(ot_audio_dev, const ot_aio_attr*) { return 0; }
td_s32 hi_mpi_ai_get_pub_attr(ot_audio_dev, ot_aio_attr*) { return -1; }
td_s32 hi_mpi_ai_enable(ot_audio_dev) { return 0; }
td_s32 hi_mpi_ai_disable(ot_audio_dev) { return 0; }
td_s32 hi_mpi_ai_enable_chn(ot_audio_dev, ot_ai_chn) { return 0; }
td_s32 hi_mpi_ai_disable_chn(ot_audio_dev, ot_ai_chn) { return 0; }
td_s32 hi_mpi_ai_enable_resample(ot_audio_dev, ot_ai_chn, td_u32) { return 0; }
td_s32 hi_mpi_ai_disable_resample(ot_audio_dev, ot_ai_chn) { return 0; }
td_s32 hi_mpi_ai_set_chn_param(ot_audio_dev, ot_ai_chn, const ot_ai_chn_param*) { return 0; }
td_s32 hi_mpi_ai_get_fd(ot_audio_dev, ot_ai_chn) { return -1; }
td_s32 hi_mpi_ai_get_frame(ot_audio_dev, ot_ai_chn, ot_audio_frame*, ot_aec_frame*, td_s32) { return -1; }
td_s32 hi_mpi_ai_release_frame(ot_audio_dev, ot_ai_chn, const ot_audio_frame*, const ot_aec_frame*) { return 0; }

td_s32 hi_mpi_ao_set_pub_attr(ot_audio_dev, const ot_aio_attr*) { return 0; }
td_s32 hi_mpi_ao_get_pub_attr(ot_audio_dev, ot_aio_attr*) { return -1; }
td_s32 hi_mpi_ao_enable(ot_audio_dev) { return 0; }
td_s32 hi_mpi_ao_disable(ot_audio_dev) { return 0; }
td_s32 hi_mpi_ao_enable_chn(ot_audio_dev, ot_ao_chn) { return 0; }
td_s32 hi_mpi_ao_disable_chn(ot_audio_dev, ot_ao_chn) { return 0; }
td_s32 hi_mpi_ao_enable_resample(ot_audio_dev, ot_ao_chn, td_u32) { return 0; }
td_s32 hi_mpi_ao_disable_resample(ot_audio_dev, ot_ao_chn) { return 0; }
td_s32 hi_mpi_ao_query_chn_status(ot_audio_dev, ot_ao_chn, ot_ao_chn_state*) { return -1; }
td_s32 hi_mpi_ao_send_frame(ot_audio_dev, ot_ao_chn, const ot_audio_frame*, td_s32) { return 0; }
td_s32 hi_mpi_ao_clr_chn_buf(ot_audio_dev, ot_ao_chn) { return 0; }

// clang-format on
ot_vb_blk hi_mpi_vb_get_blk(ot_vb_pool, td_u64 size, const td_char*)
{
    if (size == 0 || size > kMaxBlock) return OT_VB_INVALID_HANDLE;
    blocks().push_back({std::unique_ptr<char[]>(new char[size]()), size});
    return ot_vb_blk(blocks().size() - 1);
}
td_s32 hi_mpi_vb_release_blk(ot_vb_blk block)
{
    return block < blocks().size() ? 0 : -1;
}
ot_vb_pool hi_mpi_vb_handle_to_pool_id(ot_vb_blk block)
{
    return block < blocks().size() ? 0 : OT_VB_INVALID_POOL_ID;
}
td_phys_addr_t hi_mpi_vb_handle_to_phys_addr(ot_vb_blk block)
{
    return block < blocks().size() ? (td_phys_addr_t(block) + 1) * kBlockSpacing : 0;
}
// Only a whole block, or its start, maps; anything else is no memory of the
// platform's.
td_void* hi_mpi_sys_mmap(td_phys_addr_t phys, td_u32 size)
{
    const td_phys_addr_t index = phys / kBlockSpacing;
    if (phys % kBlockSpacing || index == 0 || index > blocks().size()) return nullptr;
    Block& b = blocks()[index - 1];
    return size <= b.size ? b.bytes.get() : nullptr;
}
// clang-format off

td_s32 hi_mpi_vpss_send_frame(ot_vpss_grp, const ot_video_frame_info*, td_s32) { return 0; }
td_s32 hi_mpi_vpss_create_grp(ot_vpss_grp, const ot_vpss_grp_attr*) { return 0; }
td_s32 hi_mpi_vpss_destroy_grp(ot_vpss_grp) { return 0; }
td_s32 hi_mpi_vpss_start_grp(ot_vpss_grp) { return 0; }
td_s32 hi_mpi_vpss_stop_grp(ot_vpss_grp) { return 0; }
td_s32 hi_mpi_vpss_get_grp_attr(ot_vpss_grp, ot_vpss_grp_attr*) { return -1; }
td_s32 hi_mpi_vpss_set_grp_attr(ot_vpss_grp, const ot_vpss_grp_attr*) { return 0; }
td_s32 hi_mpi_vpss_get_grp_param(ot_vpss_grp, ot_vpss_grp_param*) { return -1; }
td_s32 hi_mpi_vpss_set_grp_param(ot_vpss_grp, const ot_vpss_grp_param*) { return 0; }
td_s32 hi_mpi_vpss_set_chn_attr(ot_vpss_grp, ot_vpss_chn, const ot_vpss_chn_attr*) { return 0; }
td_s32 hi_mpi_vpss_get_chn_attr(ot_vpss_grp, ot_vpss_chn, ot_vpss_chn_attr*) { return -1; }
td_s32 hi_mpi_vpss_enable_chn(ot_vpss_grp, ot_vpss_chn) { return 0; }
td_s32 hi_mpi_vpss_disable_chn(ot_vpss_grp, ot_vpss_chn) { return 0; }
td_s32 hi_mpi_sys_bind(const ot_mpp_chn*, const ot_mpp_chn*) { return 0; }
td_s32 hi_mpi_sys_unbind(const ot_mpp_chn*, const ot_mpp_chn*) { return 0; }
td_s32 hi_mpi_sys_get_bind_by_dst(const ot_mpp_chn*, ot_mpp_chn*) { return -1; }
td_s32 hi_mpi_vo_set_bt_param(ot_vo_dev, const ot_vo_bt_param*) { return 0; }

uint8_t ms1824_get_vic(uint8_t, uint8_t) { return 255; }
bool ms1824_get_std_timing(uint8_t, ms1824_timing_t* t) { std::memset(t, 0, sizeof *t); return false; }
void ms1824_set_input_timing(uint8_t, const ms1824_timing_t*) {}
void ms1824_set_output_timing(const ms1824_timing_t*) {}
void ms1824_set_tvd_mode(uint8_t, uint8_t) {}
void ms1824_set_user_timing_table(const ms1824_timing_t*, uint8_t) {}
void ms1824_set_video_scaler(uint8_t, uint16_t, uint16_t, uint16_t, uint16_t, uint32_t) {}
void ms1824_set_video_window(uint8_t, uint16_t, uint16_t, uint16_t, uint16_t) {}
void ms1824_set_video2_alpha_ratio(uint8_t) {}
void ms1824_config_input_video1_port(uint8_t) {}
void ms1824_config_input_video2_port(uint8_t) {}
void ms1824_config_output_video_port(uint8_t) {}
void ms1824_pattern_on(uint8_t, uint8_t) {}
void ms1824_pattern_off(uint8_t) {}
void ms1824_display_trigger(uint8_t) {}
void ms1824_video_freeze(uint8_t, bool) {}
void ms1824_osd_init(void) {}
void ms1824_osd_set_window(uint8_t, uint16_t, uint16_t, uint8_t, uint8_t) {}
void ms1824_osd_show_string(uint8_t, uint8_t, uint8_t, const char*, uint8_t) {}
void ms1824_osd_trans_font(const char*, const uint8_t*, const uint16_t*, uint8_t) {}
void ms1824_osd_win_enable(uint8_t, bool) {}
void ms1824_uninit(void) {}
// clang-format on
