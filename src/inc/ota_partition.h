// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Reading and writing a partition or a file, whatever the medium; image streaming; flash commands.
 */
#ifndef OTA_PARTITION_H
#define OTA_PARTITION_H

#include "ota_utils.h"

OTA_BEGIN_DECLS

/**
 * A prepared flash command: the start of a command file and of what is written to the node. All
 * integers are little-endian; 2272 bytes. The data area of "misc_write_cmd" follows it.
 */
#ifdef __cplusplus /* has flexible arrays as an extension only */
#pragma GCC diagnostic push
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wc99-extensions"
#else
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
#endif
typedef struct fimage_update_s {
    uint32_t magic;   /**< 0x46434D44 */
    uint32_t cmdtype; /**< passed through */
    union {
        struct {
            uint32_t imagenum;    /**< number of images */
            uint32_t offsetA[16]; /**< of each image in slot a */
            uint32_t offsetB[16]; /**< of each image in slot b */
            uint32_t length[16];  /**< of each image */
        } ab;                     /**< passed through */
        struct {
            uint32_t offset; /**< passed through */
            uint32_t length; /**< bytes of the data area */
        } misc;              /**< of "misc_write_cmd" */
    } partinfo;              /**< by the kind of the command */
    uint32_t reserved[4];    /**< passed through */
    uint32_t signlen;        /**< bytes of the signature in signdata */
    uint8_t signdata[2048];  /**< passed through */
    uint8_t miscdata[];      /**< the data area, in what is written to the node only */
} fimage_update_t;
#ifdef __cplusplus
#pragma GCC diagnostic pop
#endif

/**
 * Reads up to `buf_len` bytes at `ori_file->offset` with one open, one transfer and one close.
 * @param buf_len  below 2 GiB
 * @return bytes read, 0 at the end of the data; negative on failure. `ori_file` is never changed.
 */
OTA_API int32_t ota_file_to_buf(ota_file_info_t* ori_file, char* buffer, uint64_t buf_len);

/**
 * Writes `buf_len` bytes at `dest_file->offset`. The target must exist; on flash whole erase blocks or
 * LEBs are read, erased and written back around the range (ota_nand_update.h).
 * @param buf_len  below 2 GiB; 0 is a failure on flash
 * @return bytes written, which may be fewer on a plain file; negative on failure. `dest_file` is never
 *         changed.
 */
OTA_API int32_t ota_buf_to_file(ota_file_info_t* dest_file, const char* buffer, uint64_t buf_len);

/**
 * Copies `ori_file->size` bytes from one file or partition to another, in chunks of 10485760 bytes, or
 * of 2099200 bytes when the destination is NAND or NOR.
 * @param ori_file, dest_file  `offset` of both advances with each chunk and shows how much was copied
 * @param read_cb  called after each chunk with the bytes of that chunk; may be null
 * @return 0, even when the source ends before `size`; -1 on failure: earlier chunks stay written
 */
OTA_API int32_t ota_file_to_file(ota_file_info_t* ori_file, ota_file_info_t* dest_file, void (*read_cb)(int32_t));

/**
 * Inflates the entry `file` of the zip package `src` to `dest_file->offset`, in the chunks of
 * ota_file_to_file(). The entry's checksum is not checked: compare a digest of what was written.
 * @param dest_file  `offset` advances with each chunk
 * @param read_cb    called after each chunk with its bytes, and once with 0 at the end; may be null
 * @return 0; -1 for a null argument, a package that cannot be opened, a failed write, or an entry
 *         larger than minizip can deliver; a negative minizip code when the entry cannot be found,
 *         opened or read, or ends before the size that the package claims. Earlier chunks stay
 *         written.
 */
OTA_API int32_t vx_uncompress_file_to(const char* src, const char* file, ota_file_info_t* dest_file,
                                      void (*read_cb)(int32_t));

/**
 * Writes a prepared flash command from "/usr/velox/share/ota" to the node
 * "/dev/block/platform/by-name/flashcmd". All checks are made before the node is opened.
 * @param cmd        name of the command's file; "misc_write_cmd" carries a data area
 * @param misc_data  bytes for the data area of "misc_write_cmd"; not read for any other command
 * @param data_len, offset  number of bytes and their place in the area; their sum must not exceed the size
 *                   of the area in the record. The other bytes of the area are 0.
 * @return 0; -6 for a null `cmd`, or a null `misc_data` that would be read; -17 when out of memory; -1
 *         for a bad file, a range that does not fit, or a failed write. A node that is too small for
 *         the command is not detected.
 */
OTA_API int32_t ota_write_flashcmd(const char* cmd, char* misc_data, uint32_t data_len, uint32_t offset);

OTA_END_DECLS

#endif
