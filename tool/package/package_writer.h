// SPDX-License-Identifier: Apache-2.0
/** Writes a zip package. The file appears under its name only when it is whole. */
#ifndef TOOL_PACKAGE_WRITER_H
#define TOOL_PACKAGE_WRITER_H

#include <cstdint>
#include <minizip/zip.h>
#include <span>
#include <string>

class PackageWriter {
public:
    explicit PackageWriter(std::string path);
    PackageWriter(const PackageWriter&) = delete;
    PackageWriter& operator=(const PackageWriter&) = delete;
    ~PackageWriter();

    void begin_entry(const std::string& name);
    void add(std::span<const uint8_t> bytes);
    void end_entry();
    /** Makes the package whole and gives it its name. */
    void finish();

private:
    void demand(int result) const;

    std::string path_;
    std::string unfinished_;
    zipFile zip_;
};

#endif
