// SPDX-License-Identifier: Apache-2.0
/** The plan of an installation, checked as a whole before anything is written. */
#ifndef TOOL_INSTALL_PLAN_H
#define TOOL_INSTALL_PLAN_H

#include "board/device.h"
#include "console/progress.h"
#include "install/update_lock.h"
#include "package/image_source.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct InstallOptions {
    std::string package; /* "-": standard input */
    TrustOptions trust;
    std::string board; /* replaces the board's own names; empty: keep them */
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
    bool read_first;                           /* its digest is compared before anything is written */
    bool is_installed = false;                 /* the device holds the image already, as far as is known */
    uint64_t written = 0;                      /* bytes of the device, by this installation */
    std::unique_ptr<const Device> opened = {}; /* to check, compare and sync; writing and reading back open `device` */

    /** "system_b", or the plain name of a partition that exists once */
    [[nodiscard]] std::string partition() const;
};

struct Plan {
    Description description;
    std::string signer;             /* empty if no trust was requested */
    std::string installed_version;  /* empty if unknown */
    std::vector<Target> targets;    /* those of the slot first: what has no second copy is written last */
    bool record_is_valid = true;    /* the update status shows whether an installation was interrupted */
    std::optional<int32_t> slot;    /* the update slot, when an image goes to a slot */
    std::optional<int32_t> running; /* nullopt without an update slot and in recovery mode */
    bool rewrites = false;          /* what is already installed is written again */
    bool switches = false;          /* the slot is made the next one in the end */
    std::vector<Descriptor> claims; /* keep others off the targets for as long as they are open */

    std::optional<antirollback_ver_t> versions; /* of the package, for burning the fuses later; may have none */

    /** Whether an image of this kind has to be written, or may have to be. */
    [[nodiscard]] bool writes(bool ab) const;
};

/** Checks the package and its version without reading whole images. Throws Failure. */
Plan begin_plan(ImageSource& source, const InstallOptions& options);

/** Determines the target of each image; refuses images that do not fit, and an invalid slot block. */
void add_targets(Plan& plan, const ImageSource& source, const InstallOptions& options);

/** Announces the work that the plan needs. */
void announce(const Plan& plan, const InstallOptions& options, Progress& progress);

/**
 * Determines which images are already installed, where that has to be known before anything is written.
 * @param all  false: the images after the first that is not are not looked at
 */
void survey(Plan& plan, ImageSource& source, bool all, Progress& progress);

/** The same for one image. */
void survey(Target& target, ImageSource& source, Progress& progress);

/**
 * Verifies the images that must be checked before use: those for partitions that exist once, where a damaged one
 * would cost the only copy, and those whose versions are stored. Where nothing will be written, all.
 */
void check_images(const Plan& plan, ImageSource& source, Progress& progress);

/** A partition that the record of an installation lists but the plan has no image for; empty if none. */
std::string unfinished_partition(const Plan& plan, const ota_status_t& record);

/**
 * Refuses to continue if another package was interrupted in partitions that this one lacks: their contents
 * are unknown, and the record would no longer show that.
 */
void check_record(Plan& plan);

/** Whether the board is already in the state that the plan leads to. */
bool is_done(const Plan& plan);

/**
 * Why the plan must not be carried out; nullopt if it may, or is already done. It must not if the other slot is not
 * confirmed: after a power cut that loses the slot block a half-written slot could boot, or the last system known to
 * be good would be overwritten.
 */
std::optional<Failure> find_slot_problem(const Plan& plan);

#endif
