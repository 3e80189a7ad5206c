// SPDX-License-Identifier: Apache-2.0
/** The fixed paths of the board and the sizes of the arrays that hold paths and names. */
#ifndef OTA_PATHS_H
#define OTA_PATHS_H

#include <cstddef>

inline constexpr char ota_cmdline_path[] = "/proc/cmdline";
inline constexpr char ota_partition_dir[] = "/dev/block/platform/by-name/";
inline constexpr char ota_flashcmd_dir[] = "/usr/velox/share/ota";
inline constexpr char ota_flashcmd_node[] = "/dev/block/platform/by-name/flashcmd";
inline constexpr char ota_gpt_device[] = "/dev/block/platform/by-name/blk";
inline constexpr char ota_tmp_unzip_dir[] = "/tmp/ota/unzip_dir";
inline constexpr char ota_userdata_unzip_dir[] = "/userdata/ota/unzip_dir";
inline constexpr char ota_process_dir[] = "/tmp/process/";
inline constexpr char ota_process_name[] = "ota_process";

inline constexpr size_t ota_path_size = 128;  /* paths and versions, with the NUL */
inline constexpr size_t ota_entry_size = 256; /* names of package entries, with the NUL */

#endif
