/** The lock that lets only one command at a time change what an update relies on. */
#ifndef TOOL_UPDATE_LOCK_H
#define TOOL_UPDATE_LOCK_H

#include <chrono>
#include <string>

constexpr char default_lock_file[] = "/tmp/tessera.lock";

class UpdateLock {
public:
    /**
     * Takes the lock or throws Failure that names its holder. From then on signals only ask for the end.
     * @param holder    written into the lock file, for whom finds it taken
     * @param patience  how long to wait for another holder to let go
     */
    UpdateLock(std::string file, const std::string& holder, std::chrono::seconds patience = {});
    ~UpdateLock();
    UpdateLock(const UpdateLock&) = delete;
    UpdateLock& operator=(const UpdateLock&) = delete;

private:
    std::string file_;
};

#endif
