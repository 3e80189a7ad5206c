/** Judges the versions of an update against the eFuse counters, and reads and writes the counters. */
#ifndef OTA_ANTIROLLBACK_H
#define OTA_ANTIROLLBACK_H

#include "ota_utils.h"

OTA_BEGIN_DECLS

/**
 * Reads both eFuse counters into `sec_ver` and `nosec_ver`; the other fields stay.
 * @return 0; -1 for null or a failed read, after which a later counter has not been touched
 */
OTA_API int32_t get_efuse_antirollback(antirollback_ver_t* ver);

/**
 * Writes the counters whose flag is exactly 1: the secure one first, then the non-secure one. eFuses
 * cannot be lowered again.
 * @return 0, also when no flag is 1; -1 for null or a failed write. A failed secure write leaves the
 *         non-secure counter alone; a failed non-secure write does not undo the secure one.
 */
OTA_API int32_t set_efuse_antirollback(antirollback_ver_t* ver);

/**
 * May this package be installed without lowering the board's versions? Extracts each image that has a
 * version into `unzip_path`, reads it and removes it again; compares the versions with the eFuse
 * counters; on a pass stores them with ota_set_anti_ver_veeprom(). Writes no eFuse. The verdict is about
 * the first entry of exactly the name in `part_file`, the one that vx_uncompress_file_to() installs.
 * @param update_info  a parsed description with 0 to 32 partitions
 * @param zip_path     the package; may be null when no partition has `have_anti_ver` set
 * @param unzip_path   a directory of the caller's own, created when it is missing; may be null as `zip_path`
 * @return 0 on a pass; -1 on a refusal or failure: the stored record is as it was, an image that could
 *         not be read stays in `unzip_path`, and after a failed extraction that is the working directory;
 *         negative when the record cannot be stored
 */
OTA_API int32_t verify_antirollback_version(update_info_t* update_info, const char* zip_path, const char* unzip_path);

OTA_END_DECLS

#endif
