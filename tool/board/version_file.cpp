// SPDX-License-Identifier: Apache-2.0
#include "board/version_file.h"

#include "board/small_file.h"
#include "console/failure.h"
#include "console/text.h"
#include "velox_ota_hl.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>

namespace {

constexpr uintmax_t longest_file = 127; /* what the library keeps of a version */

/** Opening a FIFO would block. */
void demand_version_file(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) {
        throw Failure(ExitCode::failed, "cannot read the version file " + path + ": " + error.message());
    }
    if (size > longest_file) {
        throw Failure(ExitCode::failed, format("%s is too long for a version file, which has at most %ju bytes",
                                               path.c_str(), longest_file));
    }
}

} // namespace

std::string read_version_file(const std::string& path) {
    demand_version_file(path);
    std::string line = read_small_file(path, longest_file);
    std::array<char, longest_file + 1> buffer{};
    if (parse_version_info(line.data(), buffer.data()) < 0) {
        throw Failure(ExitCode::failed, path + " contains no version such as board_V1.2.0");
    }
    /* The library ends a version at a blank: a second line, or the CR of another system, is still there. */
    std::string version(buffer.data());
    version.erase(std::find_if(version.begin(), version.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }),
                  version.end());
    return version;
}
