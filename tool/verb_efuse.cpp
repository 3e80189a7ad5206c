/** tessera efuse: the board's anti-rollback counters, and raising them. */
#include "image_versions.h"
#include "status_record.h"
#include "text.h"
#include "velox_ota_hl.h"
#include "verb.h"

namespace {

void show_counters(const Context& context) {
    const Counters counters = read_counters();
    context.show({{"secure", counters.secure}, {"non_secure", counters.non_secure}},
                 format("secure      %u\nnon-secure  %u", counters.secure, counters.non_secure));
}

/** The record of the last package that passed. */
antirollback_ver_t versions_to_burn() {
    const StoredVersions stored = read_stored_versions();
    if (!stored.is_valid) {
        throw Failure(ExitCode::failed, "there is no stored record of a package that passed",
                      "tessera verify PACKAGE stores one");
    }
    if (stored.record.sec_up_flag != 1 && stored.record.nosec_up_flag != 1) {
        throw Failure(ExitCode::failed, "the last package that passed asks for no counter to be raised");
    }
    return stored.record;
}

void burn(const Context& context, bool confirmed) {
    antirollback_ver_t versions = versions_to_burn();
    if (!confirmed) {
        throw Failure(ExitCode::usage, "fuses cannot be burnt back: older systems will never boot again",
                      "tessera efuse burn --yes");
    }
    require(ExitCode::device, "cannot raise the counters", [&] { return set_efuse_antirollback(&versions); });
    show_counters(context);
}

} // namespace

void declare_efuse(CLI::App& verb, Context& context) {
    verb.require_subcommand(0, 1);
    on_command(verb, context, [&context] { show_counters(context); });
    CLI::App& command = add_command(verb, "burn",
                                    "Raise the counters as the last package that passed asks for; "
                                    "wait until the new slot is confirmed");
    auto confirmed = std::make_shared<bool>(false);
    command.add_flag("--yes", *confirmed, "Yes, for ever");
    on_command(command, context, [&context, confirmed] { burn(context, *confirmed); });
}
