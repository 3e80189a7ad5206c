// SPDX-License-Identifier: Apache-2.0
#include "package/package_writer.h"

#include "board/device.h"
#include "console/failure.h"
#include "console/text.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int with_zip64_directory = 0; /* images of 4 GiB cannot be installed, so no entry needs it */

/** One date for all entries: equal images make equal packages. */
zip_fileinfo entry_info() {
    zip_fileinfo info{};
    info.tmz_date.tm_year = 1980;
    info.tmz_date.tm_mday = 1;
    info.external_fa = 0100644UL << 16;
    return info;
}

} // namespace

PackageWriter::PackageWriter(std::string path)
    : path_(std::move(path)), unfinished_(path_ + ".part"), zip_(zipOpen64(unfinished_.c_str(), APPEND_STATUS_CREATE)) {
    if (zip_ == nullptr) {
        throw Failure(ExitCode::failed, "cannot create " + unfinished_ + because(errno));
    }
}

PackageWriter::~PackageWriter() {
    if (zip_ != nullptr) {
        zipClose(zip_, nullptr);
        std::remove(unfinished_.c_str());
    }
}

void PackageWriter::demand(int result) const {
    if (result != ZIP_OK) {
        throw Failure(ExitCode::failed, "cannot write " + unfinished_ + because(errno));
    }
}

void PackageWriter::begin_entry(const std::string& name) {
    const zip_fileinfo info = entry_info();
    constexpr uint16_t made_by_unix = 3 << 8 | 20;
    demand(zipOpenNewFileInZip4_64(zip_, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                   Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY, nullptr, 0,
                                   made_by_unix, 0, with_zip64_directory));
}

void PackageWriter::add(std::span<const uint8_t> bytes) {
    demand(zipWriteInFileInZip(zip_, bytes.data(), static_cast<unsigned>(bytes.size())));
}

void PackageWriter::end_entry() {
    demand(zipCloseFileInZip(zip_));
}

void PackageWriter::finish() {
    const int result = zipClose(zip_, nullptr);
    zip_ = nullptr;
    const Descriptor fd(open(unfinished_.c_str(), O_RDONLY | O_CLOEXEC));
    if (result != ZIP_OK || fsync(fd.get()) != 0 || std::rename(unfinished_.c_str(), path_.c_str()) != 0) {
        const int error = errno;
        std::remove(unfinished_.c_str());
        throw Failure(ExitCode::failed, "cannot write " + path_ + because(error));
    }
}
