// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Checks the versions of an update against the eFuse counters, and reads and writes the counters.
 */
#ifndef OTA_ANTIROLLBACK_H
#define OTA_ANTIROLLBACK_H

#include "ota_utils.h"

OTA_BEGIN_DECLS

/**
 * Reads both eFuse counters into `sec_ver` and `nosec_ver`; the other fields are unchanged.
 * @return 0; -1 for a null argument or a failed read, after which the remaining counters are not read
 */
OTA_API int32_t get_efuse_antirollback(antirollback_ver_t* ver);

/**
 * Writes the counters whose flag is exactly 1: the secure one first, then the non-secure one. This
 * cannot be undone: eFuse counters only go up.
 * @return 0, even when no flag is 1; -1 for a null argument or a failed write. After a failed secure write
 *         the non-secure counter is left alone; a failed non-secure write does not undo the secure one.
 */
OTA_API int32_t set_efuse_antirollback(antirollback_ver_t* ver);

/**
 * Checks whether a package can be installed without lowering the board's versions. Extracts each image
 * that has a version into `unzip_path`, reads it and removes it again; compares the versions with the
 * eFuse counters; if they pass, stores them with ota_set_anti_ver_veeprom(). Writes no eFuse. The first
 * entry whose name is exactly `part_file` is checked, the one that vx_uncompress_file_to() installs.
 * @param update_info  a parsed description with 0 to 32 partitions
 * @param zip_path     the package; may be null when no partition has `have_anti_ver` set
 * @param unzip_path   a directory for this call only, created if missing; may be null when `zip_path` may
 * @return 0 when the versions pass; -1 when they do not, or on failure: the stored record is unchanged, an
 *         image that could not be read stays in `unzip_path`, and after a failed extraction `unzip_path`
 *         is the working directory; negative when the record cannot be stored
 */
OTA_API int32_t verify_antirollback_version(update_info_t* update_info, const char* zip_path, const char* unzip_path);

OTA_END_DECLS

#endif
