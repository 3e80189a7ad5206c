// SPDX-License-Identifier: Apache-2.0
/**
 * A package that is read from a pipe, from its first byte to its last, without a copy of it.
 *
 * Only the description and its signatures are known at first. So the description has to state the size of every image,
 * and the entries have to be in the order of `tessera pack`, with sizes in their local headers. The directory at the
 * end has to list exactly these entries.
 *
 * Images that are checked as a whole before anything is written come first and are held in memory. Of every other
 * image, only the block map is held.
 */
#ifndef TOOL_PACKAGE_PIPE_H
#define TOOL_PACKAGE_PIPE_H

#include "board/device.h"
#include "package/image_source.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/** All images together that are held in memory. */
inline constexpr uint64_t piped_hold_limit = uint64_t{64} << 20;

/** The largest block map: that of an image of 15.87 GiB. */
inline constexpr uint64_t piped_map_limit = uint64_t{64} << 20;

class PipeSource : public ByteSource {
public:
    explicit PipeSource(int fd) : fd_(fd) {
    }
    /** All bytes that were requested. Throws Failure where the pipe ends before, and when interrupted. */
    size_t read(std::span<uint8_t> bytes) override;
    /** From any thread: whether a read() that waits for the pipe gives up. */
    void abandon(bool is_abandoned) {
        is_abandoned_ = is_abandoned;
    }
    /** Bytes read so far. */
    [[nodiscard]] uint64_t position() const {
        return position_;
    }
    /** Waits for the writer to close the pipe. @return false where it sends anything else */
    bool is_at_end();

private:
    size_t read_some(std::span<uint8_t> bytes);

    int fd_;
    uint64_t position_ = 0;
    std::atomic<bool> is_abandoned_ = false;
};

class PackagePipe : public ImageSource {
public:
    /** Reads the description and the signatures. @param fd  stays the caller's */
    explicit PackagePipe(int fd);

    [[nodiscard]] Description describe(const TrustOptions& trust, std::string& signer) const override;
    void check_contents(Description& description, bool is_signed) override;
    void hold_images(Progress& progress) override;
    std::unique_ptr<ImageReader> open(const Image& image) override;
    [[nodiscard]] bool is_read_once(const Image& image) const override;
    [[nodiscard]] const Package* file() const override {
        return nullptr;
    }
    [[nodiscard]] std::string path_of(const Image& image) const override;
    void finish() override;

private:
    /** A file in memory. */
    struct Held {
        Image image;
        Descriptor fd{-1};
        Entry entry{}; /* as if the file were stored in a package */
    };

    void read_header();
    void read_directory();
    void read_end();
    std::vector<uint8_t> read_bytes(size_t size);
    std::vector<uint8_t> take_entry(uint64_t limit);
    Entry expect_entry(const std::string& name);
    std::unique_ptr<ImageReader> open_next(const Image& image);
    void hold(Held& held);

    PipeSource source_;
    std::array<uint8_t, sizeof(zip_local_header)> head_{}; /* read last */
    std::optional<Entry> next_;                            /* its header has been read, but not its data */
    bool is_directory_ = false;                            /* its first bytes are in `head_` */
    uint64_t directory_offset_ = 0;
    std::vector<Entry> entries_; /* all so far */
    std::string description_;
    std::vector<std::string> signatures_;
    [[nodiscard]] const Held* find_held(const std::string& file) const;

    std::vector<Held> held_;   /* in the order of the package */
    std::vector<uint8_t> map_; /* of the image that is being read */
    bool is_finished_ = false;
};

#endif
