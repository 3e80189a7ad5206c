// SPDX-License-Identifier: Apache-2.0
/**
 * Repairs what a power cut during a write leaves on a UBI volume: a LEB with a page that can no longer be read. A
 * save reads the rest of the LEB first, so every later save to it would fail too.
 */
#ifndef UBI_REPAIR_H
#define UBI_REPAIR_H

#include "medium_result.h"

/**
 * Rewrites every LEB of a volume that cannot be read completely: what can be read is kept, the rest is as erased.
 * A readable volume, and anything that is not a volume or cannot be opened for writing, is left alone.
 * @param repaired  out: whether a LEB was rewritten
 * @return fails at `memory` with nothing changed, or with the number of the LEB at `prepare`, or at `erase` or
 *         `write`: the contents of that LEB are then undefined
 */
medium_result ubi_repair(const char* path, bool* repaired);

#endif
