// SPDX-License-Identifier: Apache-2.0
/** Staged unpacking: where packages are unpacked, and the room that this requires. */
#ifndef OTA_STAGING_H
#define OTA_STAGING_H

#include <cstdint>

inline constexpr char ota_tmp_unzip_dir[] = "/tmp/ota/unzip_dir";
inline constexpr char ota_userdata_unzip_dir[] = "/userdata/ota/unzip_dir";

inline constexpr int64_t ota_staging_headroom = 0xFFFFF; /* one MiB less one byte */

/** KiB that have to be free to unpack `size` bytes: the size plus the headroom, in whole KiB, plus 1024 KiB. */
constexpr int64_t ota_staging_kib(int64_t size) {
    return size / 1024 + (size % 1024 + ota_staging_headroom) / 1024 + 1024; /* no sum beyond 63 bits */
}

#endif
