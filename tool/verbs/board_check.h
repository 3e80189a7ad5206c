/** What a board must supply for the library to work on it, item by item. */
#ifndef TOOL_BOARD_CHECK_H
#define TOOL_BOARD_CHECK_H

#include <string>
#include <vector>

struct BoardItem {
    std::string name;
    bool is_there;
    std::string found;        /* what is there, or what is wrong */
    std::string mend;         /* how to supply it */
    bool is_stand_in = false; /* it is there, but a desktop's library in place of the board's */
};

/** Looks at every item and changes nothing. Items that this board's medium does not need are left out. */
std::vector<BoardItem> check_board();

#endif
