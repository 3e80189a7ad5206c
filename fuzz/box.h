// SPDX-License-Identifier: Apache-2.0
/** A private directory for a target, with the input in a file. */
#pragma once

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

inline void must(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/** Writes the input to a file in the box, which is the working directory. No file can exceed 1 MiB. */
inline std::string put_input(const uint8_t* data, size_t size) {
    static const fs::path path = [] {
        std::string box = fs::temp_directory_path() / "fuzz.XXXXXX";
        must(mkdtemp(box.data()) != nullptr && chdir(box.c_str()) == 0);
        const rlimit limit{1 << 20, 1 << 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN);
        return box + "/input";
    }();
    must(fs::current_path() == path.parent_path());
    std::ofstream(path, std::ios::binary) << std::string_view(reinterpret_cast<const char*>(data), size);
    return path;
}
