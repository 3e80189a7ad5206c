// SPDX-License-Identifier: Apache-2.0
#include "package/package_writer.h"

#include "board/small_file.h"
#include "console/failure.h"
#include "console/text.h"
#include "format/zip_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr uint16_t version_plain = 20;
constexpr uint16_t version_zip64 = 45;
constexpr uint16_t made_by_unix = 3 << 8;
constexpr uint32_t regular_file = 0100644U << 16;
constexpr uint16_t first_date = 1 << 5 | 1; /* 1980-01-01 for all entries: equal images make equal packages */

void append(std::vector<uint8_t>& to, std::span<const uint8_t> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

/** The zip64 record with the values that do not fit a header; empty without any. */
std::vector<uint8_t> zip64_extra(std::initializer_list<uint64_t> values) {
    std::vector<uint8_t> extra;
    if (values.size() > 0) {
        append(extra, record_bytes(std::array<uint16_t, 2>{zip64_record,
                                                           static_cast<uint16_t>(values.size() * sizeof(uint64_t))}));
        for (const uint64_t value : values) {
            append(extra, record_bytes(value));
        }
    }
    return extra;
}

uint32_t narrow(uint64_t value, bool is_wide) {
    return is_wide ? zip_wide32 : static_cast<uint32_t>(value);
}

zip_entry_fields fields_of(const std::string& name, const PackedData& data, bool is_wide, size_t extra_length) {
    zip_entry_fields fields{};
    fields.version_needed = is_wide || extra_length > 0 ? version_zip64 : version_plain;
    fields.method = data.method;
    fields.date = first_date;
    fields.crc = data.crc;
    fields.packed_size = narrow(data.packed_size, is_wide);
    fields.size = narrow(data.size, is_wide);
    fields.name_length = static_cast<uint16_t>(name.size());
    fields.extra_length = static_cast<uint16_t>(extra_length);
    return fields;
}

std::span<const uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

} // namespace

PackageWriter::PackageWriter(std::string path)
    : path_(std::move(path)), unfinished_(path_ + ".part"),
      fd_(open(unfinished_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)) {
    if (fd_.get() < 0) {
        throw Failure(ExitCode::failed, "cannot create " + unfinished_ + because(errno));
    }
}

PackageWriter::~PackageWriter() {
    if (!unfinished_.empty()) {
        std::remove(unfinished_.c_str());
    }
}

/** Both sizes are in the zip64 record where one of them is, as a local header requires. */
void PackageWriter::begin_entry(const std::string& name, const PackedData& data) {
    const bool is_wide = std::max(data.size, data.packed_size) >= zip_wide32;
    const bool is_far = size_ >= zip_wide32;
    const auto extra = is_wide ? zip64_extra({data.size, data.packed_size}) : zip64_extra({});
    const auto far_extra = is_wide && is_far ? zip64_extra({data.size, data.packed_size, size_})
                           : is_far          ? zip64_extra({size_})
                                             : extra;
    zip_directory_header listed{};
    listed.signature = zip_directory_signature;
    listed.fields = fields_of(name, data, is_wide, far_extra.size());
    listed.made_by = made_by_unix | listed.fields.version_needed;
    listed.attributes = regular_file;
    listed.offset = narrow(size_, is_far);
    append(directory_, record_bytes(listed));
    append(directory_, bytes_of(name));
    append(directory_, far_extra);
    ++entries_;
    const zip_local_header header{zip_local_signature, fields_of(name, data, is_wide, extra.size())};
    add(record_bytes(header));
    add(bytes_of(name));
    add(extra);
}

void PackageWriter::add(std::span<const uint8_t> bytes) {
    size_ += bytes.size();
    write_all(fd_.get(), bytes, "cannot write " + unfinished_);
}

void PackageWriter::write_directory() {
    const uint64_t offset = size_;
    const uint64_t size = directory_.size();
    add(directory_);
    const bool is_wide = offset >= zip_wide32 || entries_ >= zip_wide16;
    if (is_wide) {
        const uint64_t end_offset = size_;
        add(record_bytes(zip64_end{zip64_end_signature, zip64_end_length, made_by_unix | version_zip64, version_zip64,
                                   0, 0, entries_, entries_, size, offset}));
        add(record_bytes(zip64_locator{zip64_locator_signature, 0, end_offset, 1}));
    }
    const auto count = static_cast<uint16_t>(is_wide ? zip_wide16 : entries_);
    add(record_bytes(
        zip_end{zip_end_signature, 0, 0, count, count, static_cast<uint32_t>(size), narrow(offset, is_wide), 0}));
}

void PackageWriter::finish() {
    write_directory();
    if (fsync(fd_.get()) != 0 || std::rename(unfinished_.c_str(), path_.c_str()) != 0) {
        throw Failure(ExitCode::failed, "cannot write " + path_ + because(errno));
    }
    unfinished_.clear();
}
