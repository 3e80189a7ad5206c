// SPDX-License-Identifier: Apache-2.0
/** The lock that allows only one command at a time to change what updates rely on. */
#ifndef TOOL_UPDATE_LOCK_H
#define TOOL_UPDATE_LOCK_H

#include "board/device.h"

#include <chrono>
#include <string>

constexpr char default_lock_file[] = "/run/tessera.lock";

/** Throws Failure that names what is wrong with the file, if there is one of that name. Opens and creates nothing. */
void check_lock_file(const std::string& file);

/**
 * An advisory lock (flock, exclusive) on a regular file that only root, or the caller where it is not
 * root, can write to. It excludes callers of get_file_lock() on the same file too.
 */
class UpdateLock {
public:
    /**
     * Takes the lock. After that signals only request termination; while waiting they end the command.
     * Throws Failure that names the lock's holder, or what is wrong with the file: that is neither followed,
     * where it is a link, nor waited for, where it is a FIFO.
     * @param file      created with mode 0600 where it is missing
     * @param holder    written into the file, for a command that finds it locked
     * @param patience  longest time to wait for another holder
     */
    UpdateLock(std::string file, const std::string& holder, std::chrono::seconds patience = {});
    ~UpdateLock();
    UpdateLock(const UpdateLock&) = delete;
    UpdateLock& operator=(const UpdateLock&) = delete;

private:
    bool take();

    std::string file_;
    Descriptor fd_{-1};
};

#endif
