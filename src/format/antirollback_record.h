// SPDX-License-Identifier: Apache-2.0
/**
 * The anti-rollback record: the versions that were installed, for burning the eFuses later. 16 bytes at byte
 * 0x30880 of the partition "ubootenv", little-endian.
 *
 *   offset  size  meaning
 *        0     1  1: the secure counter is to be raised
 *        1     1  1: the non-secure counter is to be raised
 *        2     2  padding, covered by the checksum; 0 in records that this library creates
 *        4     4  secure version
 *        8     4  non-secure version
 *       12     4  CRC-32 of bytes 0 to 11
 */
#ifndef ANTIROLLBACK_RECORD_FORMAT_H
#define ANTIROLLBACK_RECORD_FORMAT_H

#include "format.h"
#include "ota_utils.h"

inline constexpr uint32_t antirollback_record_offset = 0x30880;

/** Valid, torn (wrong checksum) or absent (erased). The format has no magic number. */
format_answer check_antirollback_record(const antirollback_ver_t& record);

/** Sets the checksum. The record then has its stored form: record_bytes(). */
void seal_antirollback_record(antirollback_ver_t* record);

#endif
