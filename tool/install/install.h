/**
 * Carries out a plan. What holds at every moment, so that a power cut leaves something whole to boot:
 *
 *  1. The update slot is unbootable, and the medium holds that, before the first byte of it changes.
 *  2. The slot becomes the next one only after every image was read back from its device, and the
 *     device holds it.
 *  3. The running slot's entry in the slot block is never changed but for its priority, by the switch.
 *  4. Images for the slot come first. A partition that exists once is written when they have all been
 *     read back, and only with an image that was read through before.
 *  5. The package's anti-rollback versions are stored after every image was read back, and before the switch:
 *     they are never those of a package that is not on the board.
 *  6. The status record says "burn" before the first byte changes, and "normal" only at the end.
 */
#ifndef TOOL_INSTALL_H
#define TOOL_INSTALL_H

#include "install/install_plan.h"

/**
 * Throws Failure, whose state says what the board boots now.
 * @param needed  false when the board already is where the plan leads: then only what an earlier run left
 *                unfinished behind its last image is ended, the syncing of the switch and the status
 */
void carry_out(const Plan& plan, bool needed, const Package& package, Progress& progress);

#endif
