/* What makes a function part of the library's boundary. */
#ifndef TQCAM_EXPORT_H
#define TQCAM_EXPORT_H

#if defined(__GNUC__)
#define TQCAM_API __attribute__((visibility("default")))
#define TQCAM_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define TQCAM_API
#define TQCAM_PRINTF(fmt, args)
#endif

#endif
