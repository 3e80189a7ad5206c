// SPDX-License-Identifier: Apache-2.0
/** Writes a zip package. The file appears under its name only when it is whole. */
#ifndef TOOL_PACKAGE_WRITER_H
#define TOOL_PACKAGE_WRITER_H

#include "board/device.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/** What the header of an entry states before its data, so that the package can be read from a pipe. */
struct PackedData {
    uint16_t method;
    uint32_t crc;
    uint64_t size;        /* unpacked bytes */
    uint64_t packed_size; /* bytes that follow the header */
};

class PackageWriter {
public:
    explicit PackageWriter(std::string path);
    PackageWriter(const PackageWriter&) = delete;
    PackageWriter& operator=(const PackageWriter&) = delete;
    ~PackageWriter();

    /** Writes the header of an entry; its `packed_size` bytes follow by add(). */
    void begin_entry(const std::string& name, const PackedData& data);
    void add(std::span<const uint8_t> bytes);
    /** Makes the package whole and gives it its name. */
    void finish();

private:
    void write_directory();

    std::string path_;
    std::string unfinished_;
    Descriptor fd_;
    uint64_t size_ = 0; /* bytes written */
    uint64_t entries_ = 0;
    std::vector<uint8_t> directory_; /* of the entries so far */
};

#endif
