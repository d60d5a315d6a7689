// Analogue scaler (VGA, YPbPr, CVBS in; several outputs) worked through the
// host's closed ms1824_* library. A 500 ms timer runs the scaler's service,
// which follows the input's VIC, reconfigures the chip when it changes and
// leaves the input timing for onCheck to publish.
#pragma once

#include <QTimer>

#include "driver/DriverBase.h"
#include "frame/ms1824.h"

class DriverMS1824 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverMS1824(QObject* parent = nullptr);

    QMap<QString, QVariant> diagnostics() override;

    QTimer* timer;
    // What onCheck publishes; the chip is one per board. Written by onTimer
    // as a plain copy.
    static ms1824_timing_t timing;

public slots:
    void init() override;
    void onCheck() override;
    void onTimer();
};

// The scaler's service, in the plain-function style of the chip's reference
// code: its state is one set of globals, touched on the timer's thread.
extern uint8_t g_u8_InputPort;    // 0 YPbPr, 1 VGA, 2 CVBS
extern uint8_t g_u8_OutputPort;   // 0 VGA, 1 MS1824 AV, 2 MS7024 AV, 3 LVDS, 4 TTL
extern uint8_t g_u8_input_mode1;  // last VIC of each video path, 255: none
extern uint8_t g_u8_input_mode2;
extern ms1824_timing_t g_st_input_timing1;
extern ms1824_timing_t g_st_input_timing2;
extern ms1824_timing_t g_st_output_timing;
extern uint8_t g_u8_cvbs_count;  // ticks a CVBS VIC has been seen
extern uint8_t g_bOSDShown;
extern uint8_t g_u8OSDCount;

// One pass of the service: the timing of the input's path.
ms1824_timing_t sys_vga_media_service();
void sys_vid_process_int();
void sys_power(bool on);
void sys_outout_key();
void sys_video_mute_service();
void _switch_input_mode();
void _set_osdwin_pos();
void osd_service();
void _init_ms1824();
void _setup_video_input(uint8_t port);
void _setup_video_output();
void _setup_video_output_resolution(uint8_t vic);
void _setup_video_win_pos();
uint8_t _set_scaler();
uint32_t _cal_mem_size(uint16_t width, uint16_t height);
uint32_t _return_minof_three(uint32_t a, uint32_t b, uint32_t c);
// Freezes the port's video path, writes a pattern into its frame memory and
// reads it back; true when every byte came back. Not part of the running
// path: a bench tool for a board that shows torn or garbled pictures.
bool ms1824_memory_test(uint8_t port);
