// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The update status: one record that survives reboots, and the anti-rollback record next to it, in the
 * partition "ubootenv" at the bytes 0x30000 (1356 bytes) and 0x30880 (16 bytes). All integers are
 * little-endian; enumerations are stored as 32-bit numbers.
 *
 * Every call accesses the partition. A status record with a wrong magic or CRC is recreated, even by a call
 * that only reads. The anti-rollback record is never repaired: a bad CRC is reported. Only a negative result
 * from the device fails a call: a short write that the device reports is not treated as a failure.
 */
#ifndef VEEPROM_FLAG_H
#define VEEPROM_FLAG_H

#include "ota_types.h"
#include "ota_utils.h"

OTA_BEGIN_DECLS

/** A list of up to 32 partitions; stored as is, 1284 bytes. */
typedef struct update_part_s {
    uint32_t num;             /**< partitions in the list; not checked by this library */
    char array[32][32];       /**< names */
    ota_medium_e medium[32];  /**< medium of each */
    ota_part_type_e type[32]; /**< type of each */
} update_part_t;

/** The stored status record, 1356 bytes. Note that up_app comes before up_middleware. */
typedef struct ota_status_s {
    uint32_t magic;                  /**< 0x4F544153 */
    ota_update_flag_e up;            /**< the whole update */
    ota_update_flag_e up_system;     /**< the system */
    ota_update_flag_e up_backup;     /**< the backup system */
    ota_update_flag_e up_app;        /**< the application */
    ota_update_flag_e up_middleware; /**< the middleware */
    ota_update_flag_e up_param;      /**< the parameters */
    ota_update_owner_e owner;        /**< who runs the update */
    uint32_t next_slot;              /**< stored for callers; unrelated to the slot block in "misc" */
    update_part_t update_part;       /**< the partitions being updated */
    uint8_t reserved[32];            /**< kept as found */
    uint32_t crc32_le;               /**< CRC32() over bytes 0 to 1351 */
} ota_status_t;

/** Selects a value. Note that 3 and 4 are in the reverse order of their fields. */
typedef enum OTA_ENUM_BASE {
    OTA_VEEPROM_UPDATE_FLAG = 0,
    OTA_VEEPROM_SYS_UPDATE_FLAG = 1,
    OTA_VEEPROM_BAK_UPDATE_FLAG = 2,
    OTA_VEEPROM_MIDDLEWARE_UPDATE_FLAG = 3,
    OTA_VEEPROM_APP_UPDATE_FLAG = 4,
    OTA_VEEPROM_PARAM_UPDATE_FLAG = 5,
    OTA_VEEPROM_OWNER = 6,
    OTA_VEEPROM_EXPE_SLOT = 7,
    OTA_VEEPROM_PART_ARRAY = 8,
    OTA_VEEPROM_SPLIT = 9,            /**< separator, not a selector: refused */
    OTA_VEEPROM_RECOVERY_STATUS = 10, /**< refused */
    OTA_VEEPROM_ANTI_VER = 11,
} ota_veeprom_type_e;

/** The owner that this process set last; initially NORMAL_BOOT. The library only writes it. */
extern OTA_API ota_update_owner_e g_ota_owner;

/**
 * Writes a whole status record 0x30000 bytes after the offset that the caller gives. Nothing is read
 * first.
 * @param status        magic, owner (to OTA_TOOL) and CRC are set in it
 * @param veeprom_info  medium, path and base offset; 0x30000 is added to its offset, also on failure
 * @return 0; -6 for a null argument; negative when the write fails
 */
OTA_API int32_t ota_write_to_veeprom_force(ota_status_t* status, ota_file_info_t* veeprom_info);

/**
 * Stores the value of a selector.
 * @param value  a 32-bit word for 0 to 7, an update_part_t for 8, an antirollback_ver_t for 11 (stored
 *               as is; its CRC is not computed or checked). Values are not range-checked.
 * @return 0; -1 for a null value or a refused selector; negative when reading, repairing or writing
 *         fails. Selector 6 sets g_ota_owner even if the write then fails.
 */
OTA_API int32_t ota_set_veeprom_flag(ota_veeprom_type_e flag, uint32_t* value);

/**
 * Reads the value of a selector into `value`, of the size given for ota_set_veeprom_flag().
 * @return 0; negative on failure: `value` is unchanged
 */
OTA_API int32_t ota_get_veeprom_flag(ota_veeprom_type_e flag, uint32_t* value);

/** @name One typed pair for each selector 0 to 8
 * @{ */

/** Stores or reads the value of one selector, with the results of ota_set_veeprom_flag() and ota_get_veeprom_flag(). */
OTA_API int32_t ota_set_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_system_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_system_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_backup_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_backup_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_middleware_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_middleware_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_app_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_app_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_param_up_status(ota_update_flag_e status);
OTA_API int32_t ota_get_param_up_status(ota_update_flag_e* status);
OTA_API int32_t ota_set_owner(ota_update_owner_e owner);
OTA_API int32_t ota_get_owner(ota_update_owner_e* owner);
OTA_API int32_t ota_set_next_slot(uint32_t slot);
OTA_API int32_t ota_get_next_slot(uint32_t* slot);
OTA_API int32_t ota_set_part_array(update_part_t* update_part);
OTA_API int32_t ota_get_part_array(update_part_t* update_part);
/** @} */

/**
 * Reads the anti-rollback record and verifies its CRC.
 * @return 0; -1 on a wrong CRC: `ver` is all zero and the stored record is unchanged; negative on a failed
 *         read: `ver` is not cleared
 */
OTA_API int32_t ota_get_anti_ver_veeprom(antirollback_ver_t* ver);

/**
 * Computes the CRC of `ver`, stores it in `crc32_le` of the caller's record, even when the write then
 * fails, and writes the record. No other byte of the caller's record changes.
 * @return 0; -1 for a null argument; negative when the write fails
 */
OTA_API int32_t ota_set_anti_ver_veeprom(antirollback_ver_t* ver);

/**
 * Resets both records: all flags normal, no partitions, the running slot, versions 0.
 * @return 0; -1 when the running slot is unknown, and nothing is written; -1 when a write fails. The status
 *         record is written first, so it has been reset already when the second write fails.
 */
OTA_API int32_t ota_set_veeprom_flag_default(void);

OTA_END_DECLS

#endif
