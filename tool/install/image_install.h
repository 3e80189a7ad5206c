// SPDX-License-Identifier: Apache-2.0
/** One image on its way from the package to its device and back. */
#ifndef TOOL_IMAGE_INSTALL_H
#define TOOL_IMAGE_INSTALL_H

#include "install/install_plan.h"

#include <functional>

/**
 * Writes what differs, syncs the device, and checks the digest of all that the device then returns. Everything goes on
 * at once: frames are unpacked by threads, and what has been written is read back while later frames are written.
 * Throws Failure; the contents of the partition are unknown then, if `before_write` has been called.
 * @param target        its results are set
 * @param compares      false: everything is written
 * @param before_write  called once, before the first byte changes; may throw. Not called where nothing differs
 */
void install_image(Target& target, ImageSource& source, bool compares, const std::function<void()>& before_write,
                   Progress& progress);

/**
 * Whether the device holds the image; it is only read, up to the first difference. A device that cannot be read does
 * not. Throws Failure where the package is damaged. An image that can be read only once is read to its end. Progress is
 * of the kind "compare".
 */
bool holds_image(const Target& target, ImageSource& source, Progress& progress);

#endif
