// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Access to MTD character devices (NAND, NOR) and UBI volumes through an open descriptor.
 *
 * A flash block has to be erased as a whole before it is written. A write is therefore a read-modify-write
 * of whole erase blocks (MTD) or logical eraseblocks (UBI): read and erase each block, merge the new
 * bytes in memory, write all of them back. From its erase to its write-back the only copy of a block
 * is in memory.
 *
 * On MTD, reads and writes use different offsets. A read is raw: its offset is a byte of the device. A
 * write is logical: its offset counts only good blocks, so bad blocks before it move the range towards the
 * end of the device and bad blocks inside stretch it. UBI hides bad blocks: reads and writes use the same
 * plain offsets.
 *
 * The descriptor is opened for reading and writing, is not closed, and its file position is not used.
 */
#ifndef OTA_NAND_UPDATE_H
#define OTA_NAND_UPDATE_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/**
 * Reads from an MTD device at a raw byte offset; bad blocks are not skipped. A range that extends
 * past the end of the device is shortened.
 * @param in_size  bytes, above 0
 * @return bytes read, 0 at the end of the device; negative on failure or beyond the end
 */
OTA_API ssize_t vx_mtd_read(int fd, void* in_buf, size_t in_size, size_t offset);

/**
 * Writes to an MTD device at a logical offset, skipping bad blocks.
 * @param in_size  bytes, above 0; offset + in_size must not exceed the size of the device
 * @return in_size: every block was passed to the driver, and the bytes around the range are unchanged. A
 *         partial write that the driver reports is not detected: read back what has to be certain.
 *         Negative: treat nothing as stored. After a failed read or erase, the old content of the blocks
 *         erased so far has been written back. After a failed write-back, the failing block and those after
 *         it in the range have lost their content: write the range again.
 */
OTA_API ssize_t vx_mtd_write(int fd, void* in_buf, size_t in_size, size_t offset);

/**
 * Reads from a UBI volume.
 * @param in_size  bytes, above 0
 * @param offset   inside the volume: a kernel may return data for an offset past its end without an error
 * @return bytes read, 0 at the end of the volume; negative on failure
 */
OTA_API ssize_t vx_ubi_read(int fd, void* in_buf, size_t in_size, size_t offset);

/**
 * Writes to a UBI volume. Sets the volume's direct-write property and leaves it set.
 * @param in_size  bytes, above 0
 * @param offset   inside the volume
 * @return as vx_mtd_write(); a range that runs past the end of the volume is a failed read. When the property
 *         cannot be set, every LEB of the range stays erased.
 */
OTA_API ssize_t vx_ubi_write(int fd, void* in_buf, size_t in_size, size_t offset);

OTA_END_DECLS

#endif
