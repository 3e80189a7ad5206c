// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * tessera: a library for A/B updates of embedded Linux boards.
 *
 * A tool includes only this header. It is valid C11 and C++ and includes the header of every unit.
 * The following holds for every call, unless a function is documented otherwise:
 *
 *  1. Results. 0 or more is success, a negative number is failure. Most failures are -1; some calls
 *     return a negated ota_err_e, and calls on devices may pass on the negative result of a system
 *     call or of minizip. Predicates return 1 for yes, 0 for no and -1 for "unknown".
 *  2. Failures are also logged, on stderr and in the system log, the innermost function first.
 *  3. Strings are NUL-terminated and remain the caller's. Output strings are written to arrays that the
 *     caller provides, of the fixed size that each function documents; longer text is truncated.
 *  4. Sizes and offsets are bytes, counted from 0, unless a unit is part of the name.
 *  5. Whatever a call allocates or opens is released before it returns, on every path.
 *  6. No initialisation or cleanup is needed. The library starts no thread, takes no lock of its own and
 *     uses static buffers: only one call may run at a time in a process. get_file_lock() keeps out a
 *     second update process.
 *  7. Nothing is synced. A caller that needs the data on the medium syncs the device itself.
 *  8. Memory. The static buffers are 14,691,392 bytes of zero-initialised data, most of it the two
 *     streaming buffers (10,485,760 and 2,099,200 bytes) and the two digest buffers (1,048,576 each);
 *     pages that are never touched take no memory. No function has a stack frame of more than 8 KiB; the
 *     largest has 5,056 bytes (gcc 12, x86-64). minizip, zlib and libcrypto add their own.
 */
#ifndef VELOX_OTA_HL_H
#define VELOX_OTA_HL_H

#include "fip_prase.h"
#include "md5.h"
#include "ota_antirollback.h"
#include "ota_boot_control.h"
#include "ota_nand_update.h"
#include "ota_partition.h"
#include "ota_types.h"
#include "ota_utils.h"
#include "veeprom_flag.h"
#include "vx_zip.h"

#endif /* VELOX_OTA_HL_H */
