// SPDX-License-Identifier: Apache-2.0
#include "package/board_identity.h"

#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace {

/* NUL-terminated names, one after another. */
constexpr char compatible_path[] = "/sys/firmware/devicetree/base/compatible";

} // namespace

std::vector<std::string> read_board_names() {
    std::ifstream file(compatible_path, std::ios::binary);
    if (!file.is_open() && errno != ENOENT) {
        throw Failure(ExitCode::failed, std::string("cannot open ") + compatible_path + because(errno));
    }
    std::vector<std::string> names;
    for (std::string name; std::getline(file, name, '\0') && !file.eof();) { /* an unterminated rest is not a name */
        if (!name.empty()) {
            names.push_back(name);
        }
    }
    return names;
}

void check_board_name(const Description& description, const std::string& named) {
    if (description.boards.empty()) {
        return;
    }
    const auto names = named.empty() ? read_board_names() : std::vector{named};
    if (names.empty()) {
        throw Failure(ExitCode::refused,
                      "the package is for " + joined(description.boards) + ", but this board has no name in " +
                          compatible_path,
                      "name the board: --board NAME");
    }
    if (std::ranges::find_first_of(description.boards, names) == description.boards.end()) {
        throw Failure(ExitCode::refused,
                      "the package is for " + joined(description.boards) + ", but this board is " + joined(names));
    }
}
