// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A/B slots. One 32-byte block at byte 2048 of the partition "misc" determines which slot the bootloader
 * boots and how often it tries. It is read, changed and written as a whole, without a lock, a journal or
 * a cache. Only a negative result from the device fails a call: a short write that the device reports is
 * not treated as a failure.
 *
 * A slot is in one of four states:
 *
 *     trial       tries left, not marked successful       candidate for the next boot
 *     confirmed   tries left, marked successful           candidate for the next boot
 *     unbootable  no tries left                           never booted
 *     corrupted   verity_corrupted set                    never booted
 *
 * Among candidates the highest priority wins, then the successful mark, then the most tries left, then the
 * lowest number.
 */
#ifndef OTA_BOOT_CONTROL_H
#define OTA_BOOT_CONTROL_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/* Stored on the medium and read by the bootloader: do not change. Bit 0 is the least significant. */

/** The state of one slot, 2 bytes. */
typedef struct __attribute__((packed)) slot_metadata {
    uint32_t priority : 4;         /**< 0 to 15, the highest is booted */
    uint32_t tries_remaining : 3;  /**< 0 to 7; with 0 the slot is not a candidate */
    uint32_t successful_boot : 1;  /**< the slot has been marked as booted successfully */
    uint32_t verity_corrupted : 1; /**< with 1 the slot is not a candidate */
    uint32_t reserved : 7;         /**< kept as found */
} slot_metadata;

/** The slot block, 32 bytes. */
typedef struct __attribute__((packed)) bootloader_control {
    char slot_suffix[4];                   /**< "a" in a default block; never read */
    uint32_t magic;                        /**< 0x42414342; alone decides whether the block is valid */
    uint8_t version;                       /**< 1 in a default block; never tested */
    uint32_t nb_slot : 3;                  /**< number of slots; at most 4 can be used */
    uint32_t recovery_tries_remaining : 3; /**< not used here */
    uint32_t : 2;                          /**< kept as found */
    uint8_t reserved0[2];                  /**< kept as found */
    slot_metadata slot_info[4];            /**< one for each slot */
    uint8_t reserved1[8];                  /**< kept as found */
    uint32_t crc32_le; /**< CRC32() over bytes 0 to 27; written at every save, never verified here */
} bootloader_control;

/** Head of the partition "misc", 2048 bytes; this library leaves it alone. */
typedef struct bootloader_message {
    char command[32];    /**< left alone */
    char status[32];     /**< left alone */
    char recovery[768];  /**< left alone */
    char stage[32];      /**< left alone */
    char reserved[1184]; /**< left alone */
} bootloader_message;

/** Head of "misc" on an A/B board, 4096 bytes. The bootloader_control lies in `slot_suffix`. */
typedef struct bootloader_message_ab {
    bootloader_message message; /**< left alone */
    char slot_suffix[32];       /**< a bootloader_control */
    char update_channel[128];   /**< left alone */
    char reserved[1888];        /**< left alone */
} bootloader_message_ab;

/* All but ota_set_slotmeta_to_default() return -1 when the block cannot be read or its magic is wrong. Slots
 * are numbered from 0 to nb_slot - 1, at most 3; any other number gives -1. */

/** The slot that the block designates for the next boot; -1 when there is no candidate. */
OTA_API int32_t ota_get_next_expected_slot(void);

/** The tries left of `slot`, 0 to 7: 0 means not bootable. */
OTA_API int32_t ota_get_slot_bootable_state(int32_t slot);

/** 1 when `slot` is marked as booted successfully and has tries left, else 0. */
OTA_API int32_t ota_get_slot_boot_success_state(int32_t slot);

/** The number of slots as stored, which may be above 4 in a damaged block. */
OTA_API int32_t ota_get_slot_num(void);

/** The tries left of `slot`, 0 to 7. */
OTA_API int32_t ota_get_slot_remaining_times(int32_t slot);

/**
 * Makes `slot` the next boot slot: priority 15, one try, not corrupted; the successful mark is kept.
 * Any other slot at priority 15 is lowered to 14.
 * @return 0; -1 on failure. A failure before the write changes nothing; after a failed write the contents of
 *         the block are undefined.
 */
OTA_API int32_t ota_set_next_expected_slot(int32_t slot);

/** Clears the successful mark and the tries of `slot`. @return 0, or -1 as ota_set_next_expected_slot(). */
OTA_API int32_t ota_set_slot_unbootable(int32_t slot);

/**
 * Marks `slot` as booted successfully and gives it one try. Nothing is written for a slot that is
 * already marked and has tries left.
 * @return 0, or -1 as ota_set_next_expected_slot()
 */
OTA_API int32_t ota_mark_slot_boot_successful(int32_t slot);

/**
 * Writes a default block: two slots on trial with priority 15 and 7 tries. The old block is not read, so
 * this also repairs a block with a wrong magic.
 * @return 0, or -1 when the write fails
 */
OTA_API int32_t ota_set_slotmeta_to_default(void);

OTA_END_DECLS

#endif
