// SPDX-License-Identifier: Apache-2.0
/**
 * A flash command: the format of a file on the board and of what is written to the node "flashcmd". 2272 bytes,
 * little-endian; in the node, the command "misc_write_cmd" is followed by a data area.
 *
 *   offset  size  meaning
 *        0     4  magic, 0x46434D44: the bytes "DMCF"
 *        4     4  command type
 *        8   196  in most commands: number of images, 16 offsets in slot a, 16 in slot b, 16 lengths
 *        8     4  in "misc_write_cmd": offset
 *       12     4  in "misc_write_cmd": size of the data area
 *      204    16  reserved
 *      220     4  length of the signature
 *      224  2048  signature
 *     2272        data area
 */
#ifndef FLASH_COMMAND_FORMAT_H
#define FLASH_COMMAND_FORMAT_H

#include "format.h"
#include "ota_partition.h"

inline constexpr uint32_t flash_command_magic = 0x46434D44;
inline constexpr char flash_command_with_data[] = "misc_write_cmd";

/** Valid, absent (erased) or foreign (wrong magic number). The signature is not verified. */
format_answer check_flash_command(const fimage_update_t& command);

/** Size of the data area. Not checked for the command: in one without an area these bytes mean something else. */
uint32_t flash_command_area_size(const fimage_update_t& command);

#endif
