// SPDX-License-Identifier: Apache-2.0
/**
 * An update package. The file is opened once and stays open; the library is given a path that leads to
 * this open file, so the package cannot be replaced between check and use.
 *
 * The directory is read here and not by minizip, whose releases up to 1.2 do not know sizes past 4 GiB.
 */
#ifndef TOOL_PACKAGE_H
#define TOOL_PACKAGE_H

#include "board/device.h"
#include "package/entry_reader.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class Package {
public:
    explicit Package(const std::string& path);
    Package(const Package&) = delete;
    Package& operator=(const Package&) = delete;

    /** The path that leads to the open file, for the library. */
    [[nodiscard]] const std::string& path() const {
        return path_;
    }
    [[nodiscard]] const std::vector<Entry>& entries() const {
        return entries_;
    }
    [[nodiscard]] bool has(std::string_view name) const;
    /** The one entry of this name. Throws when there is none or more than one. */
    [[nodiscard]] const Entry& at(std::string_view name) const;

    /**
     * The packed data of an entry, from its byte `skipped` on. The package has to live as long as the source. Throws
     * when the entry's local header differs from the directory.
     */
    [[nodiscard]] std::unique_ptr<ByteSource> data_of(const Entry& entry, uint64_t skipped = 0) const;
    /** Reads an entry piece by piece. Throws when its data is damaged. @return false when `take` ended it */
    bool read(const Entry& entry, const std::function<bool(std::span<const uint8_t>)>& take) const;
    /** Reads a short entry. */
    [[nodiscard]] std::string text(std::string_view name, size_t limit) const;

private:
    struct Directory {
        uint64_t offset;
        uint64_t size;
        uint64_t entries;
    };
    struct WideEnd {
        uint64_t offset;
        zip64_end record;
    };
    void read_at(uint64_t offset, std::span<uint8_t> bytes) const;
    [[nodiscard]] std::optional<WideEnd> follow_locator(std::span<const uint8_t> tail, size_t at) const;
    [[nodiscard]] std::optional<WideEnd> find_wide_end(std::span<const uint8_t> tail, size_t end) const;
    [[nodiscard]] Directory find_directory(const std::string& path);
    void list_entries(const Directory& directory);

    Descriptor fd_;
    std::string path_;
    uint64_t file_size_;
    uint64_t base_ = 0; /* bytes before the zip file, which its offsets do not count */
    std::vector<Entry> entries_;
};

#endif
