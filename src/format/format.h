// SPDX-License-Identifier: Apache-2.0
/** Shared by the readers and writers of stored and foreign formats, which only handle bytes: no I/O, no messages. */
#ifndef FORMAT_H
#define FORMAT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

/* The library's own records are kept in memory as they are stored, little-endian. */
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

/** The result of checking bytes against a format. */
enum class format_state {
    valid,
    absent,  /* erased or empty: nothing was written there */
    torn,    /* begins like the format, but is incomplete or damaged */
    foreign, /* something else */
};

/** The reason is a phrase such as "wrong checksum", and null for a valid record. */
struct format_answer {
    format_state state;
    const char* reason;
};

inline constexpr format_answer format_valid = {format_state::valid, nullptr};
inline constexpr format_answer format_erased = {format_state::absent, "erased"};
inline constexpr format_answer format_too_short = {format_state::torn, "too short"};
inline constexpr format_answer format_wrong_checksum = {format_state::torn, "wrong checksum"};
inline constexpr format_answer format_wrong_magic = {format_state::foreign, "wrong magic number"};

/** Whether every byte is 0, or every byte is 0xFF as after an erase. Also true of no bytes. */
bool is_erased(std::span<const uint8_t> bytes);

/** CRC-32/ISO-HDLC, the checksum of the stored records and of zip. */
uint32_t crc32_of(std::span<const uint8_t> bytes);

/** The stored form of a record. */
template <class Record>
std::span<const uint8_t, sizeof(Record)> record_bytes(const Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return std::span<const uint8_t, sizeof(Record)>(reinterpret_cast<const uint8_t*>(&record), sizeof record);
}

/** A little-endian number at byte `at`, which the caller has checked to be in range. */
template <class Number>
Number load_le(std::span<const uint8_t> bytes, size_t at) {
    Number number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return number;
}

#endif
