// SPDX-License-Identifier: Apache-2.0
/** What a board must supply for the library to work on it, item by item. */
#ifndef TOOL_BOARD_CHECK_H
#define TOOL_BOARD_CHECK_H

#include <string>
#include <vector>

struct BoardItem {
    std::string name;
    bool is_there;
    std::string found;        /* what was found, or what is wrong */
    std::string fix;          /* how to supply it */
    bool is_stand_in = false; /* present, but a desktop library instead of the board's */
};

/** Checks every item and changes nothing. Items that this board's medium does not need are left out. */
std::vector<BoardItem> check_board();

#endif
