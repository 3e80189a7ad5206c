// SPDX-License-Identifier: Apache-2.0
/**
 * Firmware Image Package, the container of Trusted Firmware-A, little-endian. A header of 16 bytes:
 *
 *   offset  size  meaning
 *        0     4  magic, 0xaa640001
 *        4     4  serial number
 *        8     8  flags
 *
 * then entries of 40 bytes, the last of which has a UUID of zeros:
 *
 *   offset  size  meaning
 *        0    16  UUID: what the image is
 *       16     8  where the image starts, from the start of the package
 *       24     8  length of the image
 *       32     8  flags
 *
 * A "miniboot" file of the board holds two packages, of 0x40000 bytes at byte 0 and of 0x200000 bytes at byte
 * 0x40000. A "uboot" file is one package.
 */
#ifndef FIRMWARE_PACKAGE_FORMAT_H
#define FIRMWARE_PACKAGE_FORMAT_H

#include "fip_prase.h"
#include "format.h"

inline constexpr uint32_t firmware_package_magic = 0xaa640001;
inline constexpr size_t firmware_first_size = 0x40000;
inline constexpr size_t firmware_second_size = 0x200000;
inline constexpr size_t firmware_pair_size = firmware_first_size + firmware_second_size;

struct fip_toc_header_t {
    uint32_t name; /* the magic */
    uint32_t serial_number;
    uint64_t flags;
};

struct fip_toc_entry_t {
    uuid_t uuid;
    uint64_t offset_address;
    uint64_t size;
    uint64_t flags;
};

/** Whether a file begins like a package: valid, torn (too short), or foreign (another magic). */
format_answer check_firmware_package(std::span<const uint8_t> file);

/** A walk over the entries of one package. */
struct firmware_walk {
    std::span<const uint8_t> package;
    size_t at = sizeof(fip_toc_header_t);
    bool is_terminated = false; /* the entry of zeros was reached */
};

/** The next entry. @return false at the entry of zeros, or where no whole entry is left */
bool next_firmware_entry(firmware_walk* walk, fip_toc_entry_t* entry);

/** Checks the place of an entry's image: valid inside a package of `size` bytes, or torn for one of two reasons. */
enum class firmware_place { inside, wraps, past_end };
firmware_place check_firmware_place(const fip_toc_entry_t& entry, size_t size);

#endif
