// SPDX-License-Identifier: Apache-2.0
/** A temporary directory. The library changes to it while unpacking; the destructor changes back and removes it. */
#ifndef TOOL_SCRATCH_H
#define TOOL_SCRATCH_H

#include "console/failure.h"
#include "console/text.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

class ScratchDirectory {
public:
    ScratchDirectory() : home_(std::filesystem::current_path()) {
        const char* parent = std::getenv("TMPDIR");
        path_ = std::string(parent != nullptr && *parent != '\0' ? parent : "/tmp") + "/tessera-XXXXXX";
        if (mkdtemp(path_.data()) == nullptr) {
            throw Failure(ExitCode::failed, "cannot create the temporary directory " + path_ + because(errno));
        }
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(home_, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] const std::string& path() const {
        return path_;
    }

private:
    std::filesystem::path home_;
    std::string path_;
};

#endif
