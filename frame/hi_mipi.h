// Requests and records of the MIPI/LVDS receiver driver behind
// "/dev/ot_mipi". Request numbers are built from the record types, so that
// each ABI gets the numbers its kernel expects.
#pragma once

#include <sys/ioctl.h>

#include <cstddef>
#include <cstdint>

#define OT_MIPI_DEV_NAME "/dev/ot_mipi"

typedef uint32_t ot_combo_dev;

enum {
    OT_MIPI_MAX_DEV_NUM = 8,
    OT_MIPI_LANE_NUM = 4,  // lanes one device takes
    OT_MIPI_MAX_LANE_ID = OT_MIPI_MAX_DEV_NUM * OT_MIPI_LANE_NUM - 1,
};

// How the lanes are split among the devices; set once for the whole block.
typedef int32_t ot_lane_divide_mode;

typedef struct {
    int32_t x;
    int32_t y;
    uint32_t width;
    uint32_t height;
} ot_img_rect;

typedef struct {
    ot_combo_dev devno;                 // 0
    int32_t input_mode;                 // 4: 0 MIPI
    ot_img_rect img_rect;               // 8
    int32_t input_data_type;            // 24: 1 YUV 4:2:2, eight bits
    int32_t wdr_mode;                   // 28
    int16_t lane_id[OT_MIPI_LANE_NUM];  // 32: -1 for a lane not used
} ot_combo_dev_attr;

static_assert(sizeof(ot_combo_dev_attr) == 40, "the driver copies exactly 40 bytes");
static_assert(offsetof(ot_combo_dev_attr, img_rect) + offsetof(ot_img_rect, width) == 16,
              "ot_combo_dev_attr layout");
static_assert(offsetof(ot_combo_dev_attr, input_data_type) == 24, "ot_combo_dev_attr layout");
static_assert(offsetof(ot_combo_dev_attr, lane_id) == 32, "ot_combo_dev_attr layout");

#define OT_MIPI_IOC_MAGIC 'm'
#define OT_MIPI_SET_DEV_ATTR _IOW(OT_MIPI_IOC_MAGIC, 0x01, ot_combo_dev_attr)
#define OT_MIPI_RESET_MIPI _IOW(OT_MIPI_IOC_MAGIC, 0x07, ot_combo_dev)
#define OT_MIPI_UNRESET_MIPI _IOW(OT_MIPI_IOC_MAGIC, 0x08, ot_combo_dev)
#define OT_MIPI_SET_HS_MODE _IOW(OT_MIPI_IOC_MAGIC, 0x0B, ot_lane_divide_mode)
#define OT_MIPI_ENABLE_MIPI_CLOCK _IOW(OT_MIPI_IOC_MAGIC, 0x0C, ot_combo_dev)

static_assert(OT_MIPI_SET_DEV_ATTR == 0x40286D01, "request number");
static_assert(OT_MIPI_RESET_MIPI == 0x40046D07, "request number");
static_assert(OT_MIPI_UNRESET_MIPI == 0x40046D08, "request number");
static_assert(OT_MIPI_SET_HS_MODE == 0x40046D0B, "request number");
static_assert(OT_MIPI_ENABLE_MIPI_CLOCK == 0x40046D0C, "request number");
