// Symbol visibility for libSonvaraCommon. The library is built with
// -fvisibility=hidden; only what is marked SONVARA_COMMON_API is exported.
#ifndef PAL_EXPORT_H
#define PAL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define SONVARA_COMMON_API __attribute__((visibility("default")))
#else
#define SONVARA_COMMON_API
#endif

#endif
