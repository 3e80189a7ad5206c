// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Error numbers and owners of an update.
 */
#ifndef OTA_TYPES_H
#define OTA_TYPES_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/** Error numbers. A function that returns one of them returns it negated. */
typedef enum OTA_ENUM_BASE {
    OTA_SUCCESS = 0,
    OTAERR_IO = 1,
    OTAERR_PLAT_UNSUPPORT = 2,
    OTAERR_REPEAT = 3,
    OTAERR_MUTEX_INIT_LOCK_ERR = 4,
    OTAERR_NOTINIT = 5,
    OTAERR_NULLPOINTER = 6, /**< an argument is missing or cannot be used */
    OTAERR_SHORTBUF = 7,
    OTAERR_THREAD_CREATE = 8,
    OTAERR_RANGE = 9,
    OTAERR_STAGE = 10,
    OTAERR_IMAGE_WRITE = 11,
    OTAERR_BOOT_FAILED = 12,
    OTAERR_VEEPROM = 13,
    OTAERR_FILE_TYPE = 14,
    OTAERR_UNZIP = 15,     /**< a package could not be unpacked */
    OTAERR_NO_EXISTS = 16, /**< a file does not exist */
    OTAERR_MALLOC = 17,    /**< out of memory */
    OTAERR_VERIFY = 18,
    OTAERR_IMG_SIZE = 19,
    OTAERR_UPDATE_STATUS = 20,
} ota_err_e;

/** Who runs an update; stored in the update status. The numbers are stored: do not change them. */
typedef enum OTA_ENUM_BASE {
    NORMAL_BOOT = 0, /**< none: no update is in progress */
    OTA_TOOL = 1,
    OTA_SERVICE = 2,
    OTA_N_OWNER = 3, /**< count of the enumeration, not an owner */
} ota_update_owner_e;

OTA_END_DECLS

#endif
