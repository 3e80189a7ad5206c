/**
 * Access to MTD character devices (NAND, NOR) and UBI volumes through an open descriptor.
 *
 * A flash block is written only after it was erased, whole. A write is therefore a read-modify-write
 * of whole erase blocks (MTD) or logical eraseblocks (UBI): read and erase each block, merge the new
 * bytes in memory, write all of them back. From its erase to its write-back the only copy of a block
 * is in memory.
 *
 * On MTD the two directions count differently. A read is raw: its offset is a byte of the device. A
 * write is logical: its offset counts good blocks, so bad blocks before it move the range towards the end
 * of the device and bad blocks inside stretch it. UBI hides bad blocks: both directions use the same plain
 * offsets.
 *
 * The descriptor is opened for reading and writing, is not closed, and its file position is not used.
 */
#ifndef OTA_NAND_UPDATE_H
#define OTA_NAND_UPDATE_H

#include "ota_base.h"

OTA_BEGIN_DECLS

/**
 * Reads from an MTD device at a raw byte offset; bad blocks are not skipped. A range that passes the
 * end of the device is shortened.
 * @param in_size  bytes, above 0
 * @return bytes read, 0 at the end of the device; negative on failure or beyond the end
 */
OTA_API ssize_t vx_mtd_read(int fd, void* in_buf, size_t in_size, size_t offset);

/**
 * Writes to an MTD device at a logical offset, skipping bad blocks.
 * @param in_size  bytes, above 0; offset + in_size must not exceed the size of the device
 * @return in_size: every block was passed to the driver, and the bytes around the range are the old ones. A
 *         driver that reports a block as written in part is not noticed: read back what has to be certain.
 *         Negative: do not take anything as stored. After a failed read or erase, the blocks erased so far
 *         have their old content back. After a failed write-back, the failing block and those after it in
 *         the range have lost theirs: write the range again.
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
