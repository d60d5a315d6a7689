// Chip part: pads, colour conversion, hot-plug, 5 V detect and EDID RAM.
#pragma once

#include "ms7200_mpi.h"

class CMs7200drvMisc : public CMs7200Mpi {
public:
    using CMs7200Mpi::CMs7200Mpi;

    void ms7200drv_misc_pads_init();
    void ms7200drv_misc_csc_config(uint8_t inCs, uint8_t outCs);
    void ms7200drv_misc_pclk_drive(uint8_t strength);
    void ms7200drv_misc_data_drive(uint8_t strength);
    bool ms7200drv_misc_rx_5v_detect();
    bool ms7200drv_misc_hpd_get();
    void ms7200drv_misc_hpd_set(bool high);
    void ms7200drv_misc_edid_load(const uint8_t* edid, int len);
};
