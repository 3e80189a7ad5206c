// SPDX-License-Identifier: Apache-2.0
/** The version in a version file. */
#ifndef TOOL_VERSION_FILE_H
#define TOOL_VERSION_FILE_H

#include <string>

/** Throws Failure if the file is missing or contains no complete version. */
std::string read_version_file(const std::string& path);

#endif
