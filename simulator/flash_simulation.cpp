// SPDX-License-Identifier: Apache-2.0
#include "flash_simulation.h"

#include "flash_sim.h"

#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

constinit std::atomic<simulation*> running_simulation = nullptr;

void simulation::add(const std::string& line) {
    const std::lock_guard lock(mutex_);
    devices_.push_back(make_device(line));
    in_use_ = true;
}

void simulation::clear() {
    const std::lock_guard lock(mutex_);
    in_use_ = false;
    devices_.clear();
    start({});
}

void simulation::load(flash_script script) {
    const std::lock_guard lock(mutex_);
    start(std::move(script));
    if (script_.kills() && stderr_ < 0) {
        stderr_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    }
    end_without_power();
    if (script_.cuts_at_once()) {
        lose_power();
    }
}

void simulation::reboot() {
    const std::lock_guard lock(mutex_);
    lose_power();
    start({});
}

void simulation::journal_to(FILE* file) {
    journal_file_ = file;
}

void simulation::share_power(const char* path) {
    static mapped_file file(path, sizeof(board_power)); /* used until the program ends */
    power_ = reinterpret_cast<board_power*>(file.bytes().data());
}

void simulation::sync() {
    for (const named_device& named : devices_) {
        if (named.device->has_unsynced()) {
            (void)perform(named, {"fsync"}, [&](size_t /*limit*/) { return static_cast<long>(named.device->sync()); });
        }
    }
}

uint64_t simulation::operations() {
    return power_->operations;
}

const char* simulation::journal() {
    const std::lock_guard lock(mutex_);
    journal_shown_ = journal_;
    return journal_shown_.c_str();
}

named_device* simulation::find(const struct stat& status) {
    if (!in_use_ || !S_ISREG(status.st_mode)) {
        return nullptr;
    }
    const std::lock_guard lock(mutex_);
    for (named_device& named : devices_) {
        if (named.device->is(status.st_dev, status.st_ino)) {
            return &named;
        }
    }
    return nullptr;
}

void simulation::start(flash_script script) {
    script_ = std::move(script);
    own_power_.operations = 0;
    journal_.clear();
}

void simulation::lose_power() {
    for (const named_device& named : devices_) {
        named.device->lose_power(script_.seed());
    }
    if (script_.kills()) {
        (void)dprintf(stderr_, "flash simulator: the power fails %s operation %llu and ends the program\n",
                      script_.tears() ? "within" : "after", static_cast<unsigned long long>(power_->operations));
        power_->kills = 1;
        (void)std::raise(SIGKILL);
    }
}

/** A script of several programs goes on after one of them was killed: whatever it starts then ends too. */
void simulation::end_without_power() const {
    if (power_->kills != 0) {
        (void)std::raise(SIGKILL);
    }
}

void simulation::note(const std::string& line) {
    journal_ += line + '\n';
    if (journal_file_ != nullptr) {
        (void)std::fprintf(journal_file_, "%s\n", line.c_str());
        (void)std::fflush(journal_file_);
    }
}

namespace {

simulation& the_simulation() {
    static auto* const only = new simulation;
    running_simulation = only;
    return *only;
}

/** Runs a part of the setup. @return 0; -1 with the reason on stderr */
template <class Step>
int set_up(Step step) {
    try {
        step();
        return 0;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "flash simulator: %s\n", error.what());
        return -1;
    }
}

void register_all(const char* path) {
    FILE* const file = std::fopen(path, "re");
    if (file == nullptr) {
        throw std::runtime_error(std::string("cannot open ") + path);
    }
    char line[1024];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        const std::string text = std::string(line).substr(0, std::string(line).find_first_of("#\n"));
        if (text.find_first_not_of(" \t") != std::string::npos) {
            the_simulation().add(text);
        }
    }
    (void)std::fclose(file);
}

void set_up_from_environment() {
    const char* const conf = std::getenv("TESSERA_FLASH_CONF");
    const char* const fault = std::getenv("TESSERA_FLASH_FAULT");
    const char* const journal = std::getenv("TESSERA_FLASH_JOURNAL");
    const char* const power = std::getenv("TESSERA_FLASH_POWER");
    if (conf == nullptr) {
        return;
    }
    register_all(conf);
    if (journal != nullptr) {
        the_simulation().journal_to(std::fopen(journal, "ae"));
    }
    if (power != nullptr) {
        the_simulation().share_power(power);
    }
    if (fault != nullptr) {
        the_simulation().load(flash_script(fault));
    }
}

__attribute__((constructor)) void start_with_the_program() {
    if (set_up(set_up_from_environment) != 0) {
        _exit(126);
    }
}

} // namespace

extern "C" {

int flash_sim_register(const char* line) {
    return set_up([line] { the_simulation().add(line); });
}

void flash_sim_clear(void) {
    the_simulation().clear();
}

int flash_sim_fault(const char* script) {
    return set_up([script] { the_simulation().load(flash_script(script)); });
}

void flash_sim_reboot(void) {
    the_simulation().reboot();
}

unsigned long flash_sim_operations(void) {
    return the_simulation().operations();
}

const char* flash_sim_journal(void) {
    return the_simulation().journal();
}

} // extern "C"
