/**
 * What a power cut in the middle of a write leaves on a UBI volume: a LEB with a page that can no longer be read.
 * Saving to it needs the rest of the LEB, which is read first, so that every later save fails too.
 */
#ifndef UBI_REPAIR_H
#define UBI_REPAIR_H

#include "medium_result.h"

/**
 * Rewrites every LEB of a volume that cannot be read whole: what can be read of it stays, the rest is as erased.
 * A volume that can be read, and whatever is not a volume or cannot be opened for writing, is left alone.
 * @param repaired  out: whether a LEB was rewritten
 * @return fails at `memory` with nothing changed, or with the number of the LEB at `prepare`, or at `erase` or
 *         `write`: the contents of that LEB are then undefined
 */
medium_result ubi_repair(const char* path, bool* repaired);

#endif
