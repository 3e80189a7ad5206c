/**
 * What a power cut in the middle of a write leaves on a UBI volume: a LEB of which one page can no longer
 * be read. The library reads every LEB whole before it changes it, so it can never write there again.
 */
#ifndef TOOL_SALVAGE_H
#define TOOL_SALVAGE_H

#include <string>

/**
 * Writes every LEB of a volume that cannot be read whole anew: what can be read of it stays, the rest is
 * as erased. Any other device, and a volume that can be read, is left alone.
 * @return whether anything had to be written
 */
bool salvage(const std::string& path);

#endif
