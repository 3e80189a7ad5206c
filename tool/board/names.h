// SPDX-License-Identifier: Apache-2.0
/** Maps the numbers that the board stores to words and back. */
#ifndef TOOL_NAMES_H
#define TOOL_NAMES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct Name {
    int32_t value;
    const char* word;
};

class Names {
public:
    explicit constexpr Names(std::span<const Name> names) : names_(names) {
    }
    /** The word for `value`; "unknown" or "unknown (7)" for a number without one. */
    [[nodiscard]] std::string word(int32_t value) const;
    [[nodiscard]] std::optional<int32_t> value(std::string_view word) const;
    /** All words, for messages: "a, b or c". */
    [[nodiscard]] std::string choices() const;

private:
    std::span<const Name> names_;
};

extern const Names medium_names;
extern const Names described_medium_names; /* of a partition in a description */
extern const Names method_names;           /* the methods that the command installs by */
extern const Names mode_names;
extern const Names type_names;
extern const Names flag_names;
extern const Names owner_names;

/** "a" for slot 0 up to "d"; "unknown" for anything else. */
std::string slot_letter(int32_t slot);

/** A slot by number or letter. */
std::optional<int32_t> slot_from_word(std::string_view word);

#endif
