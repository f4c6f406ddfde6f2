// An open camera of the E family without hardware.
#pragma once

#include "../support/link_camera.h"
#include "drivers/epc/epc_priv.h"
#include "tq_stream.h"

class EpcCamera : public LinkCamera {
  public:
    // chip: second word of the product string
    explicit EpcCamera(const std::string &chip = "E1") : LinkCamera("XX-" + chip + "-YY")
    {
        set_words(TQCAM_PARAM_MOD_FREQ, {12000000});
    }
    epc_priv_t *priv() { return epc_priv(drv()); }

    static tqcam_frame_info_t info(uint16_t fmt, uint32_t w, uint32_t h, uint32_t planes)
    {
        tqcam_frame_info_t i = {};
        i.frame_size = planes * w * h * 2;
        i.frame_format = fmt;
        i.width = w;
        i.height = h;
        return i;
    }
};
