/* Export macro of the platform libraries. Everything is hidden by default;
 * only the operations declared with MERO_EXPORT in the platform headers are
 * visible, whether the platform is linked into libwebapi.so or built as its
 * own shared libraries. */
#ifndef MERO_EXPORT_H
#define MERO_EXPORT_H

#define MERO_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define MERO_EXTERN_C_BEGIN extern "C" {
#define MERO_EXTERN_C_END }
#else
#define MERO_EXTERN_C_BEGIN
#define MERO_EXTERN_C_END
#endif

#endif /* MERO_EXPORT_H */
