/**
 * tessera: a library for A/B updates of embedded Linux boards.
 *
 * This is the one header a tool includes. It is valid C11 and C++ and includes the header of every unit.
 * The following holds for every call, unless a function says otherwise:
 *
 *  (1) Results. 0 or more is success, a negative number is failure. Most failures are -1; some calls
 *      return a negated ota_err_e, and calls on devices may pass on the negative result of a system
 *      call or of minizip. Questions return 1 for yes, 0 for no and -1 for "unknown".
 *  (2) Failures are also logged, on stderr and in the system log, the lowest level first.
 *  (3) Strings are NUL-terminated and remain the caller's. Output strings are written to arrays of the
 *      caller, of the fixed size that the function names; a text that does not fit is cut.
 *  (4) Sizes and offsets are bytes, counted from 0, unless a unit is part of the name.
 *  (5) Whatever a call allocates or opens is released before it returns, on every path.
 *  (6) There is no set-up and no tear-down. The library starts no thread and takes no lock of its own,
 *      and it has static buffers: only one call may run at a time in a process. get_file_lock() keeps a
 *      second update process out.
 *  (7) Nothing is synced. A caller that needs the medium to hold the bytes syncs the device itself.
 *  (8) Memory. The static buffers are 14,691,392 bytes of zero-initialised data, most of it the two
 *      streaming buffers (10,485,760 and 2,099,200 bytes) and the two digest buffers (1,048,576 each);
 *      pages that are never used cost nothing. No function has a stack frame of more than 8 KiB, the
 *      largest has 5,056 bytes (gcc 12, x86-64); minizip, zlib and libcrypto use their own on top.
 */
#ifndef VELOX_OTA_HL_H
#define VELOX_OTA_HL_H

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
    OTAERR_NO_EXISTS = 16, /**< a file is not there */
    OTAERR_MALLOC = 17,    /**< no memory */
    OTAERR_VERIFY = 18,
    OTAERR_IMG_SIZE = 19,
    OTAERR_UPDATE_STATUS = 20,
} ota_err_e;

/** Who runs an update; stored in the update status. The numbers are stored: do not change them. */
typedef enum OTA_ENUM_BASE {
    NORMAL_BOOT = 0, /**< nobody: no update is under way */
    OTA_TOOL = 1,
    OTA_SERVICE = 2,
    OTA_N_OWNER = 3, /**< count of the enumeration, not an owner */
} ota_update_owner_e;

OTA_END_DECLS

/* The units. veeprom_flag.h uses what is declared above, so they come last. */
#include "fip_prase.h"
#include "md5.h"
#include "ota_antirollback.h"
#include "ota_boot_control.h"
#include "ota_nand_update.h"
#include "ota_partition.h"
#include "ota_utils.h"
#include "veeprom_flag.h"
#include "vx_zip.h"

#endif /* VELOX_OTA_HL_H */
