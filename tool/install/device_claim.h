// SPDX-License-Identifier: Apache-2.0
/** Prevents an installation from writing devices that are in use. */
#ifndef TOOL_DEVICE_CLAIM_H
#define TOOL_DEVICE_CLAIM_H

#include "board/device.h"

#include <string>

/**
 * Throws Failure that names the user, and its mount point where it has one, of a device that is in use: a
 * block device that is mounted or held otherwise, an MTD device that is mounted or that UBI is attached to, a
 * UBI volume that is mounted or open for writing. Mount points in other namespaces are not visible.
 * @param device  open on `path`
 * @param name    of the partition, for messages
 * @return keeps a block device from being mounted while it is open; empty for other devices, whose drivers
 *         offer no such claim
 */
Descriptor claim_device(const Device& device, const std::string& path, const std::string& name);

#endif
