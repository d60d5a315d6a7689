// The host's small media layer over the SoC: the graph clock, tees that fan
// frames out of a hardware source, frame allocation, the copy engine and a
// few display wrappers. Implemented by the hosting process.
#pragma once

#include <QRect>
#include <cstdint>

#include "frame/VeskObject.h"
#include "frame/hi_types.h"

class HiVpss {
public:
    int getId();
    int id = 0;
};

class VeskTee;

class VeskTeeChn {
public:
    ~VeskTeeChn();
    ot_mpp_chn getChn();
    void resizeChn(int width, int height, bool keep);
    void setFlip(bool flip);
    void setMirror(bool mirror);

    HiVpss* vpss = nullptr;

    // Host bookkeeping.
    VeskTee* owner = nullptr;  // a channel deleted leaves its tee
    int teeId = 0;
    int index = 0;
    int width = 0, height = 0;
    bool flip = false, mirror = false, ipc = false;
    bool flagA = false, flagB = false;
};

class VeskTee {
public:
    int getId();
    ot_mpp_chn getSource();
    VeskTeeChn* newChn(bool a, bool b);
    VeskTeeChn* newChnIPC();
    void setMax(int width, int height);
    void updateParam();

    int32_t contrast = 0;
    bool sourceFlag = false;

    // Host bookkeeping.
    int id = 0;
    int grp = -1;  // the processing group behind the tee
    ot_mpp_chn source{0, 0, 0};
    int maxWidth = 0, maxHeight = 0;
    int appliedContrast = 0;
    QList<VeskTeeChn*> chns;  // changed from several threads: under the host's tee lock
};

class MemInfo {
public:
    MemInfo();
    ~MemInfo();
    void fromFrame(ot_video_frame_info& frame);

    uint64_t physAddr[3] = {0, 0, 0};
    uint64_t virtAddr[3] = {0, 0, 0};
    uint32_t stride[3] = {0, 0, 0};
    uint32_t width = 0, height = 0;
};

class IVE {
public:
    static int copy(int* handle, MemInfo* src, MemInfo* dst, QRect rect, td_bool block);
    static int copyUV(int* handle, MemInfo* src, MemInfo* dst, td_bool block);
};

class VeskHi {
public:
    // Also returns the time, for callers that pass a null `out`.
    static long long getPTS(void* out, bool raw);
    static void setPTSOffset(long long offset);
    static bool absPTS;
    static VeskTee* newTee(int module, int device, int channel);
    static void delTee(VeskTee* tee);
    static VeskTee* getTee(int id);
    static ot_video_frame_info makeFrame(int width, int height, unsigned int* pool);
    static int bind(int srcModule, int srcDevice, int srcChannel, int dstModule, int dstDevice,
                    int dstChannel);
    static int bindFromTee(VeskTeeChn* chn, int dstModule, int dstDevice, int dstChannel);
};

int zr_mpi_vo_bt_set_param(int device, bool swap, bool wide);
int zr_mpi_vo_set_low_Latency(ot_vo_video_layer_attr& attr, int device);
int zr_mpi_vo_set_normal_Latency(ot_vo_video_layer_attr& attr, int device);
ot_vdec_stream zr_vdec_stream_init(VeskObject::Packet packet);
