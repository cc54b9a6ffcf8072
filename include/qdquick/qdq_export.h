/* One export macro: everything in libqdquick is hidden unless declared with
 * QDQ_API in a public header. */
#ifndef QDQUICK_QDQ_EXPORT_H
#define QDQUICK_QDQ_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QDQ_API __attribute__((visibility("default")))
#define QDQ_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QDQ_API
#define QDQ_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
#define QDQ_EXTERN_C_BEGIN extern "C" {
#define QDQ_EXTERN_C_END }
#else
#define QDQ_EXTERN_C_BEGIN
#define QDQ_EXTERN_C_END
#endif

#endif
