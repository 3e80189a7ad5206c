/** tessera efuse: the board's anti-rollback counters, and raising them. */
#include "image_versions.h"
#include "status_record.h"
#include "text.h"
#include "update_lock.h"
#include "velox_ota_hl.h"
#include "verb.h"

namespace {

void show_counters(const Context& context) {
    const Counters counters = read_counters();
    context.show({{"secure", counters.secure}, {"non_secure", counters.non_secure}},
                 format("secure      %u\nnon-secure  %u", counters.secure, counters.non_secure));
}

/* What the library answers for an image without any certificate. No counter ever comes back from it. */
constexpr uint32_t version_of_nothing = 255;

/** Refuses before the first fuse: the library burns one counter before it finds that the other is wrong. */
void judge_raise(const char* which, bool raise, uint32_t version, uint32_t counter) {
    if (!raise) {
        return;
    }
    if (version < counter) {
        throw Failure(ExitCode::failed,
                      format("the stored %s version %u is below the counter %u", which, version, counter),
                      "tessera verify PACKAGE stores the versions of another package");
    }
    if (version == version_of_nothing) {
        throw Failure(
            ExitCode::failed,
            format("the stored %s version is %u, which stands for an image without certificates", which, version));
    }
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
    const Counters counters = read_counters();
    judge_raise("secure", stored.record.sec_up_flag == 1, stored.record.sec_ver, counters.secure);
    judge_raise("non-secure", stored.record.nosec_up_flag == 1, stored.record.nosec_ver, counters.non_secure);
    return stored.record;
}

void burn(const Context& context, bool confirmed, const std::string& lock_file) {
    const UpdateLock lock(lock_file, "tessera efuse burn"); /* an update may store other versions */
    antirollback_ver_t versions = versions_to_burn();
    if (!confirmed) {
        throw Failure(ExitCode::usage, "fuses cannot be burnt back: older systems will never boot again",
                      "tessera efuse burn --yes");
    }
    require(ExitCode::device, "cannot raise the counters", [&] { return set_efuse_antirollback(&versions); });
    const Counters now = read_counters();
    if ((versions.sec_up_flag == 1 && now.secure != versions.sec_ver) ||
        (versions.nosec_up_flag == 1 && now.non_secure != versions.nosec_ver)) {
        throw Failure(ExitCode::device,
                      format("the counters are %u and %u, and not what was burned", now.secure, now.non_secure));
    }
    show_counters(context);
}

} // namespace

void declare_efuse(Command& verb, Context& context) {
    allow_command(verb);
    on_command(verb, context, [&context] { show_counters(context); });
    Command& command = add_command(verb, "burn",
                                   "Raise the counters as the last package that passed asks for; "
                                   "wait until the new slot is confirmed");
    auto confirmed = std::make_shared<bool>(false);
    add_flag(command, "--yes", *confirmed, "Yes, for ever");
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(command, *lock_file);
    on_command(command, context, [&context, confirmed, lock_file] { burn(context, *confirmed, *lock_file); });
}
