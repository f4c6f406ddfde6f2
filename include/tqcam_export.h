/* What makes a function part of the library's boundary. */
#ifndef TQCAM_EXPORT_H
#define TQCAM_EXPORT_H

#if defined(__GNUC__)
#define TQCAM_API __attribute__((visibility("default")))
#define TQCAM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#define TQCAM_PACKED __attribute__((packed)) /* bytes of a file or of a wire */
#else
#define TQCAM_API
#define TQCAM_PRINTF(fmt, args)
#define TQCAM_PACKED
#endif

#endif
