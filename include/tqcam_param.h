/* Calibration files and lens files.
 *
 * A camera carries its calibration as one file: a header of 1202 bytes, which may hold a lens record, and a
 * list of blocks behind it. A block is the reference images of one modulation frequency, a ready per-pixel
 * result, a lens table, or temperature data. tqcam_param_open_file proves a file whole before anything is
 * taken from it; the device drivers then read the blocks. Two smaller files describe a lens alone: a text of
 * decimal numbers and the binary lens block.
 *
 * Files are little-endian and packed; the packed structures here are the bytes of the file. Take no pointer
 * to a member of theirs that is wider than a byte: copy it.
 *
 * Any thread may call these functions, each record and each stream from one thread at a time. */
#ifndef TQCAM_PARAM_H
#define TQCAM_PARAM_H

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

#include "tqcam_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TQ_PARAM_VER_BLK = 140,         /* container version from which blocks have the 5-byte head */
    TQ_PARAM_MAGIC_OLD = 1000,      /* magic below that version */
    TQ_PARAM_MAGIC = 0x31505154,    /* "TQP1", from that version on */
    TQ_PARAM_MAX_BLKS = 99,         /* most blocks of a file */
    TQ_PARAM_OLD_BLK_HDR_SIZE = 42, /* size of a block head below version 140 */
    TQ_LENS_DCOEF_NUM = 16          /* room for distortion coefficients */
};

/* Types of block. Others are legal and passed over. */
enum {
    TQ_BLK_DRNU_IMAGES = 1,  /* reference images of one modulation frequency */
    TQ_BLK_DRNU_RESULT = 3,  /* per-pixel correction of one modulation frequency */
    TQ_BLK_LENS = 4,         /* tq_lens_bin_t */
    TQ_BLK_TEMP_SAMPLES = 5, /* temperature samples to fit */
    TQ_BLK_TEMP_RESULT = 6   /* temperature coefficients */
};

/* One lens: pinhole and distortion, in pixels of an img_w x img_h image. */
typedef struct TQCAM_PACKED tqcam_lens_param_t {
    double cx, cy; /* principal point */
    double fx, fy; /* focal lengths */
    double dcoef[TQ_LENS_DCOEF_NUM];
    int32_t n_dcoef; /* distortion coefficients that count */
    uint32_t img_w, img_h;
} tqcam_lens_param_t;

/* Head of a calibration file. */
typedef struct TQCAM_PACKED par_tq_hdr {
    uint8_t ver; /* version of the container */
    uint32_t ts; /* time stamp of the file */
    uint32_t magic;
    uint8_t rsv0[4];
    uint8_t blk_ver; /* version of the blocks' contents */
    uint8_t rsv1[4];
    uint16_t cksum;          /* Fletcher-16 of bytes 20 to 1187 */
    char name[64];           /* of the lens; empty: the record behind it holds nothing */
    tqcam_lens_param_t lens; /* cx and cy in 16.0 to 1024.0 when named */
    uint8_t rsv2[932];
    uint32_t blk_ts;    /* time stamp of the blocks, the one that is compared with the device's */
    int32_t blk_cnt;    /* 0 to 99 */
    uint32_t blk_size;  /* bytes of all blocks, heads included; 0: not stated */
    uint16_t blk_cksum; /* Fletcher-16 of all blocks; from version 140 */
} par_tq_hdr;

/* Head of a block from version 140 on. In a file, size counts the bytes behind this head; in the table of
 * tqcam_param_t it counts the whole block. */
typedef struct TQCAM_PACKED par_dev_hdr {
    uint8_t type;
    uint32_t size;
} par_dev_hdr;

/* An open calibration file, with the table of its blocks. */
typedef struct tqcam_param_t {
    char name[128]; /* left empty */
    FILE *fp;       /* its position has no meaning: seek to a block first */
    par_tq_hdr hdr;
    par_dev_hdr blk[TQ_PARAM_MAX_BLKS + 1];  /* hdr.blk_cnt entries */
    uint32_t blk_ofs[TQ_PARAM_MAX_BLKS + 1]; /* file offset of each block's first byte */
    uint8_t opened;                          /* 1 after a successful open */
} tqcam_param_t;

/* A lens with its tables, as block of a calibration file or as a file of its own. n_grad f32 gradient values
 * and then n_reflect f32 reflection values follow these 225 bytes in the same allocation, unaligned. */
typedef struct TQCAM_PACKED tq_lens_bin_t {
    uint8_t type;
    uint32_t size; /* 220 + 4 * (n_grad + n_reflect) */
    uint8_t rsv0[64];
    float cx, cy, fx, fy;
    float dcoef[TQ_LENS_DCOEF_NUM];
    uint32_t img_w, img_h;
    uint8_t n_dcoef;
    uint8_t rsv1[11];
    uint32_t n_grad;    /* at most 2 * img_w * img_h */
    uint32_t n_reflect; /* at most 4 * img_w * img_h */
    uint8_t rsv2[48];
} tq_lens_bin_t;

/* The tables behind a loaded lens, as bytes: copy values out, they are not aligned. */
static inline const uint8_t *tq_lens_bin_grad(const tq_lens_bin_t *lens)
{
    return (const uint8_t *)lens + sizeof(*lens);
}
static inline const uint8_t *tq_lens_bin_reflect(const tq_lens_bin_t *lens)
{
    return tq_lens_bin_grad(lens) + 4 * (size_t)lens->n_grad;
}

/* Opens a calibration file and verifies it: magic, checksum and ranges of the head, every block's place, and
 * from version 140 on the size and checksum of all blocks, for which the file is read once. The log says what
 * was wrong.
 *
 * param     the caller's record, overwritten; after a true result it holds the open stream, to be closed with
 *           tqcam_param_close. After a false one it is of no use; closing it is harmless.
 * filename  at most 127 characters
 *
 * Returns true when the file is whole. */
TQCAM_API bool tqcam_param_open_file(tqcam_param_t *param, const char *filename);

/* Closes the file. NULL, a record that failed to open and one already closed are left alone. */
TQCAM_API void tqcam_param_close(tqcam_param_t *param);

/* Reads a lens from a text file of decimal numbers: cx cy fx fy, up to 16 further numbers, of which the last
 * two are the width and the height of the image and the rest distortion coefficients.
 *
 * out  written on success only
 *
 * Returns false when the file doesn't open, holds fewer than six numbers, or states a size that isn't a whole
 * number of at least 1. */
TQCAM_API bool tqcam_param_len_load_2d_file(tqcam_lens_param_t *out, const char *filename);

/* Reads a binary lens from the stream's position, or from a file of its own.
 *
 * Returns the lens, to be given back with tqcam_param_len_unload; NULL when it is cut short, when its counts
 * don't suit its image, or when out of memory. The stream stays the caller's; its position is undefined after
 * a NULL. */
TQCAM_API tq_lens_bin_t *tqcam_param_len_load_bin_fp(FILE *fp);
TQCAM_API tq_lens_bin_t *tqcam_param_len_load_bin_file(const char *filename);

/* Gives a lens back. NULL is allowed. */
TQCAM_API void tqcam_param_len_unload(void *lens);

#ifdef __cplusplus
}
#endif

#endif
