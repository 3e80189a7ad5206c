// SPDX-License-Identifier: Apache-2.0
/** The fixed names and paths of the board, for the library and the command, and the sizes of arrays that hold such. */
#ifndef OTA_PATHS_H
#define OTA_PATHS_H

#include <cstddef>

inline constexpr char ota_cmdline_path[] = "/proc/cmdline";
inline constexpr char ota_partition_dir[] = "/dev/block/platform/by-name/";
inline constexpr char ota_flashcmd_dir[] = "/usr/velox/share/ota";
inline constexpr char ota_flashcmd_node[] = "/dev/block/platform/by-name/flashcmd";
inline constexpr char ota_misc_partition[] = "misc";         /* the slot block */
inline constexpr char ota_ubootenv_partition[] = "ubootenv"; /* the status and anti-rollback records */
inline constexpr char ota_flashcmd_partition[] = "flashcmd"; /* flash commands for the bootloader */
inline constexpr char ota_gpt_partition[] = "blk";           /* the whole eMMC */
inline constexpr char ota_gpt_device[] = "/dev/block/platform/by-name/blk";
inline constexpr char ota_process_dir[] = "/tmp/process/";
inline constexpr char ota_process_name[] = "ota_process";

inline constexpr size_t ota_path_size = 128;  /* paths and versions, with the NUL */
inline constexpr size_t ota_entry_size = 256; /* names of package entries, with the NUL */

#endif
