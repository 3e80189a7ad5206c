/**
 * Reading a partition's device in the order in which the library writes it. On MTD that order leaves
 * out bad blocks, so that byte n here is byte n of what was written.
 */
#ifndef TOOL_DEVICE_H
#define TOOL_DEVICE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

/** An open file descriptor, or -1. */
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {
    }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {
    }
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();
    [[nodiscard]] int get() const {
        return fd_;
    }

private:
    int fd_;
};

enum class DeviceKind { file, block, mtd, ubi };

class Device {
public:
    /** Opens the device for reading. Throws Failure where a device tells no size. */
    explicit Device(const std::string& path);

    [[nodiscard]] DeviceKind kind() const {
        return kind_;
    }
    [[nodiscard]] bool is_flash() const {
        return kind_ == DeviceKind::mtd || kind_ == DeviceKind::ubi;
    }
    /** Bytes that can be written: on MTD those of the good blocks. */
    [[nodiscard]] uint64_t capacity() const;
    /** Bytes from the first to the last, bad blocks included. */
    [[nodiscard]] uint64_t raw_size() const {
        return size_;
    }

    /** Whether no bad block lies in front of byte `end`, so that it does not matter who leaves them out. */
    [[nodiscard]] bool is_straight(uint64_t end) const;

    /** Reads the bytes at `offset`, all of them. */
    void read(uint64_t offset, std::span<uint8_t> bytes) const;
    /** The same without leaving out bad blocks. */
    void read_raw(uint64_t offset, std::span<uint8_t> bytes) const;

    /** Waits until the medium holds everything, and drops what the page cache has of it. */
    void sync() const;
    /**
     * Has the kernel begin to store the bytes up to `end`, and waits for those before `begin`.
     * @return 0, or the errno value of a device's error, which sync() will not tell once more
     */
    [[nodiscard]] int push(uint64_t begin, uint64_t end) const;

    /** Count of reads that the ECC could not mend so far; nothing where the device does not count. */
    [[nodiscard]] std::optional<uint32_t> uncorrectable_reads() const;
    /** Whether it counted such reads since it told `before`. */
    [[nodiscard]] bool lost_reads_since(std::optional<uint32_t> before) const;

private:
    void identify();
    void demand_size() const;
    void find_good_blocks();

    std::string path_;
    Descriptor fd_;
    DeviceKind kind_ = DeviceKind::file;
    uint64_t size_ = 0;
    uint64_t block_size_ = 0;           /* MTD only */
    std::vector<uint64_t> good_blocks_; /* MTD only: where each good block starts */
};

#endif
