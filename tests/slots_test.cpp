#include "board.h"

#include <velox_ota_hl.h>

namespace {

using Slots = Board;

TEST_F(Slots, a_block_without_magic_is_refused_until_it_is_made_anew) {
    set_cmdline("veloxboot.medium=MMC");
    add_partition("misc", 4096);
    EXPECT_EQ(ota_get_slot_num(), -1);
    EXPECT_EQ(log(), (std::vector<std::string>{"error check bootctrl valid failed! ret 32",
                                               "error get boot ctrl info failed!"}));
    EXPECT_EQ(ota_set_slotmeta_to_default(), 0);
    EXPECT_EQ(ota_get_slot_num(), 2);
}

} // namespace
