// SPDX-License-Identifier: Apache-2.0
/** What every header of the library needs: fixed-width types, C linkage, exports, enumerations. */
#ifndef OTA_BASE_H
#define OTA_BASE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
#define OTA_BEGIN_DECLS extern "C" {
#define OTA_END_DECLS }
/* Enumerations are passed as 32-bit numbers and may hold any value, even one without a name. */
#define OTA_ENUM_BASE : int32_t
#else
#define OTA_BEGIN_DECLS
#define OTA_END_DECLS
#define OTA_ENUM_BASE
#endif

/* Marks what the shared library exports; everything else in it is hidden. */
#define OTA_API __attribute__((visibility("default")))

#endif
