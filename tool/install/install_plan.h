/** What an installation is going to do, judged as a whole before anything is written. */
#ifndef TOOL_INSTALL_PLAN_H
#define TOOL_INSTALL_PLAN_H

#include "board/device.h"
#include "console/progress.h"
#include "install/update_lock.h"
#include "package/package_check.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct InstallOptions {
    std::string package;
    TrustOptions trust;
    std::string board; /* in place of the board's own names; empty: its own */
    std::string lock_file = default_lock_file;
    std::string version_file = "/usr/velox/version";
    bool version_file_named = false; /* by the user, who expects it to be there */
    bool allow_downgrade = false;
    bool dry_run = false;
    bool force = false;
};

/** An image and where it goes. */
struct Target {
    Image image;
    uint64_t size;                             /* bytes of the image */
    std::string device;                        /* path */
    bool read_first;                           /* its digest is compared before anything is done with it */
    bool stands = false;                       /* the device holds the image already */
    std::unique_ptr<const Device> opened = {}; /* once for all that is read of it; the library writes by the path */

    /** "system_b", or the plain name of a partition that exists once */
    [[nodiscard]] std::string partition() const;
};

struct Plan {
    Description description;
    std::string signer;             /* empty when no trust was asked for */
    std::string installed_version;  /* empty when the board does not tell */
    std::vector<Target> targets;    /* those of the slot first: what has no second copy is written last */
    bool record_is_valid = true;    /* the update status tells whether an installation was cut */
    std::optional<int32_t> slot;    /* the update slot, when an image goes to a slot */
    std::optional<int32_t> running; /* known whenever `slot` is, but in recovery mode no slot's system runs */
    bool switches = false;          /* the slot is made the next one in the end */
    std::vector<Descriptor> claims; /* keep others off the targets for as long as they are open */

    std::optional<antirollback_ver_t> versions; /* of the package, for burning the fuses later; may have none */

    /** Whether an image of this kind has to be written. */
    [[nodiscard]] bool writes(bool ab) const;
};

/** Judges the package by itself and its version, without reading images whole. Throws Failure. */
Plan begin_plan(const Package& package, const InstallOptions& options);

/** Finds where each image goes; refuses what does not fit there, and a slot block of which nothing is known. */
void add_targets(Plan& plan, const Package& package, const InstallOptions& options);

/** Announces all work that the plan may take, so that the share done never falls. */
void announce(const Plan& plan, const InstallOptions& options, Progress& progress);

/** Finds out which images their devices hold already. */
void survey(Plan& plan, const Package& package, Progress& progress);

/**
 * Reads the images that must not be believed before: for partitions that exist once, where a damaged one
 * would cost the only copy, and those whose versions are stored. Where nothing will be written, all.
 */
void check_images(const Plan& plan, const Package& package, Progress& progress);

/** A partition that the record of an installation lists and the plan has no image for; empty without one. */
std::string left_behind(const Plan& plan, const ota_status_t& record);

/**
 * Refuses to go on where another package was cut in partitions that this one does not have: what stands in
 * them is unknown, and the record would no longer tell.
 */
void judge_record(Plan& plan);

/** Whether the board already is where the package would bring it. */
bool is_done(const Plan& plan);

/**
 * Refuses to write the slot or to switch to it while the other one is not confirmed: after a power cut that
 * loses the slot block a half-written slot could boot, or the last system known to be good would be written.
 */
void judge_slots(const Plan& plan);

#endif
