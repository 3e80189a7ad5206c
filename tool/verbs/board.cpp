// SPDX-License-Identifier: Apache-2.0
/** tessera board: the board's properties, and whether it supplies what the library needs. */
#include "board/names.h"
#include "console/text.h"
#include "package/board_identity.h"
#include "velox_ota_hl.h"
#include "verbs/board_check.h"
#include "verbs/verb.h"

#include <algorithm>

namespace {

Json number_or_null(int32_t value) {
    return value < 0 ? Json() : Json(value);
}

void show_board(const Context& context) {
    const int32_t medium = get_boot_medium();
    const int32_t mode = get_boot_mode();
    const int32_t running = ota_get_cur_slot();
    const int32_t update = ota_get_update_slot();
    if (medium < 0 && mode < 0 && running < 0) {
        throw Failure(ExitCode::failed, "this is not a board: the kernel command line names no medium, mode or slot",
                      "tessera board --check");
    }
    const auto names = read_board_names();
    const Json value = {{"medium", medium_names.word(medium)},
                        {"mode", mode_names.word(mode)},
                        {"running_slot", number_or_null(running)},
                        {"update_slot", number_or_null(update)},
                        {"compatible", Json::array({names.begin(), names.end()})}};
    context.show(value, "medium        " + medium_names.word(medium) + "\nmode          " + mode_names.word(mode) +
                            "\nrunning slot  " + slot_letter(running) + "\nupdate slot   " + slot_letter(update) +
                            "\ncompatible    " + (names.empty() ? "unknown" : joined(names)));
}

void show_check(const Context& context) {
    const std::vector<BoardItem> items = check_board();
    Json value = Json::array();
    std::string text;
    for (const BoardItem& item : items) {
        const bool is_ok = item.is_there && !item.is_stand_in;
        const char* state = is_ok ? "ok" : item.is_there ? "stand-in" : "MISSING";
        value.push_back({{"item", item.name}, {"ok", is_ok}, {"stand_in", item.is_stand_in}, {"found", item.found}});
        text += format("%-9s%-20s%s\n", state, item.name.c_str(), item.found.c_str());
        if (!is_ok) {
            value.back()["fix"] = item.fix;
            text += format("%-9s%s\n", "", item.fix.c_str());
        }
    }
    context.show({{"items", value}}, text);
    const auto missing =
        std::count_if(items.begin(), items.end(), [](const BoardItem& item) { return !item.is_there; });
    if (missing > 0) {
        throw Failure(ExitCode::failed, format("%td of the %zu things a board must supply %s missing or wrong", missing,
                                               items.size(), missing == 1 ? "is" : "are"));
    }
}

} // namespace

void declare_board(Command& verb, Context& context) {
    auto check = std::make_shared<bool>(false);
    add_flag(verb, "--check", *check, "Check everything a board must supply, and report how to fix what is missing");
    on_command(verb, context, [&context, check] { *check ? show_check(context) : show_board(context); });
}
