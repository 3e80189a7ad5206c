// SPDX-License-Identifier: Apache-2.0
/** Reads whole files up to a limit, and writes to files. */
#ifndef TOOL_SMALL_FILE_H
#define TOOL_SMALL_FILE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

/**
 * Reads a whole file, or a pipe up to its end; allocates memory only for the bytes read.
 * Throws Failure that names the file when it cannot be read or has more than `limit` bytes.
 */
std::string read_small_file(const std::string& path, size_t limit);

/** Writes all bytes. Throws Failure with `sentence` and the cause. */
void write_all(int fd, std::span<const uint8_t> bytes, const std::string& sentence);

#endif
