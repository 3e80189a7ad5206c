// SPDX-License-Identifier: Apache-2.0
/**
 * The status record: the state of an update. 1356 bytes at byte 0x30000 of the partition "ubootenv", little-endian;
 * enumerations are 32-bit numbers.
 *
 *   offset  size  meaning
 *        0     4  magic, 0x4F544153: the bytes "SATO"
 *        4     4  update flag: 0 normal, 1 burn, 2 verify, 3 verified
 *        8     4  the same for the system
 *       12     4  for the backup
 *       16     4  for the applications
 *       20     4  for the middleware
 *       24     4  for the parameters
 *       28     4  owner: 0 none, 1 tool, 2 service
 *       32     4  next slot
 *       36     4  number of partitions in the list
 *       40  1024  their names, 32 of 32 bytes
 *     1064   128  their media, 32 numbers
 *     1192   128  their types, 32 numbers
 *     1320    32  reserved, covered by the checksum
 *     1352     4  CRC-32 of bytes 0 to 1351
 */
#ifndef STATUS_RECORD_FORMAT_H
#define STATUS_RECORD_FORMAT_H

#include "format.h"
#include "veeprom_flag.h"

inline constexpr uint32_t status_record_offset = 0x30000;
inline constexpr uint32_t status_record_magic = 0x4F544153;

/** The checksum that the record should have. */
uint32_t status_record_checksum(const ota_status_t& record);

/** Valid, torn (wrong checksum), absent (erased) or foreign (wrong magic number). */
format_answer check_status_record(const ota_status_t& record);

/** Sets the checksum. The record then has its stored form: record_bytes(). */
void seal_status_record(ota_status_t* record);

#endif
