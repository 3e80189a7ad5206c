// SPDX-License-Identifier: Apache-2.0
/** Reads whole files up to a limit. */
#ifndef TOOL_SMALL_FILE_H
#define TOOL_SMALL_FILE_H

#include <cstddef>
#include <string>

/**
 * Reads a whole file, or a pipe up to its end; allocates memory only for the bytes read.
 * Throws Failure that names the file when it cannot be read or has more than `limit` bytes.
 */
std::string read_small_file(const std::string& path, size_t limit);

#endif
