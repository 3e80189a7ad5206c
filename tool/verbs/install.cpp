// SPDX-License-Identifier: Apache-2.0
/** tessera install: the whole update, from the package to the switch of the slot. */
#include "install/install.h"
#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "board/status_record.h"
#include "console/interrupt.h"
#include "console/text.h"
#include "firmware/image_versions.h"
#include "install/device_claim.h"
#include "install/update_lock.h"
#include "internal/ota_paths.h"
#include "package/board_identity.h"
#include "package/package_pipe.h"
#include "verbs/verb.h"

#include <chrono>
#include <map>
#include <unistd.h>
#include <utility>

namespace {

struct Options : InstallOptions {
    std::optional<ProgressMode> progress;
    bool quiet = false;
};

constexpr char standard_input[] = "-";
constexpr char untouched[] = "nothing was written; the board is unchanged";

/** What was done, or would be done. */
struct Outcome {
    const Plan& plan;
    bool needed; /* something had to be done */
    double seconds;

    [[nodiscard]] uint64_t written() const {
        uint64_t sum = 0;
        for (const Target& target : plan.targets) {
            sum += target.written;
        }
        return sum;
    }
    [[nodiscard]] uint64_t kept() const {
        uint64_t sum = 0;
        for (const Target& target : plan.targets) {
            sum += target.size - target.written;
        }
        return sum;
    }
};

void remark(const Options& options, const std::string& sentence) {
    if (!options.quiet) {
        console::note(sentence);
    }
}

void remark_on(const Plan& plan, const Options& options) {
    if (options.trust.file.empty()) {
        remark(options, "no --trust given: integrity is checked, authenticity is not");
    }
    if (plan.description.boards.empty()) {
        remark(options, no_boards_remark);
    }
    if (plan.installed_version.empty()) {
        remark(options,
               "the installed version is unknown, because " + options.version_file +
                   " cannot be read: downgrades go undetected until a system image that contains it is installed");
    }
    if (!can_keep_status()) {
        remark(options, "a bad block in ubootenv makes the update status unreadable: tessera status cannot report "
                        "whether this installation has ended");
    }
}

/** Whether the slot is one that an unknown installation may have left half written. */
bool is_given_up(const Plan& plan) {
    const SlotBlock block = plan.slot ? read_slot_block() : SlotBlock{};
    const Slot* entry = plan.slot ? block.find(*plan.slot) : nullptr;
    return entry != nullptr && entry->is_given_up();
}

Json to_json(const Outcome& outcome, bool dry_run) {
    const Plan& plan = outcome.plan;
    Json partitions = Json::array();
    for (const Target& target : plan.targets) {
        partitions.push_back({{"partition", target.partition()},
                              {"file", target.image.file},
                              {"bytes", target.size},
                              {"written", !target.is_installed}});
    }
    return {{"version", plan.description.version},
            {"installed_version", plan.installed_version.empty() ? Json() : Json(plan.installed_version)},
            {"signer", plan.signer.empty() ? Json() : Json(plan.signer)},
            {"dry_run", dry_run},
            {"slot", plan.slot ? Json(*plan.slot) : Json()},
            {"switched", !dry_run && outcome.needed && plan.switches},
            {"partitions", partitions},
            {"bytes_written", outcome.written()},
            {"bytes_kept", outcome.kept()},
            {"seconds", outcome.seconds}};
}

std::string slot_sentence(const Plan& plan) {
    if (!plan.slot) {
        return "";
    }
    const std::string slot = "slot " + slot_letter(*plan.slot);
    return plan.switches ? "; " + slot + " boots next" : "; " + slot + " is running it";
}

std::string summary(const Outcome& outcome) {
    const std::string& version = outcome.plan.description.version;
    if (!outcome.needed) {
        return version + " is already installed" + slot_sentence(outcome.plan);
    }
    const uint64_t written = outcome.written();
    std::string text = "installed " + version + ": " + human_bytes(written) + " written";
    if (const uint64_t kept = outcome.kept(); kept > 0) {
        text += ", " + human_bytes(kept) + " already installed";
    }
    text += format(", in %.1f s", outcome.seconds);
    if (written > 0 && outcome.seconds > 0) {
        text += " (" + human_bytes(static_cast<uint64_t>(static_cast<double>(written) / outcome.seconds)) + "/s)";
    }
    return text + slot_sentence(outcome.plan);
}

std::string plan_text(const Outcome& outcome) {
    const Plan& plan = outcome.plan;
    std::vector<std::vector<std::string>> rows;
    for (const Target& target : plan.targets) {
        rows.push_back({target.image.file, human_bytes(target.size), target.partition(),
                        target.is_installed ? "already installed" : "would be written"});
    }
    std::string text = "would install " + plan.description.version + " over " +
                       (plan.installed_version.empty() ? "an unknown version" : plan.installed_version) + "\n" +
                       table({"image", "size", "partition", ""}, rows);
    if (outcome.needed && plan.switches) {
        text += "slot " + slot_letter(*plan.slot) + " would boot next\n";
    }
    return text + (outcome.needed ? "nothing was written" : "nothing to do");
}

/** Repairs records that a power cut made unwritable. @return whether any was repaired */
bool repair_records(const Options& options) {
    bool repaired = false;
    for (const char* name : {ota_misc_partition, ota_ubootenv_partition}) {
        if (repair_device(partition_path(name))) {
            repaired = true;
            remark(options, std::string(name) + " could not be read after a power cut; its readable part was kept");
        }
    }
    return repaired;
}

/** Throws Failure unless the target is free, or holds its image already. A dry run claims no devices. */
void claim_target(Plan& plan, Target& target, ImageSource& source, const Options& options, Progress& progress) {
    try {
        Descriptor claim = claim_device(*target.opened, target.device, target.partition());
        if (!options.dry_run) {
            plan.claims.push_back(std::move(claim));
        }
    } catch (const Failure& failure) {
        if (options.force || options.dry_run || source.is_read_once(target.image) || failure.code != ExitCode::failed) {
            throw;
        }
        survey(target, source, progress);
        if (!target.is_installed) {
            throw;
        }
    }
}

/** Without a survey every image counts as one to write, so only a refusal or a dry run needs to know more. */
void check_slots(Plan& plan, ImageSource& source, const Options& options, Progress& progress) {
    if (!options.force && (options.dry_run || find_slot_problem(plan))) {
        survey(plan, source, options.dry_run, progress);
    }
    if (const auto problem = find_slot_problem(plan)) {
        throw Failure(*problem);
    }
}

void check_plan(Plan& plan, ImageSource& source, const Options& options, Progress& progress) {
    add_targets(plan, source, options);
    check_record(plan);
    announce(plan, options, progress);
    source.hold_images(progress);
    check_slots(plan, source, options, progress);
    for (Target& target : plan.targets) {
        if (!target.is_installed) {
            claim_target(plan, target, source, options, progress);
        }
    }
    check_images(plan, source, progress);
    stop_if_interrupted();
    progress.begin("check", "versions");
    plan.versions = check_versions(source, plan.description);
}

/** Checks everything, in the order in which it can be trusted. */
Plan make_checked_plan(ImageSource& source, const Options& options, Progress& progress) {
    Plan plan = begin_plan(source, options);
    remark_on(plan, options);
    const bool repaired = !options.dry_run && repair_records(options);
    try {
        check_plan(plan, source, options, progress);
    } catch (Failure& failure) {
        if (repaired && failure.state.empty()) {
            failure.state = "no image was written; unreadable records were repaired";
        }
        throw;
    }
    return plan;
}

/** For a dry run that compares nothing: what comes from a pipe is checked all the same. */
void read_through(const Plan& plan, ImageSource& source, Progress& progress) {
    for (const Target& target : plan.targets) {
        const Image& image = target.image;
        if (source.is_read_once(image) &&
            !image.matches(digest_image(*source.open(image), image, image.strongest_digest(), progress))) {
            throw wrong_digest(image);
        }
    }
}

/** Either a package, with its images, or a pipe. */
struct Source {
    std::optional<Package> package;
    std::unique_ptr<ImageSource> images;
};

void open_source(Source& source, const std::string& file) {
    if (file == standard_input) {
        source.images = std::make_unique<PackagePipe>(STDIN_FILENO);
    } else {
        source.images = std::make_unique<FileImages>(source.package.emplace(file));
    }
}

void refuse_terminal(const std::string& file) {
    if (file == standard_input && isatty(STDIN_FILENO) != 0) {
        throw Failure(ExitCode::usage, "standard input is a terminal and not a package",
                      "curl -sSf URL | tessera install -");
    }
}

void install(Context& context, const Options& options) {
    refuse_terminal(options.package);
    const auto start = std::chrono::steady_clock::now();
    std::optional<UpdateLock> lock;
    if (!options.dry_run) {
        lock.emplace(options.lock_file, "tessera install " + options.package);
    }
    Source opened;
    open_source(opened, options.package);
    ImageSource& source = *opened.images;
    Progress progress(options.quiet ? ProgressMode::none : options.progress.value_or(default_progress_mode()));
    Plan plan = make_checked_plan(source, options, progress);
    if (options.dry_run) {
        if (options.force) {
            read_through(plan, source, progress);
        }
        source.finish();
    }
    const bool is_unknown = !plan.record_is_valid && can_keep_status();
    const bool may_be_half_written = is_unknown && is_given_up(plan);
    const bool needed = options.dry_run ? !is_done(plan) : carry_out(plan, source, progress);
    for (Target& target : plan.targets) {
        target.written = options.dry_run && !target.is_installed ? target.size : target.written;
    }
    if (may_be_half_written || (is_unknown && !needed)) {
        remark(options, "the update status is not valid: whether another installation was interrupted is unknown");
    }
    progress.finish();
    if (plan.slot && plan.slot == plan.running) { /* only where the other slot is confirmed and this one is not */
        remark(options, "slot " + slot_letter(*plan.slot) + " is on trial until tessera confirm keeps it");
    }
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    const Outcome outcome{plan, needed, spent.count()};
    if (options.dry_run) {
        context.show(to_json(outcome, true), plan_text(outcome));
    } else {
        context.show_change(to_json(outcome, false), summary(outcome));
    }
}

void install_or_report_untouched(Context& context, const Options& options) {
    watch_interrupts();
    try {
        install(context, options);
    } catch (Failure& failure) {
        if (failure.state.empty()) { /* code that writes sets its own state */
            failure.state = untouched;
        }
        throw;
    }
}

const std::map<std::string, ProgressMode> progress_modes = {
    {"bar", ProgressMode::bar}, {"plain", ProgressMode::plain}, {"json", ProgressMode::json}};

void choose_progress(Options& options, const std::string& mode) {
    options.progress = progress_modes.at(mode);
    if (options.progress == ProgressMode::json) {
        console::speak_json();
    }
}

} // namespace

void declare_install(Command& verb, Context& context) {
    auto options = std::make_shared<Options>();
    add_word(verb, "PACKAGE", options->package, "Package (zip file); - reads it from standard input");
    add_trust(verb, options->trust);
    add_board(verb, options->board);
    add_flag(verb, "--allow-downgrade", options->allow_downgrade, "Install a version older than the installed one");
    add_flag(verb, "--dry-run", options->dry_run, "Check everything and report what would happen; change nothing");
    add_flag(verb, "--force", options->force, "Rewrite images that are already installed");
    add_flag(verb, "-q,--quiet", options->quiet, "Print no progress and no notes");
    const auto choose = [options](const std::string& mode) { choose_progress(*options, mode); };
    add_choice(verb, "--progress", "MODE", {"bar", "plain", "json"}, choose,
               "How to report progress on stderr: bar, plain or json");
    const Option* version =
        add_text(verb, "--version-file", "FILE", options->version_file, "File that contains the installed version");
    add_lock(verb, options->lock_file);
    on_command(verb, context, [&context, options, version] {
        options->version_file_named = is_given(version);
        install_or_report_untouched(context, *options);
    });
}
