#include "device.h"

#include "device_request.h"
#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Descriptor::~Descriptor() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

Device::Device(const std::string& path) : path_(path), fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_.get() < 0) {
        throw Failure(ExitCode::device, "cannot open " + path_ + because(errno));
    }
    identify();
}

/** Asks the requests first: they tell what a node is whatever its type in the file system. */
void Device::identify() {
    mtd_geometry mtd{};
    if (mtd_get_geometry(fd_.get(), &mtd) == 0 && mtd.erase_size > 0) {
        kind_ = DeviceKind::mtd;
        size_ = mtd.size;
        block_size_ = mtd.erase_size;
        demand_size();
        find_good_blocks();
        return;
    }
    ubi_geometry volume{};
    if (ubi_get_geometry(fd_.get(), &volume) == 0) {
        kind_ = DeviceKind::ubi;
        size_ = static_cast<uint64_t>(std::max<int64_t>(0, volume.used_size));
        demand_size();
        return;
    }
    struct stat status {};
    if (fstat(fd_.get(), &status) != 0) {
        throw Failure(ExitCode::device, "cannot look at " + path_ + because(errno));
    }
    if (S_ISREG(status.st_mode)) {
        size_ = static_cast<uint64_t>(status.st_size);
        return;
    }
    kind_ = DeviceKind::block;
    if (!S_ISBLK(status.st_mode) || block_get_size(fd_.get(), &size_) != 0) {
        size_ = 0;
    }
    demand_size();
}

/** A device without a size would be equal to every other one, because nothing is read of it. */
void Device::demand_size() const {
    if (size_ == 0) {
        throw Failure(ExitCode::device, path_ + " tells no size");
    }
}

void Device::find_good_blocks() {
    for (uint64_t start = 0; start + block_size_ <= size_; start += block_size_) {
        if (mtd_get_bad_block(fd_.get(), start) == 0) {
            good_blocks_.push_back(start);
        }
    }
}

uint64_t Device::capacity() const {
    return kind_ == DeviceKind::mtd ? good_blocks_.size() * block_size_ : size_;
}

bool Device::is_straight(uint64_t end) const {
    if (kind_ != DeviceKind::mtd) {
        return true;
    }
    const uint64_t blocks = (end + block_size_ - 1) / block_size_;
    return blocks <= good_blocks_.size() && (blocks == 0 || good_blocks_[blocks - 1] == (blocks - 1) * block_size_);
}

void Device::read_raw(uint64_t offset, std::span<uint8_t> bytes) const {
    while (!bytes.empty()) {
        const ssize_t got = pread(fd_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throw Failure(ExitCode::device, "cannot read " + path_ +
                                                format(" at byte %llu", static_cast<unsigned long long>(offset)) +
                                                (got < 0 ? because(errno) : ": it ends there"));
        }
        offset += static_cast<uint64_t>(got);
        bytes = bytes.subspan(static_cast<size_t>(got));
    }
}

void Device::read(uint64_t offset, std::span<uint8_t> bytes) const {
    if (kind_ != DeviceKind::mtd) {
        read_raw(offset, bytes);
        return;
    }
    while (!bytes.empty()) {
        const uint64_t block = offset / block_size_;
        const uint64_t within = offset % block_size_;
        if (block >= good_blocks_.size()) {
            throw Failure(ExitCode::device, path_ + " has too few good blocks");
        }
        const size_t length = std::min<size_t>(bytes.size(), block_size_ - within);
        read_raw(good_blocks_[block] + within, bytes.first(length));
        offset += length;
        bytes = bytes.subspan(length);
    }
}

void Device::sync() const {
    /* MTD devices write through and refuse the request. */
    if (fsync(fd_.get()) != 0 && errno != EINVAL && errno != ENOTSUP) {
        throw Failure(ExitCode::device, "cannot sync " + path_ + because(errno));
    }
    (void)posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_DONTNEED);
}

int Device::push(uint64_t begin, uint64_t end) const {
    const auto from = static_cast<off64_t>(begin);
    const auto length = static_cast<off64_t>(end - begin);
    constexpr unsigned wait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    const bool is_taken = sync_file_range(fd_.get(), from, length, SYNC_FILE_RANGE_WRITE) == 0 &&
                          (begin == 0 || sync_file_range(fd_.get(), 0, from, wait) == 0);
    const bool is_refused = errno == ESPIPE || errno == EINVAL || errno == ENOSYS; /* the request itself */
    return is_taken || is_refused ? 0 : errno;
}

std::optional<uint32_t> Device::uncorrectable_reads() const {
    uint32_t failed = 0;
    if (kind_ != DeviceKind::mtd || mtd_get_failed_reads(fd_.get(), &failed) != 0) {
        return std::nullopt;
    }
    return failed;
}

bool Device::lost_reads_since(std::optional<uint32_t> before) const {
    const auto now = uncorrectable_reads();
    return before && now && *now > *before;
}
