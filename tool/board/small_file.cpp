// SPDX-License-Identifier: Apache-2.0
#include "board/small_file.h"

#include "board/device.h"
#include "console/failure.h"
#include "console/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t piece_size = size_t{64} << 10;

} // namespace

std::string read_small_file(const std::string& path, size_t limit) {
    const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        throw Failure(ExitCode::failed, "cannot open " + path + because(errno));
    }
    std::string bytes;
    for (ssize_t got = 1; got > 0;) {
        const size_t before = bytes.size();
        bytes.resize(before + std::min(piece_size, limit + 1 - before));
        got = read(fd.get(), bytes.data() + before, bytes.size() - before);
        if (got < 0) {
            throw Failure(ExitCode::failed, "cannot read " + path + because(errno));
        }
        bytes.resize(before + static_cast<size_t>(got));
        if (bytes.size() > limit) {
            throw Failure(ExitCode::failed, path + " is larger than " + human_bytes(limit));
        }
    }
    return bytes;
}

void write_all(int fd, std::span<const uint8_t> bytes, const std::string& sentence) {
    while (!bytes.empty()) {
        const ssize_t done = write(fd, bytes.data(), bytes.size());
        if (done < 0 && errno != EINTR) {
            throw Failure(ExitCode::failed, sentence + because(errno));
        }
        bytes = bytes.subspan(static_cast<size_t>(std::max<ssize_t>(done, 0)));
    }
}
