// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Reads Firmware Image Packages (the container of Trusted Firmware-A) and the anti-rollback version
 * that the certificates in them carry. Certificates are decoded, never verified.
 */
#ifndef FIP_PRASE_H
#define FIP_PRASE_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/** What an image is, 16 raw bytes in stored order; only ever compared whole. */
typedef struct uuid_s {
    uint8_t time_low[4];               /**< bytes 0 to 3 */
    uint8_t time_mid[2];               /**< bytes 4 and 5 */
    uint8_t time_hi_and_version[2];    /**< bytes 6 and 7 */
    uint8_t clock_seq_hi_and_reserved; /**< byte 8 */
    uint8_t clock_seq_low;             /**< byte 9 */
    uint8_t node[6];                   /**< bytes 10 to 15 */
} uuid_t;

/** A kind of image that the reader knows. */
typedef struct toc_entry {
    const char* name;         /**< long name */
    uuid_t uuid;              /**< marks the image in a package */
    const char* cmdline_name; /**< short name, used in messages; null in the last row */
} toc_entry_t;

/** The known certificates, nine rows and a last one of nulls. */
extern OTA_API const toc_entry_t toc_entries[10];

/** Layouts of a firmware image file. */
enum {
    SEC_MINIBOOT_IMG = 0, /**< two packages: 0x40000 bytes at 0 and 0x200000 bytes at 0x40000 */
    NOSEC_UBOOT_IMG = 1,  /**< one package: the whole file */
};

/**
 * Reads the version that all certificates of a firmware image agree on.
 * @param img_type  SEC_MINIBOOT_IMG or NOSEC_UBOOT_IMG
 * @param ab_ver    out: the version; 255 when the file holds none of the known certificates
 * @return 0; -1 for a null argument, an unknown type, a file that is not a sound package, a certificate
 *         that does not decode, or versions that differ: `ab_ver` is then meaningless
 */
OTA_API int32_t vx_fip_img_anti_read(const char* img_path, uint32_t img_type, uint32_t* ab_ver);

OTA_END_DECLS

#endif
