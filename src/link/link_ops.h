// The table of operations of a device link. There are two: USB and replay file; a third would be one more
// table. Tables are const, one for each link, with every slot named, empty ones too.
//
// No slot is called with a lock of the library held, apart from cap_wait (see there); each link locks by
// itself. A link never calls a chip driver: it reaches one only through the parameter calls of the API.
#pragma once

#include "tqcam.h"

struct tqcam_ll_ops_t {
    bool (*init)();               // once, from tqcam_ll_init
    void (*uninit)();             // once, from tqcam_ll_uninit
    void (*set_debug)(int level); // the library's level for the transport's own log

    // Open the record's device, write the own table into ops and return the record; NULL for a record of
    // another link or a device that can't be opened, with nothing left allocated.
    tqcam_ll_dev_t *(*dev_open)(tqcam_ll_dev_t *dev);
    tqcam_ll_dev_t *(*dev_open_by_fd)(tqcam_ll_dev_t *dev, int fd);
    // Ends the event thread and frees the private state. Not from the event thread.
    void (*dev_close)(tqcam_ll_dev_t *dev);
    // Fills up to max records with addresses; returns how many.
    int (*dev_list)(tqcam_ll_dev_t *list, int max);

    // One command with its confirmation: write sends len bytes, a read sends and then reads into data.
    bool (*exe_cmd)(tqcam_ll_dev_t *dev, uint8_t write, uint8_t type, uint16_t value, void *data,
                    uint32_t len, uint32_t timeout_ms);
    // Sends bulk data; bytes sent or a negative code.
    int (*tx_data)(tqcam_ll_dev_t *dev, const void *data, uint32_t len);

    void (*cap_abort)(tqcam_ll_dev_t *dev); // sets the stop flag only; from the event thread too
    // A retrieval waits for a frame. Called with rdy_lock held; must not block. A replay that is stepped
    // frame by frame takes it as the permit for one frame, under its own wait_lock inside rdy_lock.
    void (*cap_wait)(tqcam_ll_dev_t *dev);
    // From here on cb gets the data, on the event thread. mode 1: a replay begins again at its end.
    bool (*cap_start)(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg);
    bool (*cap_stop)(tqcam_ll_dev_t *dev);
    // Optional: nullptr for USB, which tqcam_cap_seek_frame therefore refuses.
    int (*cap_seek)(tqcam_ll_dev_t *dev, int offset, int origin);

    bool (*dev_reset)(tqcam_ll_dev_t *dev, uint8_t target);
    bool (*reg_write)(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, const uint32_t *data, uint16_t count);
    bool (*reg_read)(tqcam_ll_dev_t *dev, uint8_t type, uint32_t addr, uint32_t *data, uint16_t count);
    bool (*param_set)(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count);
    bool (*param_get)(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count);
};

extern const tqcam_ll_ops_t usb_ll_ops;  // usb_link.cpp
extern const tqcam_ll_ops_t file_ll_ops; // file_link.cpp
