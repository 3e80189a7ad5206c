/** The lock that lets only one update run at a time. */
#ifndef TOOL_UPDATE_LOCK_H
#define TOOL_UPDATE_LOCK_H

#include <string>

constexpr char default_lock_file[] = "/tmp/tessera.lock";

class UpdateLock {
public:
    /**
     * Takes the lock or throws Failure that names its holder.
     * @param holder  written into the lock file, for whom finds it taken
     */
    UpdateLock(std::string file, const std::string& holder);
    ~UpdateLock();
    UpdateLock(const UpdateLock&) = delete;
    UpdateLock& operator=(const UpdateLock&) = delete;

private:
    std::string file_;
};

#endif
