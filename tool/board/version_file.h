/** The version in a version file. */
#ifndef TOOL_VERSION_FILE_H
#define TOOL_VERSION_FILE_H

#include <string>

/** Throws Failure when there is none, or none that is whole. */
std::string read_version_file(const std::string& path);

#endif
