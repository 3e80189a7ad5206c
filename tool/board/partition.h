// SPDX-License-Identifier: Apache-2.0
/** Partitions by name: their paths, and access to the small records stored in them. */
#ifndef TOOL_PARTITION_H
#define TOOL_PARTITION_H

#include "velox_ota_hl.h"

#include <cstdint>
#include <set>
#include <span>
#include <string>

/** Whether this machine is a board: one that has partitions by name. */
bool is_board();

/** The names of all partitions, a name for each slot's copy. Throws when they cannot be listed. */
std::set<std::string> list_partitions_by_name();

/** The path of a partition that exists once, or of one slot's copy when `name` has the suffix. */
std::string partition_path(const std::string& name);

/** The same for a partition that exists once. Throws if the board does not have it. */
std::string existing_partition(const std::string& name);

/** Resolves a name given by the user: an existing file or device, else the partition of that name. */
std::string file_or_partition(const std::string& name);

/** A partition of the boot medium that exists once, as the target of a transfer at byte 0. */
ota_file_info_t locate(const std::string& name);

/** Reads a stored record unchanged. Throws if it cannot be read completely. */
void read_record(const std::string& partition, uint64_t offset, std::span<uint8_t> record);

/** Waits until the medium holds what was written to a partition. */
void sync_partition(const std::string& name);

#endif
