// SPDX-License-Identifier: Apache-2.0
/** The simulation in a process: its devices, its fault script and its journal. */
#ifndef FLASH_SIMULATION_H
#define FLASH_SIMULATION_H

#include "flash_device.h"
#include "flash_script.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <sys/stat.h>
#include <vector>

/** The power of a board: one for all its programs, which map the same file (flash_sim.h). */
struct board_power {
    std::atomic<uint64_t> operations = 0; /* that reached a device */
    std::atomic<uint64_t> kills = 0;      /* 1: the power has failed and ends every program that reaches a device */
};
static_assert(sizeof(board_power) == 16 && std::atomic<uint64_t>::is_always_lock_free);

class simulation {
public:
    void add(const std::string& line);
    void clear();
    void load(flash_script script);
    void reboot();
    void journal_to(FILE* file);
    void share_power(const char* path);
    void sync();
    uint64_t operations();
    const char* journal();

    /** The device whose backing file this is; null if it is not one. */
    named_device* find(const struct stat& status);

    /**
     * Carries out an operation, unless the script decides otherwise.
     * @param work  takes the maximum number of bytes to move; returns the result of the system call
     */
    template <class Work>
    long perform(const named_device& named, const flash_operation& operation, Work work) {
        const std::lock_guard lock(mutex_);
        const flash_verdict verdict = script_.decide(operation, power_->operations);
        if (verdict.refused) {
            end_without_power();
            return -EIO;
        }
        if (verdict.signal != 0) {
            (void)std::raise(verdict.signal);
        }
        named.device->set_tear(verdict.tear);
        long result = verdict.result ? *verdict.result : work(std::min(operation.length, verdict.limit));
        named.device->set_tear(std::nullopt);
        if (verdict.tear) {
            result = -EIO;
        }
        note(journal_line(named.name, operation, result));
        if (verdict.is_last) {
            lose_power();
        }
        return result;
    }

private:
    void start(flash_script script);
    void lose_power();
    void end_without_power() const;
    void note(const std::string& line);

    std::mutex mutex_;
    std::atomic<bool> in_use_ = false;
    std::vector<named_device> devices_;
    flash_script script_;
    std::string journal_;
    std::string journal_shown_;
    FILE* journal_file_ = nullptr;
    board_power own_power_;
    board_power* power_ = &own_power_;
    int stderr_ = -1; /* a duplicate of the original: the program may redirect its own */
};

/* Null until the setup is complete: calls from other libraries' constructors, and from the setup itself, find
 * no devices. Never freed: a program may use its devices until it ends. */
extern std::atomic<simulation*> running_simulation;

#endif
