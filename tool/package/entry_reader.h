// SPDX-License-Identifier: Apache-2.0
/** Reads one entry of a package from its first byte to its last. */
#ifndef TOOL_ENTRY_READER_H
#define TOOL_ENTRY_READER_H

#include "console/failure.h"
#include "format/zip_entry.h"
#include "format/zip_file.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>
#include <zlib.h>

struct Entry {
    std::string name;
    zip_kind kind;
    uint64_t size; /* unpacked bytes */
    uint64_t packed_size;
    uint64_t position; /* of its local header, as the directory states it */
    uint16_t method;
    uint16_t flags;
    uint32_t crc;
    uint32_t mode; /* Unix permissions; 0 if the packer stored none */
    uint16_t time; /* as in the file */
    uint16_t date;

    [[nodiscard]] bool is_image() const;
};

/** Bytes that are read once, in order. */
class ByteSource {
public:
    ByteSource() = default;
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;
    virtual ~ByteSource() = default;
    /** @return bytes read, fewer than requested only where the source ends. Throws Failure when it cannot be read. */
    virtual size_t read(std::span<uint8_t> bytes) = 0;
};

/** A file from an offset on, whose descriptor stays the caller's. */
class FileSource : public ByteSource {
public:
    /** @param name  of the file, for messages */
    FileSource(int fd, uint64_t offset, std::string name = "the package")
        : fd_(fd), offset_(offset), name_(std::move(name)) {
    }
    size_t read(std::span<uint8_t> bytes) override;

private:
    int fd_;
    uint64_t offset_;
    std::string name_;
};

/** Bytes in memory, which stay the caller's. */
class MemorySource : public ByteSource {
public:
    explicit MemorySource(std::span<const uint8_t> bytes) : bytes_(bytes) {
    }
    size_t read(std::span<uint8_t> bytes) override;

private:
    std::span<const uint8_t> bytes_;
};

/**
 * Unpacks an entry and checks its length and its checksum. The entry and the source have to live as long as the reader.
 */
class EntryReader {
public:
    /** @param source  begins at the entry's data. Throws Failure for a method that is not supported. */
    EntryReader(const Entry& entry, ByteSource& source);

    /**
     * @return bytes unpacked: all that were requested, fewer only at the end of the entry. Everything has been checked
     *         when the last byte of the entry is returned. Throws Failure where the entry is damaged.
     */
    size_t read(std::span<uint8_t> bytes);
    /** Whether the last byte has been returned. */
    [[nodiscard]] bool is_done() const {
        return left_ == 0;
    }

private:
    struct Inflater {
        z_stream stream{};
        Inflater();
        Inflater(const Inflater&) = delete;
        Inflater& operator=(const Inflater&) = delete;
        ~Inflater();
    };
    [[nodiscard]] size_t refill();
    void unpack(std::span<uint8_t> bytes);
    void check_end();

    const Entry& entry_;
    ByteSource& source_;
    std::unique_ptr<Inflater> inflater_; /* null for a stored entry */
    std::vector<uint8_t> input_;
    uint64_t packed_left_; /* that the source still has */
    uint64_t left_;        /* that is not unpacked yet */
    uint32_t crc_ = 0;
    bool has_ended_ = false; /* the deflate stream */
};

/** Whether a local header, with the name and the extra field after it, agrees with the entry of the directory. */
bool is_header_of(const zip_local_header& header, std::span<const uint8_t> rest, const Entry& entry);

/** The cause continues the sentence that begins with the entry's name. */
Failure damaged_entry(const Entry& entry, const std::string& cause);

#endif
