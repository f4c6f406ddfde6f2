/* libtqcam: driver library for a family of time-of-flight depth cameras.
 *
 * The road of one frame
 *
 *   tqcam_init(NULL);
 *   tqcam_dev_t *dev = tqcam_dev_open_by_uri("file://scene.oni");   a camera: "usb://001:002"
 *   tqcam_cap_start(dev);
 *   tqcam_frame_t first;
 *   tqcam_cap_get_frames(dev, 1, raw, raw_bytes, &first);            raw sensor samples
 *   tqcam_frame_get_dist_f32(dev, dist, w * h, raw, raw_bytes, &first.frame_info);   metres
 *   tqcam_cap_stop(dev);
 *   tqcam_dev_close(dev);
 *   tqcam_uninit();
 *
 * The camera's bytes arrive on the link's event thread, which only reassembles them into whole raw frames and
 * keeps the newest few. Everything else runs on the application's threads, inside the calls below: retrieval
 * copies a raw frame into the caller's buffer, and the tqcam_frame_get functions turn it into distance, gray
 * or a point cloud, with calibration, temperature correction and the filters that are switched on. With no
 * retrieval call running, no callback fires.
 *
 * Units: u16 distance is in millimetres, f32 distance in metres; temperatures are tenths of a degree Celsius;
 * integration times are microseconds; modulation frequencies are Hz. Images are row-major without padding.
 *
 * Memory: frame buffers are the caller's. Strings in tqcam_dev_info_t live while the device is open.
 *
 * Threads: any number may call functions on one open device; retrieval (tqcam_cap_get_frames, _get_frame,
 * _snapshot) is for one thread at a time. tqcam_init, tqcam_uninit and tqcam_path_set are for one thread,
 * with no other call running. "Event thread" below is the link's, "application thread" the caller's.
 *
 * Failures: most calls on a handle that is NULL or not open log "Device handler Is NULL!" and return 0. Every
 * failure writes a log line that says what was wrong. Out of memory while opening ends the process. */
#ifndef TQCAM_H
#define TQCAM_H

#include <stdbool.h>
#include <stdint.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tqcam_dev_t tqcam_dev_t;
typedef struct tqcam_ll_dev_t tqcam_ll_dev_t;
typedef struct tqcam_ll_ops_t tqcam_ll_ops_t;     /* internal: the link's table of operations */
typedef struct tqcam_dev_priv_t tqcam_dev_priv_t; /* internal: state of an open device */
typedef struct tqcam_drv_t tqcam_drv_t;           /* internal: a row of the chip driver table */
struct tq_calib_len_map_t;                        /* tq_lens.h */

/* ---- Results of capture and retrieval ---------------------------------------------------------------- */

enum {
    TQCAM_OK = 0,
    TQCAM_ERR_CAP_FRAME_DISCARD = 3, /* warning: frames were lost on the way; capture goes on */
    TQCAM_ERR_CAP_WRONG_STATE = -2,  /* no capture is running */
    TQCAM_ERR_CAP_CANCEL = -3,       /* cancelled */
    TQCAM_ERR_CAP_TIMEOUT = -5,      /* the camera sent nothing for too long */
    TQCAM_ERR_CAP_STALL = -7,        /* the camera's data pipe stalled too often */
    TQCAM_ERR_CAP_ERROR = -8,
    TQCAM_ERR_CAP_EOF = -9,     /* end of the replay file */
    TQCAM_ERR_CAP_UNKNOWN = -10 /* transfer failed, as after an unplug */
};

/* ---- Addresses and handles --------------------------------------------------------------------------- */

enum {
    TQCAM_IF_USB = 0,
    TQCAM_IF_ETH = 1, /* an address form only: no link serves it */
    TQCAM_IF_FILE = 2,
    TQCAM_IF_ANY = 99 /* the first USB camera that answers */
};

typedef struct tqcam_usb_addr_t {
    uint8_t bus;
    uint8_t port;
    uint8_t addr;     /* 255: any address at this bus and port */
    uint8_t speed;    /* libusb's speed code; above 2 is full working speed */
    char product[16]; /* NUL-terminated */
    char vendor[16];  /* NUL-terminated */
} tqcam_usb_addr_t;

typedef struct tqcam_eth_addr_t {
    char addr[16];
    uint32_t token2;
    uint32_t token1;
} tqcam_eth_addr_t;

typedef struct tqcam_file_addr_t {
    char *path; /* owned by the handle, freed when it closes */
} tqcam_file_addr_t;

/* Where a device is. */
typedef struct tqcam_ll_addr_t {
    uint32_t if_type; /* TQCAM_IF_... */
    union {
        tqcam_usb_addr_t usb;
        tqcam_eth_addr_t eth;
        tqcam_file_addr_t file;
        uint8_t bytes[40];
    };
} tqcam_ll_addr_t;

/* The record of a device link, for the tqcam_ll functions at the end of this header. */
struct tqcam_ll_dev_t {
    void *priv;                /* link-private state; NULL until the link is open */
    tqcam_ll_addr_t address;   /* where the device is */
    const tqcam_ll_ops_t *ops; /* the link's table; NULL until a listing or an open sets it */
    uint8_t inited;            /* the address is valid */
    tqcam_dev_t *dev;          /* the handle above this link, or NULL */
};

typedef struct tqcam_version_t {
    uint16_t hardware;
    uint16_t software;
    uint16_t boot;
    uint16_t spare;
} tqcam_version_t;

/* The public handle. Callers own it unless the library allocated it (tqcam_dev_open_by_uri). Only the library
 * writes to it, apart from the zeroing of a new one. */
struct tqcam_dev_t {
    tqcam_dev_priv_t *priv; /* NULL while the device is not open */
    tqcam_ll_addr_t address;
    char product[32]; /* product string from the device, the key of driver lookup */
    char vendor[32];
    char serial[32]; /* the three serial words as text */
    uint64_t dev_id;
    tqcam_version_t version;
    const char *path_prefix; /* the process-wide path prefix */
    void *api_lock;          /* internal */
    uint8_t inited;          /* the address came from a listing or a URI and is valid */
    uint8_t owned;           /* the library allocated this handle and frees it on close */
    uint8_t api_active;      /* internal: calls in flight */
};

/* Lens parameters at the frame's size: principal point and focal length in pixels, distortion in the order
 * k1 k2 p1 p2 k3 k4 k5 k6 of the rational radial and tangential model (Brown 1966). */
typedef struct tqcam_lens_info_t {
    float cx, cy, fx, fy;
    float dcoef[16];
    uint8_t n_dcoef; /* how many of dcoef count */
} tqcam_lens_info_t;

/* What tqcam_dev_get_info copies out. Its strings and calib_freqs live while the device is open. */
typedef struct tqcam_dev_info_t {
    const char *vendor;
    const char *product;
    const char *serial;
    uint64_t dev_id;
    char *uri;
    uint32_t serial_words[3];
    tqcam_version_t version;
    uint16_t max_w, max_h; /* largest frame, pixels */
    uint16_t limit_spare;
    uint16_t max_fps;
    uint16_t max_intg_us;
    char drv_name[16];
    uint32_t dev_id32; /* the number in the names of this device's files */
    const char *path_prefix;
    uint32_t *calib_freqs; /* calibrated modulation frequencies, Hz */
    uint32_t calib_freq_cnt;
    uint8_t calib_compressed; /* of the calibration pack that the device holds */
    uint32_t calib_ts, calib_fsize;
    uint32_t calib_dsize;
    tqcam_lens_info_t lens_param;
} tqcam_dev_info_t;

/* ---- Library ------------------------------------------------------------------------------------------ */

/* Starts the library: logger, links, colour map. Does nothing when it is already started.
 *
 * log_fname  name of the log file; NULL takes "tqcam_YYYYMMDD.log", an empty string means no file */
TQCAM_API void tqcam_init(const char *log_fname);

/* Ends the library. Close all devices first. */
TQCAM_API void tqcam_uninit(void);

/* Thresholds of the console, the log file and the USB library, 0 (trace) to 7 (silent); see tq_log.h. The
 * third counts for devices opened afterwards. */
TQCAM_API void tqcam_log_cfg(int console_level, int file_level, int link_level);

/* Sets the prefix that stands in front of the names of calibration and lens files, and creates its folders.
 * The prefix is used as it stands: end it with a separator. At most 255 characters are kept.
 *
 * Returns the result of the last access or mkdir: 0 when the folder is there, -1 when it can't be made. */
TQCAM_API int tqcam_path_set(const char *path);

/* The prefix. Never NULL; the buffer is the library's. */
TQCAM_API const char *tqcam_path_get(void);

/* The word of a capture error code, "OK" for 0, "**UNKNOWN**" for a code that isn't one. Any thread. */
TQCAM_API const char *tqcam_error_name(int code);

/* ---- Devices ------------------------------------------------------------------------------------------ */

/* Lists the cameras on USB. Fills up to max handles, which tqcam_dev_open accepts; all max are cleared first.
 * Returns how many were found. */
TQCAM_API int tqcam_dev_list(tqcam_dev_t *list, int max);

/* Writes the URI of a listed or opened device into buf, at most len - 1 characters.
 * Returns buf, or NULL for NULL arguments or a handle without address. */
TQCAM_API char *tqcam_dev_get_uri(tqcam_dev_t *dev, char *buf, int len);

/* Opens a device: link, identity, chip driver, calibration. Blocks for as long as the device takes.
 *
 * dev  a handle from tqcam_dev_list; NULL opens the first USB camera on a handle of the library's own, of
 *      which there is one
 *
 * A device without calibration opens all the same. Returns the handle, or NULL when there is no such device,
 * it does not answer, no driver fits its product string, or the driver refuses it. */
TQCAM_API tqcam_dev_t *tqcam_dev_open(tqcam_dev_t *dev);

/* Opens by URI: "usb://BUS:PORT[:ADDR]", "file://PATH", or a bare path of a replay file. The scheme's case
 * does not matter. The handle is the library's; tqcam_dev_close frees it. Returns NULL as above, or for a URI
 * of no known form. */
TQCAM_API tqcam_dev_t *tqcam_dev_open_by_uri(const char *uri);

/* Not supported on this platform: logs so and returns NULL. */
TQCAM_API tqcam_dev_t *tqcam_dev_open_by_fd(int fd);

/* Stops capture and closes the device. Waits up to 20 seconds for calls in flight on other threads; never
 * call it from a callback. NULL and closed handles are fine. */
TQCAM_API void tqcam_dev_close(tqcam_dev_t *dev);

/* Copies the device's information. Returns info; NULL when an argument is NULL or the device isn't open. */
TQCAM_API tqcam_dev_info_t *tqcam_dev_get_info(tqcam_dev_t *dev, tqcam_dev_info_t *info);

/* Resets a part of the device: target 0 to 8; 3 is the USB interface, after which the device comes back with
 * a new address: a capture ends there, and calls of other threads fail meanwhile. Returns the link's answer,
 * false for other targets; for target 3 false is not a failure. */
TQCAM_API bool tqcam_dev_reset(tqcam_dev_t *dev, int target);

/* ---- Parameters and registers ------------------------------------------------------------------------- */

enum {
    TQCAM_PARAM_DEV_MODE = 0,
    TQCAM_PARAM_MOD_FREQ = 1, /* u32 Hz */
    TQCAM_PARAM_VENDOR = 2,
    TQCAM_PARAM_PRODUCT = 3,
    TQCAM_PARAM_LIMITS = 4,
    TQCAM_PARAM_SERIAL = 5,
    TQCAM_PARAM_VERSION = 6,
    TQCAM_PARAM_CHIP_ID = 7,
    TQCAM_PARAM_CALIB_INFO = 8,
    TQCAM_PARAM_ROI = 9,        /* tqcam_roi_value_t */
    TQCAM_PARAM_FORMAT = 10,    /* u32 */
    TQCAM_PARAM_FPS = 12,       /* u32; 0 steps a replay frame by frame, 1000 and more paces it again */
    TQCAM_PARAM_INTG1 = 13,     /* u16 microseconds, or with length 8 two u32 */
    TQCAM_PARAM_INTG2 = 16,     /* u16 microseconds; 0 switches the second integration time off */
    TQCAM_PARAM_GRAY_DIV = 20,  /* u16 */
    TQCAM_PARAM_DUAL_FREQ = 21, /* two u32, Hz */
    TQCAM_PARAM_CAP_MODE = 27   /* u32 mode, u32 argument; mode other than 0: retrieval waits for hours */
};

/* One parameter. value is little-endian; param_len of its 18 bytes count. */
typedef struct tqcam_param_item_t {
    uint32_t param_id;
    uint8_t param_len;
    uint8_t value[18];
} tqcam_param_item_t;

/* Writes count parameters in one batch. The device goes first: a value that it refuses changes nothing here.
 * Returns true when the link took the whole batch; on false a part may have reached the device. Any thread;
 * blocks for the transfer. */
TQCAM_API bool tqcam_param_batch_set(tqcam_dev_t *dev, const tqcam_param_item_t *items, int count);

/* Reads count parameters: items give param_id and param_len, and get param_len and value. An item that the
 * device doesn't know may come back with length 0. Returns true when all were read. */
TQCAM_API bool tqcam_param_batch_get(tqcam_dev_t *dev, tqcam_param_item_t *items, int count);

/* Write or read count 32-bit registers from reg_base on; target selects the register file, 0 to 255. Return
 * the link's answer. */
TQCAM_API bool tqcam_reg_batch_write(tqcam_dev_t *dev, int target, uint32_t reg_base, const uint32_t *values,
                                     int count);
TQCAM_API bool tqcam_reg_batch_read(tqcam_dev_t *dev, int target, uint32_t reg_base, uint32_t *values,
                                    int count);

/* What the chip drivers ask of an open device: frames per second, the short device id, the frame format, the
 * undistortion map in use. 0 or NULL for a device that isn't open. */
TQCAM_API uint32_t tq_priv_get_fps(tqcam_dev_t *dev);
TQCAM_API uint32_t tq_priv_get_param_id(tqcam_dev_t *dev);
TQCAM_API uint32_t tq_priv_get_fmt(tqcam_dev_t *dev);
TQCAM_API struct tq_calib_len_map_t *tq_priv_get_len_calib_handle(tqcam_dev_t *dev);

/* Full name of the device's calibration file under the path prefix, cut to size - 1 characters. Returns false
 * for a device that isn't open. */
TQCAM_API bool tq_priv_get_param_absolute_name(tqcam_dev_t *dev, char *buf, int size);

/* ---- Capture ------------------------------------------------------------------------------------------- */

/* Information of one frame; also stored in recordings, so the layout is a file format: 100 bytes. */
typedef struct tqcam_frame_info_t {
    uint32_t frame_size; /* bytes of raw frame data */
    uint16_t frame_format;
    uint16_t frame_idx;  /* wraps at 65536 */
    uint32_t width;      /* pixels */
    uint32_t height;     /* pixels */
    uint8_t pixel_bytes; /* frame_size / width / height */
    uint8_t reserved0[3];
    int16_t temp_cb;    /* sensor board, tenths of a degree, filtered */
    int16_t temp_ib;    /* illumination, tenths of a degree, filtered */
    uint32_t time_sec;  /* seconds since the epoch */
    uint32_t time_usec; /* microseconds, in steps of 64 */
    uint32_t reserved1;
    uint32_t meta_size;    /* bytes of meta data in the frame, for each sub-frame */
    uint32_t meta_intg_us; /* integration time that the meta data reports, 0 when it has none */
    uint8_t reserved2[56];
} tqcam_frame_info_t;

typedef struct tqcam_frame_t {
    tqcam_frame_info_t frame_info;
    void *frame_data; /* raw bytes; in a callback valid during the call only */
} tqcam_frame_t;

/* A frame has arrived. Runs on the application thread that is inside a retrieval call, with no lock held; may
 * call any function but tqcam_dev_close. Of a frame that no retrieval has a buffer for, the first 4 MiB are
 * there; frame_size tells its whole size. */
typedef void (*tqcam_on_frame_ready_t)(tqcam_dev_t *dev, tqcam_frame_t *frame);

/* Capture met an error: code as above, value with TQCAM_ERR_CAP_FRAME_DISCARD the frames lost so far. Same
 * thread as above. Return false to end capture. */
typedef bool (*tqcam_on_cap_error_t)(tqcam_dev_t *dev, int code, uint64_t value);

typedef struct tqcam_cap_cfg_t {
    uint32_t cache_frames_cnt; /* whole frames kept for a slow reader, at least 2; 10 after open */
    tqcam_on_frame_ready_t on_cap_frdy;
    tqcam_on_cap_error_t on_cap_err;
    uint8_t en_save_manual; /* record only what tqcam_cap_save_frame is given */
    uint8_t en_save_replay; /* record raw frames */
    uint8_t en_save_dist;   /* record distance images, when the application decodes them */
    uint8_t en_save_gray;   /* record gray images, likewise */
    char *save_file;        /* name of the recording; the library keeps a copy of its own */
    uint8_t file_loop;      /* a replay begins again at its end */
} tqcam_cap_cfg_t;

/* Stores the capture configuration. While capturing, cache_frames_cnt keeps its value, and a change of the
 * recording restarts the recording. Returns false only for NULL arguments. */
TQCAM_API bool tqcam_cap_config_set(tqcam_dev_t *dev, const tqcam_cap_cfg_t *cfg);

/* Copies the configuration out; its save_file stays the handle's. Nothing happens for NULL arguments. */
TQCAM_API void tqcam_cap_config_get(tqcam_dev_t *dev, tqcam_cap_cfg_t *cfg);

/* Set a callback, also during capture; NULL takes it away. Return true, false when the device isn't open. */
TQCAM_API bool tqcam_cap_set_callback_on_frame_ready(tqcam_dev_t *dev, tqcam_on_frame_ready_t fn);
TQCAM_API bool tqcam_cap_set_callback_on_error(tqcam_dev_t *dev, tqcam_on_cap_error_t fn);

/* Starts capture; a running one is stopped first, and frames not yet fetched are given up. A replay starts
 * from its beginning. Returns true on success. */
TQCAM_API bool tqcam_cap_start(tqcam_dev_t *dev);

/* Stops capture and wakes waiting retrievals; frames not yet fetched are lost. Returns true also when there
 * was nothing to stop; false when the device isn't open or did not confirm. */
TQCAM_API bool tqcam_cap_stop(tqcam_dev_t *dev);

/* True while capture runs. False after it ended by itself (end of a replay, unplug, an error callback that
 * returned false), also before tqcam_cap_stop was called. */
TQCAM_API bool tqcam_cap_is_ongoing(tqcam_dev_t *dev);

/* ---- Retrieval ----------------------------------------------------------------------------------------- */

/* Waits for frame_num raw frames, at most frame_num frame times plus a tenth of a second each plus 2 seconds.
 *
 * buf, buf_len  where frames go, behind each other, and its size in bytes; NULL leaves the frames to the
 *               callback. Frames that are ready at the same moment land on the same place, the last one
 *               staying: to see each frame ask for one a call, or use the callback.
 * first_frame   receives the information of the first frame, its frame_data is NULL; may be NULL
 *
 * Returns the frames got, after a time-out possibly fewer than asked and 0; a negative TQCAM_ERR_CAP code,
 * each once. A frame that was ready comes with the code, in buf and to the callback: first_frame then has a
 * frame_size. -1 for a device that isn't open or frame_num 0. One thread at a time for one device. */
TQCAM_API int tqcam_cap_get_frames(tqcam_dev_t *dev, uint32_t frame_num, void *buf, uint32_t buf_len,
                                   tqcam_frame_t *first_frame);

/* One raw frame if there is one, without waiting. Results as above, 0 when none is ready. */
TQCAM_API int tqcam_cap_get_frame(tqcam_dev_t *dev, void *buf, uint32_t buf_len, tqcam_frame_info_t *info);

/* One raw frame; starts and stops capture if none runs. Returns true when the retrieval's result isn't 0. */
TQCAM_API bool tqcam_cap_snapshot(tqcam_dev_t *dev, void *buf, uint32_t buf_len, tqcam_frame_t *first_frame);

/* Moves a replay: origin 0 from the start, 1 from the current frame, 2 from the end. The next frame is the
 * one after the resulting number. Returns that number, or -1 for other devices and on failure. */
TQCAM_API int tqcam_cap_seek_frame(tqcam_dev_t *dev, int offset, int origin);

/* Records one raw frame by hand, while a capture with en_save_manual runs. info is required for a frame to be
 * written. Returns 0, -9 when no manual recording is on, -22 for wrong arguments. */
TQCAM_API int tqcam_cap_save_frame(tqcam_dev_t *dev, const void *data, uint32_t len,
                                   const tqcam_frame_info_t *info);

/* ---- Decoding ------------------------------------------------------------------------------------------ */

/* Decode a raw frame into an image of width x height values.
 *
 * dst, dst_len  where the image goes; dst_len counts values
 * src, src_len  one raw frame as retrieved; src_len counts bytes
 * info          the frame's own information, or NULL for that of the frame retrieved last
 *
 * dist_raw is the uncalibrated, unfiltered distance in millimetres, dist_u16 millimetres, dist_f32 metres; a
 * distance of 0 is no measurement or a dropped pixel, 65500 (65.5 m) an invalid one in 1- and 2-plane frames.
 * gray is the amplitude of the returned light in sensor units. Filters run on distance as they are switched
 * on. Gray of the frame whose distance was decoded last costs little.
 *
 * May run beside capture, retrieval and other decoding. Return the values written; 0 on failure, and the log
 * says why; -1 when the device isn't open. */
TQCAM_API int tqcam_frame_get_dist_raw(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
TQCAM_API int tqcam_frame_get_dist_u16(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
TQCAM_API int tqcam_frame_get_gray_u16(tqcam_dev_t *dev, uint16_t *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
TQCAM_API int tqcam_frame_get_dist_f32(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
TQCAM_API int tqcam_frame_get_gray_f32(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
/* Older names of the f32 forms. */
TQCAM_API int tqcam_frame_get_distance(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                                       uint32_t src_len, const tqcam_frame_info_t *info);
TQCAM_API int tqcam_frame_get_gray(tqcam_dev_t *dev, float *dst, uint32_t dst_len, const void *src,
                                   uint32_t src_len, const tqcam_frame_info_t *info);

/* Turn a distance image (f32 metres, width w, height h) into points through a pinhole model: x to the right,
 * y down, z out of the lens, metres. An invalid pixel gives the point 0, 0, 0.
 *
 * pcl, pcl_len   3 f32 a point, 4 in the xyzd and xyzi forms; pcl_len counts f32
 * dist_len       at least w x h
 * lens           cx, cy, fx, fy in pixels of this image, or NULL for the device's own
 * pseudo_color   true: the fourth value is the pixel's colour word (R in the low byte) as a number, coloured
 *                over range_min to range_max metres; false: the distance
 * gray           f32 amplitudes, gray_len at least w x h; the fourth value is their brightness as a colour
 *                word; ir_balance -1024 to 1024, higher is brighter
 *
 * Return the number of points, w x h; 0 on failure, and the log says why. */
TQCAM_API int tqcam_frame_get_pcl(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                                  uint32_t dist_len, uint32_t w, uint32_t h, const float *lens);
TQCAM_API int tqcam_frame_get_pcl_xyzd(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                                       uint32_t dist_len, uint32_t w, uint32_t h, bool pseudo_color,
                                       const float *lens, float range_min, float range_max);
TQCAM_API int tqcam_frame_get_pcl_xyzi(tqcam_dev_t *dev, float *pcl, uint32_t pcl_len, const float *dist,
                                       uint32_t dist_len, const float *gray, uint32_t gray_len, uint32_t w,
                                       uint32_t h, int ir_balance, const float *lens);

/* Unpacks a raw frame of format 2 or 37 with meta data into 16-bit samples: u16 row width, u16 row count,
 * then for each of four sub-frames its pixels and its three meta lines. dst_len and src_len count bytes.
 * Returns the bytes written; 0 when a buffer is too small; -1 for another format or a device that isn't open.
 */
TQCAM_API int tqcam_get_raw_frames_ex(tqcam_dev_t *dev, void *dst, uint32_t dst_len, const void *src,
                                      uint32_t src_len, const tqcam_frame_info_t *info);

/* ---- Filters and use cases ----------------------------------------------------------------------------- */

enum {
    TQCAM_FILTER_LENS = 0,         /* lens calibration of gray and distance images */
    TQCAM_FILTER_PIXEL_CALIB = 1,  /* per-pixel calibration */
    TQCAM_FILTER_DENOISE = 2,      /* arg.denoise */
    TQCAM_FILTER_MIN_AMP = 4,      /* arg.value: least amplitude */
    TQCAM_FILTER_AUTO_INTG = 5,    /* arg.value */
    TQCAM_FILTER_SYNC_CHECK = 6,   /* arg.value: delay */
    TQCAM_FILTER_TEMP_MONITOR = 7, /* arg.value: period */
    TQCAM_FILTER_HDR = 8,          /* arg.hdr: two integration times, microseconds */
    TQCAM_FILTER_OFFSET = 9,     /* arg.offset: millimetres, and a scale in thousandths on the SONY family */
    TQCAM_FILTER_SPORT = 10,     /* arg.mode: 0, 1 or 2 */
    TQCAM_FILTER_SYS_CALIB = 11, /* the system calibration stored in the device */
    TQCAM_FILTER_GRAY_REF = 12,  /* arg.value: divisor of the gray reference */
    TQCAM_FILTER_FLY_PIXEL = 13, /* arg.mode: strength 0 to 31 */
    TQCAM_FILTER_TEMP_CORR = 14  /* temperature correction */
};

typedef union tqcam_filter_arg_t {
    uint16_t value;
    uint8_t mode;
    struct {
        uint8_t a; /* 240: b sets the strength */
        uint8_t b;
    } denoise;
    struct {
        uint16_t intg1_us;
        uint16_t intg2_us;
    } hdr;
    struct {
        int16_t mm;
        uint16_t scale; /* thousandths, 0 means 1 */
    } offset;
    uint8_t bytes[8];
} tqcam_filter_arg_t;

/* Switch a filter on or off, before or during capture; it counts from the next frame decoded. arg may be NULL
 * for filters without argument. Return 0 on success, -1 otherwise: an unknown filter, one that this chip
 * doesn't have, or a camera that refused. */
TQCAM_API int tqcam_filter_enable(tqcam_dev_t *dev, uint32_t filter_id, const tqcam_filter_arg_t *arg);
TQCAM_API int tqcam_filter_disable(tqcam_dev_t *dev, uint32_t filter_id);

/* A use case: a set of modulation frequencies and a frame rate that belong together. */
typedef struct tqcam_use_case_t {
    uint8_t avail; /* the device is calibrated for it */
    uint8_t fps;
    uint8_t nfreq;
    uint32_t uid;
    uint32_t f0, f1; /* Hz; f1 0 with one frequency */
    const char *name;
} tqcam_use_case_t;

/* Lists up to max (255 at most) use cases; returns how many the chip has, 0 for chips without, -1 for wrong
 * arguments. */
TQCAM_API int tqcam_use_case_list(tqcam_dev_t *dev, tqcam_use_case_t *cases, int max);

/* The use case set last. Returns 0, or -1; not for chips without use cases, which give -1. */
TQCAM_API int tqcam_get_cur_use_case(tqcam_dev_t *dev, tqcam_use_case_t *out);

/* Sets the use case at this index of the list: frequencies first, then format and frame rate. Returns 0 or
 * -1. */
TQCAM_API int tqcam_use_case_set_uid(tqcam_dev_t *dev, uint32_t index);

/* Set, clear and read one of 32 feature marks of a device, func 0 to 31. Nothing in the library depends on
 * them. Return true on success, or the mark. */
TQCAM_API bool tqcam_func_activate(tqcam_dev_t *dev, uint32_t func);
TQCAM_API bool tqcam_func_deactivate(tqcam_dev_t *dev, uint32_t func);
TQCAM_API bool tqcam_func_activate_status_get(tqcam_dev_t *dev, uint32_t func);

/* ---- Colour -------------------------------------------------------------------------------------------- */

enum {
    TQCAM_PIX_RGB = 0,  /* 3 bytes */
    TQCAM_PIX_RGBA = 1, /* 4 bytes, the fourth 255 */
    TQCAM_PIX_BGR = 2,  /* 3 bytes */
    TQCAM_PIX_GBRA = 3, /* green, blue, red, 255 */
    TQCAM_PIX_RGB0 = 4, /* the fourth 0 */
    TQCAM_PIX_GBR0 = 5, /* green, blue, red, 0 */
    TQCAM_PIX_ARGB = 6, /* 255 first */
    TQCAM_PIX_ABGR = 7  /* 255 first */
};

typedef struct tqcam_cmap_opt_t {
    uint32_t palette;   /* for this call, 0 to 63 */
    uint32_t histeq_on; /* 1: histogram equalisation for this call */
} tqcam_cmap_opt_t;

/* The process-wide palette, 0 to 63. Set returns false for another number. Any thread. */
TQCAM_API bool tqcam_cmap_palette_set(uint32_t palette);
TQCAM_API uint32_t tqcam_cmap_palette_get(void);

/* Colour a distance image for display; the range is in the image's own units.
 *
 * dst, dst_len  pixels of format (TQCAM_PIX_...), dst_len in bytes
 * src, src_len  distances, src_len in values
 * options       palette and equalisation for this call, or NULL
 *
 * Values at or below range_min are black, values above range_max take the last colour. Return the pixels
 * written, min(dst_len / bytes a pixel, src_len); -22 for NULL pointers or a format that isn't one. The
 * palette of a call with options is seen by other threads until the call returns. */
TQCAM_API int tqcam_cmap_dist_u16_to_RGB(uint8_t *dst, int dst_len, const uint16_t *src, int src_len,
                                         int format, uint16_t range_min, uint16_t range_max,
                                         const tqcam_cmap_opt_t *options);
TQCAM_API int tqcam_cmap_dist_f32_to_RGB(uint8_t *dst, int dst_len, const float *src, int src_len, int format,
                                         const tqcam_cmap_opt_t *options, float range_min, float range_max);

/* Turn a gray image into 8 bits, brightness by the image's own mean; balance 640 puts the mean near 128, more
 * is brighter. dst has room for src_len bytes: dst_len isn't consulted. Return src_len. */
TQCAM_API int tqcam_cmap_gray_u16_to_IR(uint8_t *dst, int dst_len, const uint16_t *src, int src_len,
                                        int balance);
TQCAM_API int tqcam_cmap_gray_f32_to_IR(uint8_t *dst, int dst_len, const float *src, int src_len,
                                        int balance);

/* ---- Lens ---------------------------------------------------------------------------------------------- */

typedef struct tqcam_lens_calib_cfg_t {
    uint8_t en_2d;  /* undistort images */
    uint8_t en_3d;  /* use the lens's gradient table in point clouds */
    uint8_t d_is_z; /* distance images hold depth along the axis, not radial distance */
} tqcam_lens_calib_cfg_t;

/* Writes the name of a lens file under the path prefix to buf, at most len - 1 characters: binary or text,
 * with or without the device's number. Returns false for NULL arguments, a len below 1 or a device without
 * private state. */
TQCAM_API bool tqcam_lens_param_filename(tqcam_dev_t *dev, char *buf, int len, bool is_bin, bool with_serial);

/* The lens parameters at the current frame size. Returns false, with out cleared, when the device isn't open,
 * its driver has none, or the frame size doesn't divide the lens's image size. */
TQCAM_API bool tqcam_lens_param_get(tqcam_dev_t *dev, tqcam_lens_info_t *out);

/* Sends a 36-byte lens description to the device. Returns what the device answered. */
TQCAM_API bool tqcam_lens_param_set(tqcam_dev_t *dev, const void *lens);

/* Switches of lens calibration; config_get's pointer is into the device and dies with it, NULL for a device
 * that isn't open. */
TQCAM_API void tqcam_lens_calib_config_set(tqcam_dev_t *dev, const tqcam_lens_calib_cfg_t *cfg);
TQCAM_API tqcam_lens_calib_cfg_t *tqcam_lens_calib_config_get(tqcam_dev_t *dev);

/* Apply the lens to an image of the size in finfo: gray images are undistorted (en_2d); distance images
 * become depth along the axis, then are undistorted (en_2d). Lengths count values. dst may be src for gray.
 *
 * is_f32  element type f32 (metres), else u16 (millimetres)
 * mode    0 gray, 1 distance, 2 distance that already is depth
 * lens    cx, cy, fx, fy of this image size, or NULL for the device's own; not used for gray
 *
 * Return false for NULL arguments, buffers that are too small, a device that isn't open or without map. */
TQCAM_API bool tqcam_lens_calib_apply(tqcam_dev_t *dev, void *dst, int dst_len, const void *src, int src_len,
                                      bool is_f32, int mode, const tqcam_frame_info_t *finfo,
                                      const float *lens);
TQCAM_API bool tqcam_lens_calib_apply_dist_f32(tqcam_dev_t *dev, void *dst, int dst_len, const void *src,
                                               int src_len, const tqcam_frame_info_t *finfo,
                                               const float *lens);
TQCAM_API bool tqcam_lens_calib_apply_dist_u16(tqcam_dev_t *dev, void *dst, int dst_len, const void *src,
                                               int src_len, const tqcam_frame_info_t *finfo,
                                               const float *lens);
TQCAM_API bool tqcam_lens_calib_apply_gray_f32(tqcam_dev_t *dev, void *dst, int dst_len, const void *src,
                                               int src_len, const tqcam_frame_info_t *finfo,
                                               const float *lens);
TQCAM_API bool tqcam_lens_calib_apply_gray_u16(tqcam_dev_t *dev, void *dst, int dst_len, const void *src,
                                               int src_len, const tqcam_frame_info_t *finfo,
                                               const float *lens);

/* ---- Frame files --------------------------------------------------------------------------------------- */

enum { TQCAM_RAW_U32 = 1, TQCAM_RAW_U16 = 2 };                       /* tqcam_frame_save_raw */
enum { TQCAM_DIST_F32 = 0, TQCAM_DIST_U32 = 1, TQCAM_DIST_U16 = 2 }; /* tqcam_frame_save_distance */
enum { TQCAM_GRAY_U16 = 2, TQCAM_GRAY_U8 = 3 };                      /* tqcam_frame_save_gray */
enum { TQCAM_PCL_FORMAT_XYZ = 0, TQCAM_PCL_FORMAT_XYZD = 1, TQCAM_PCL_FORMAT_XYZI = 2 };

/* Opens a file as fopen does and returns its descriptor, or -1; closes one. */
TQCAM_API int tqcam_file_open(const char *path, const char *mode);
TQCAM_API void tqcam_file_close(int fd);

/* Append images to a frame file: one line of text, written when the file is empty, then little-endian
 * samples. Lengths count values.
 *
 * raw   u16 samples, a whole number of width x height x dcs_n; tag is free text up to its first line break
 * dist  f32 metres, stored as f32 metres or as whole millimetres; whole images only
 * gray  f32, one image, stored truncated to the format's width
 *
 * Return false for sizes that don't fit or are 0, an unknown format, or a failed write; what was written
 * stays. Reentrant for different descriptors. */
TQCAM_API bool tqcam_frame_save_raw(int fd, int save_fmt, const uint16_t *raw, int raw_len, int width,
                                    int height, int dcs_n, const char *tag);
TQCAM_API bool tqcam_frame_save_distance(int fd, int save_fmt, const float *dist, int dist_len, int width,
                                         int height);
TQCAM_API bool tqcam_frame_save_gray(int fd, int save_fmt, const float *gray, int gray_len, int width,
                                     int height);

/* Writes points as PLY, text or binary little-endian; pcl_len counts f32 values, 3 a point in format XYZ,
 * else 4, the fourth giving the colour. Returns false for wrong arguments or a failed write. */
TQCAM_API bool tqcam_frame_save_ply(int fd, const float *pcl, int pcl_len, int format, bool binary);

/* Read the next image of a frame file, at most dst_len values; the outputs may be NULL. The header is read at
 * the file's beginning and kept for the images behind it, one file of a kind at a time in the process; the
 * tag comes with the call that reads the header. Distances become metres. Return the values delivered; 0 at
 * the end of the file and on failure. One thread at a time for each kind. */
TQCAM_API int tqcam_frame_load_raw(int fd, uint16_t *dst, int dst_len, int *width, int *height, int *dcs_n,
                                   char *tag, int tag_len);
TQCAM_API int tqcam_frame_load_distance(int fd, float *dst, int dst_len, int *width, int *height);
TQCAM_API int tqcam_frame_load_gray(int fd, float *dst, int dst_len, int *width, int *height);

/* ---- Calibration exchange, data transfer and firmware -------------------------------------------------- */

/* Fetches the calibration pack that the device holds and unpacks it under the path prefix. Stops capture and
 * replaces the capture configuration. Returns true once the device offered a usable pack. */
TQCAM_API bool tqcam_param_load_from_dev(tqcam_dev_t *dev);

/* Packs a calibration file, zipped if compress is set, and with download sends it to the device, which is
 * then reset; without download the pack stays in the working directory. path NULL takes the device's own
 * file. Returns true on success. */
TQCAM_API bool tqcam_calib_bin_data_pk_and_download_ex(tqcam_dev_t *dev, int compress, int download,
                                                       const char *path);

/* Write an image file to the device's flash: type 0 firmware (the device restarts), 2 and 3 other images, 255
 * erases only. addr is not used. Blocks for the whole transfer and for seconds after it. Return 1 or another
 * value that isn't negative on success, negative on failure. Do not capture meanwhile. */
TQCAM_API int tqcam_firmware_upgrade(tqcam_dev_t *dev, uint16_t type, uint16_t version, const char *path);
TQCAM_API int tqcam_data_download(tqcam_dev_t *dev, const char *path, uint16_t type, uint16_t version,
                                  uint32_t addr);

/* Reads data of a type from the device into a file, "calib.bin" when path is NULL. Results as above. */
TQCAM_API int tqcam_data_upload(tqcam_dev_t *dev, uint16_t type, const char *path);

/* The same on a link. */
TQCAM_API int tqcam_bin_data_write(tqcam_ll_dev_t *dev, uint16_t type, uint16_t version, uint32_t addr,
                                   const char *path);
TQCAM_API int tqcam_bin_data_read(tqcam_ll_dev_t *dev, uint16_t type, const char *path);

/* ---- Links --------------------------------------------------------------------------------------------- */

/* A parameter as it crosses the link: 20 bytes without padding. */
typedef struct tqcam_ll_param_t {
    uint8_t id;
    uint8_t len;
    uint8_t value[18];
} tqcam_ll_param_t;

/* The sink of capture data, on the event thread: code 0 brings len bytes, a negative TQCAM_ERR_CAP code a
 * failure with the bytes that came before it. data is valid during the call only. */
typedef void (*tqcam_ll_rx_cb_t)(tqcam_ll_dev_t *dev, int32_t code, const void *data, uint32_t len,
                                 void *arg);

/* The transport under a device. The camera functions above call these; an application needs them only to talk
 * to a device without a driver. All but the first three accept a NULL device and return false, 0, or -1 from
 * tqcam_ll_cap_seek. Each forwards to the link of the device, which locks by itself. */
TQCAM_API bool tqcam_ll_init(void);
TQCAM_API void tqcam_ll_uninit(void);
TQCAM_API void tqcam_ll_set_debug(int level);
TQCAM_API int tqcam_ll_dev_list(tqcam_ll_dev_t *list, int max);
TQCAM_API tqcam_ll_dev_t *tqcam_ll_dev_open(tqcam_ll_dev_t *dev);
TQCAM_API tqcam_ll_dev_t *tqcam_ll_dev_open_by_fd(tqcam_ll_dev_t *dev, int fd);
TQCAM_API void tqcam_ll_dev_close(tqcam_ll_dev_t *dev);
TQCAM_API bool tqcam_ll_dev_reset(tqcam_ll_dev_t *dev, int target);
TQCAM_API bool tqcam_ll_exe_cmd(tqcam_ll_dev_t *dev, int write, int type, int value, void *data, uint32_t len,
                                uint32_t timeout_ms);
TQCAM_API int tqcam_ll_tx_data(tqcam_ll_dev_t *dev, const void *data, uint32_t len);
TQCAM_API void tqcam_ll_cap_abort(tqcam_ll_dev_t *dev);
TQCAM_API void tqcam_ll_cap_wait(tqcam_ll_dev_t *dev);
TQCAM_API bool tqcam_ll_cap_start(tqcam_ll_dev_t *dev, uint32_t mode, tqcam_ll_rx_cb_t cb, void *arg);
TQCAM_API bool tqcam_ll_cap_stop(tqcam_ll_dev_t *dev);
TQCAM_API int tqcam_ll_cap_seek(tqcam_ll_dev_t *dev, int offset, int origin);
TQCAM_API bool tqcam_ll_reg_write(tqcam_ll_dev_t *dev, int type, uint32_t addr, const uint32_t *data,
                                  int count);
TQCAM_API bool tqcam_ll_reg_read(tqcam_ll_dev_t *dev, int type, uint32_t addr, uint32_t *data, int count);
TQCAM_API bool tqcam_ll_param_set(tqcam_ll_dev_t *dev, const tqcam_ll_param_t *items, int count);
TQCAM_API bool tqcam_ll_param_get(tqcam_ll_dev_t *dev, tqcam_ll_param_t *items, int count);
TQCAM_API int tqcam_ll_firmware_upgrade(tqcam_ll_dev_t *dev, uint16_t type, uint16_t version,
                                        const char *path);

/* The chip driver for a device by the second field of its product string, or NULL. */
TQCAM_API tqcam_drv_t *tqcam_drv_find(tqcam_ll_dev_t *dev);

#ifdef __cplusplus
}
#endif

#endif
