/** Files that are read whole, up to a stated limit. */
#ifndef TOOL_SMALL_FILE_H
#define TOOL_SMALL_FILE_H

#include <cstddef>
#include <string>

/**
 * Reads a whole file, or what a pipe gives up to its end; takes memory for what is there.
 * Throws Failure that names the file when it cannot be read or has more than `limit` bytes.
 */
std::string read_small_file(const std::string& path, size_t limit);

#endif
