// SPDX-License-Identifier: Apache-2.0
/**
 * Carries out a plan. Invariants that leave a bootable system after a power cut at any moment:
 *
 *  1. The update slot is unbootable, and the medium holds that, before the first byte of it changes. Where nothing
 *     differs, nothing is written.
 *  2. The slot becomes the next one only after every image was read back from its device, and the
 *     device was synced.
 *  3. Of the running slot's entry in the slot block only the priority changes, by the switch.
 *  4. Images for the slot come first. A partition that exists once is written when they have all been
 *     read back, and only with an image that was read through before. A package from a pipe has been read to its end
 *     then.
 *  5. The package's anti-rollback versions are stored after every image was read back, and before the switch:
 *     they are never those of a package that is not on the board.
 *  6. The status record is "burn" before the first byte changes, and "normal" only at the end.
 */
#ifndef TOOL_INSTALL_H
#define TOOL_INSTALL_H

#include "install/install_plan.h"

/**
 * Throws Failure, whose state reports what the board boots now.
 * @param plan  the results of its targets are set
 * @return false if the board was already in the state that the plan leads to: then only the last steps of an earlier
 *         run were completed: syncing the switch, storing the versions, clearing the status
 */
bool carry_out(Plan& plan, ImageSource& source, Progress& progress);

#endif
