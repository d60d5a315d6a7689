// Analogue scaler (VGA, YPbPr, CVBS in; several outputs) worked through the
// host's closed ms1824_* library. A 500 ms timer follows the input's VIC,
// reconfigures the chip when it changes and leaves the input timing for
// onCheck to publish.
#pragma once

#include <QTimer>

#include "driver/DriverBase.h"
#include "frame/ms1824.h"

class DriverMS1824 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverMS1824(QObject* parent = nullptr);

    QMap<QString, QVariant> diagnostics() override;

    // The chip is one per board: its state is class-wide.
    static uint8_t g_u8_InputPort;   // 0 YPbPr, 1 VGA, 2 CVBS
    static uint8_t g_u8_OutputPort;  // 0 VGA, 1 MS1824 AV, 2 MS7024 AV, 3 LVDS, 4 TTL
    static uint8_t g_u8_input_mode1;
    static uint8_t g_u8_input_mode2;
    static ms1824_timing_t g_st_input_timing1;
    static ms1824_timing_t g_st_input_timing2;
    static ms1824_timing_t g_st_output_timing;
    static uint8_t g_u8_output_vic;
    static uint8_t g_u8_cvbs_count;
    static uint8_t g_bOSDShown;
    static uint8_t g_u8OSDCount;

    static const char* const kOutputLabels[5];
    static const char* const kInputLabels[3];

    // One pass of the service: the timing of the input's path.
    static ms1824_timing_t sys_vga_media_service();
    static void sys_vid_process_int();
    static void sys_power(bool on);
    static void sys_outout_key();
    static void sys_video_mute_service();
    static void _switch_input_mode();
    static void _set_osdwin_pos();
    static void osd_service();
    static void _init_ms1824();
    static void _setup_video_input(uint8_t port);
    static void _setup_video_output();
    static void _setup_video_output_resolution(uint8_t vic);
    static void _setup_video_win_pos();
    static uint8_t _set_scaler();
    static uint32_t _cal_mem_size(uint16_t width, uint16_t height);
    static uint32_t _return_minof_three(uint32_t a, uint32_t b, uint32_t c);

    QTimer* timer;
    // What onCheck publishes; written by onTimer as a plain copy.
    ms1824_timing_t timing;

public slots:
    void init() override;
    void onCheck() override;
    void onTimer();
};
