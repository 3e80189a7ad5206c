/** tessera board: what this board is, and whether it supplies what the library needs. */
#include "names.h"
#include "text.h"
#include "velox_ota_hl.h"
#include "verb.h"

namespace {

Json number_or_null(int32_t value) {
    return value < 0 ? Json() : Json(value);
}

void show_board(const Context& context) {
    const int32_t medium = get_boot_medium();
    const int32_t mode = get_boot_mode();
    const int32_t running = ota_get_cur_slot();
    const int32_t update = ota_get_update_slot();
    const Json value = {{"medium", medium_names.word(medium)},
                        {"mode", mode_names.word(mode)},
                        {"running_slot", number_or_null(running)},
                        {"update_slot", number_or_null(update)}};
    context.show(value, "medium        " + medium_names.word(medium) + "\nmode          " + mode_names.word(mode) +
                            "\nrunning slot  " + slot_letter(running) + "\nupdate slot   " + slot_letter(update));
}

} // namespace

void declare_board(CLI::App& verb, Context& context) {
    on_command(verb, context, [&context] { show_board(context); });
}
