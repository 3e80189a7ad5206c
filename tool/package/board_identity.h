// SPDX-License-Identifier: Apache-2.0
/** Which boards this one is compatible with, and whether a package is for one of them. */
#ifndef TOOL_BOARD_IDENTITY_H
#define TOOL_BOARD_IDENTITY_H

#include "package/description.h"

#include <string>
#include <vector>

/** The remark on a package that names no boards. */
inline constexpr char no_boards_remark[] =
    "the package does not name its boards: whether it is for this one was not checked";

/** The names in the device tree's root, the most specific first; empty where the board has none. */
std::vector<std::string> read_board_names();

/**
 * Refuses a package that names boards and not this one.
 * @param named  the name that the user gave to the board, which replaces those of its device tree; or empty
 */
void check_board_name(const Description& description, const std::string& named);

#endif
