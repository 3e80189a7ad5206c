/**
 * An update package. The file is opened once and stays open; the library is given a path that leads to
 * this open file, so the package cannot be replaced between check and use.
 */
#ifndef TOOL_PACKAGE_H
#define TOOL_PACKAGE_H

#include "board/device.h"
#include "format/zip_entry.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <minizip/unzip.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Entry {
    std::string name;
    zip_kind kind;
    uint64_t size; /* unpacked bytes, even if only the zip64 field has them */
    bool in_zip64; /* so it is with this entry */
    uint32_t crc;
    uint64_t packed_size;
    uint32_t mode; /* Unix permissions; 0 if the packer stored none */
    tm_unz date;
    unz64_file_pos position;

    [[nodiscard]] bool is_image() const;
};

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

    /** Reads an entry piece by piece. Throws when its data is damaged. @return false when `take` ended it */
    bool read(const Entry& entry, const std::function<bool(std::span<const uint8_t>)>& take) const;
    /** Reads a short entry. */
    [[nodiscard]] std::string text(std::string_view name, size_t limit) const;

private:
    struct Closer {
        void operator()(unzFile zip) const {
            unzClose(zip);
        }
    };
    void list_entries();
    [[nodiscard]] Entry current_entry() const;

    Descriptor fd_;
    std::string path_;
    std::unique_ptr<void, Closer> zip_;
    std::vector<Entry> entries_;
};

#endif
